#include "agents/aimwise/chat_verb.h"

#include <editline/readline.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <optional>

#include "AimwiseCore/coach/coach_turn_effects.h"
#include "AimwiseCore/coach/projection_time_text.h"
#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/events/event_log_writer.h"
#include "AimwiseCore/events/incremental_jsonl_reader.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "agents/coach/chat_channel.h"
#include "platform/file_watcher.h"

namespace aimwise::ChatVerb {

namespace fs = std::filesystem;

namespace {

std::optional<std::string> member(const EventLogEvent& event, const char* key) {
    const JSONValue* value = event.detail.member(key);
    return value ? value->stringValue() : std::nullopt;
}

int usage(const std::string& message) {
    std::fprintf(stderr,
                 "aimwise: %s\nusage: aimwise chat                              talk with the coach\n"
                 "       aimwise chat --send TEXT [--wait SECONDS]  send one message and print the reply\n",
                 message.c_str());
    return 2;
}

// A connection to the running driver, or -1 when none listens.
int connectToDriver(const fs::path& dataRoot, const Environment& environment) {
    fs::path path;
    try {
        path = ChatChannel::socketPath(dataRoot, environment);
    } catch (const std::exception&) {
        return -1;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.string().size() >= sizeof address.sun_path) return -1;
    std::strcpy(address.sun_path, path.c_str());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Reads what the driver sent; false once it hung up.
bool receive(int fd, std::string& buffer, std::vector<ChatChannel::Message>& messages) {
    char chunk[4096];
    const ssize_t got = ::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) return false;
    if (got > 0) buffer.append(chunk, static_cast<size_t>(got));
    for (size_t end; (end = buffer.find('\n')) != std::string::npos; buffer.erase(0, end + 1))
        if (auto message = ChatChannel::decode(std::string_view(buffer).substr(0, end))) messages.push_back(*message);
    return true;
}

void appendMessage(const std::string& text, int64_t nowMs, const fs::path& log) {
    EventLogWriter::append(AppChatEvents::userMessage(text, nowMs), log, "aimwise");
}

std::vector<EventLogEvent> readLog(const fs::path& log) {
    try {
        return EventLogReader::read(log);
    } catch (const std::exception&) {
        return {};
    }
}

int send(const std::string& text, double waitSec, const fs::path& dataRoot, const Environment& environment,
         const Clock& clock) {
    const fs::path log = dataRoot / "io-layer" / "events.jsonl";
    const int driver = connectToDriver(dataRoot, environment);
    std::unique_ptr<FileWatcher> watcher;
    try {
        watcher = FileWatcher::create();
        watcher->watch(log.parent_path(), {log.filename().string()});
    } catch (const std::exception&) {
        watcher.reset();
    }
    const int64_t sentMs = clock.wallMs();
    try {
        appendMessage(text, sentMs, log);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "FAIL: could not append your message to %s (%s); nothing was sent.\n", log.c_str(),
                     error.what());
        if (driver >= 0) ::close(driver);
        return 1;
    }
    if (driver < 0)
        std::fprintf(stderr, "The coach driver is not running; your message is kept and will be answered when it "
                             "starts (systemctl --user start aimwise-coach).\n");
    IncrementalJSONLReader<EventLogEvent> reader(log, EventLogEvent::decode, 300);
    std::vector<EventLogEvent> seen;
    std::string buffer, lastFailure;
    const int64_t deadline = sentMs + static_cast<int64_t>(waitSec * 1000);
    bool connected = driver >= 0;
    for (;;) {
        try {
            auto read = reader.read();
            if (read.kind == IncrementalReadResult<EventLogEvent>::Kind::reset) seen.clear();
            seen.insert(seen.end(), read.rows.begin(), read.rows.end());
        } catch (const std::exception&) {
        }
        if (auto reply = replyAfter(seen, sentMs)) {
            std::printf("%s\n", printable(*reply).c_str());
            if (driver >= 0) ::close(driver);
            return 0;
        }
        const int64_t now = clock.wallMs();
        if (now >= deadline) break;
        std::vector<pollfd> fds;
        if (connected) fds.push_back({driver, POLLIN, 0});
        if (watcher) fds.push_back({watcher->pollFd(), POLLIN, 0});
        const int timeout = static_cast<int>(std::min<int64_t>(deadline - now, watcher ? 5000 : 250));
        ::poll(fds.data(), fds.size(), timeout);
        if (watcher) watcher->readEvents();
        if (connected) {
            std::vector<ChatChannel::Message> messages;
            connected = receive(driver, buffer, messages);
            for (const auto& message : messages)
                if (message.type == ChatChannel::Message::Type::failed) lastFailure = message.reason;
        }
    }
    if (driver >= 0) ::close(driver);
    std::fprintf(stderr, "No reply from the coach within %g s.%s Your message is in the conversation.\n", waitSec,
                 lastFailure.empty() ? "" : (" The last turn failed: " + printable(lastFailure)).c_str());
    return 1;
}

// The interactive chat's state, for libedit's line callback.
struct Session {
    fs::path log;
    const Clock* clock = nullptr;
    bool done = false;
    bool replying = false;
    std::string streamed;
};
Session* session = nullptr;

fs::path historyPath(const Environment& environment) {
    const auto state = lookup(environment, "XDG_STATE_HOME");
    const auto home = lookup(environment, "HOME");
    const fs::path base = state && !state->empty() ? fs::path(*state)
                                                   : fs::path(home.value_or("/tmp")) / ".local" / "state";
    return base / "AimwiseCoach" / "chat-history";
}

void onLine(char* raw) {
    if (!raw) {
        session->done = true;
        return;
    }
    const std::string line = trimWhitespaceAndNewlines(raw);
    std::free(raw);
    if (line.empty()) return;
    if (line == "/quit" || line == "/exit") {
        session->done = true;
        return;
    }
    add_history(line.c_str());
    try {
        appendMessage(line, session->clock->wallMs(), session->log);
    } catch (const std::exception& error) {
        std::printf("Could not send that (%s); it was not recorded.\n", error.what());
    }
}

// The prompt anew, in editing mode: libedit leaves the terminal as a finished line left it.
void prompt() {
    rl_callback_handler_remove();
    rl_callback_handler_install("you: ", onLine);
}

// Streamed pieces as they come; at the end the turn's words when the stream did not carry them (a
// check-in's words travel in its open_ui call) or when cleaning changed them.
void show(const ChatChannel::Message& message) {
    using Type = ChatChannel::Message::Type;
    if (message.type == Type::delta) {
        if (!session->replying || message.reset) {
            std::printf(session->replying ? "\n(the coach started over)\ncoach: " : "\r\033[Kcoach: ");
            session->replying = true;
            session->streamed.clear();
        }
        session->streamed += printable(message.text);
        std::printf("%s", printable(message.text).c_str());
        std::fflush(stdout);
        return;
    }
    const std::string words = printable(message.text);
    const char* lead = session->replying ? "\n" : "\r\033[K";
    if (message.type == Type::failed) std::printf("%s(%s)\n", lead, printable(message.reason).c_str());
    else if (!message.silent && !words.empty() && words != session->streamed) std::printf("%scoach: %s\n", lead, words.c_str());
    else if (session->replying) std::printf("\n");
    else return;
    session->replying = false;
    session->streamed.clear();
    prompt();
    std::fflush(stdout);
}

int interactive(const fs::path& dataRoot, const Environment& environment, const Clock& clock) {
    const fs::path log = dataRoot / "io-layer" / "events.jsonl";
    for (const std::string& line : recentLines(readLog(log), clock.wallMs())) std::printf("%s\n", line.c_str());

    int lockFd = -1;
    try {
        lockFd = ::open(ChatChannel::chatLockPath(dataRoot, environment).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (lockFd >= 0) ::flock(lockFd, LOCK_SH);
    } catch (const std::exception&) {
    }
    int driver = connectToDriver(dataRoot, environment);
    if (driver < 0)
        std::printf("(The coach driver is not running: what you write is kept and answered when it starts — "
                    "systemctl --user start aimwise-coach.)\n");
    std::printf("(Type a message and press Enter; /quit or Ctrl-D leaves.)\n");

    const fs::path history = historyPath(environment);
    std::error_code ignored;
    fs::create_directories(history.parent_path(), ignored);
    stifle_history(500);
    read_history(history.c_str());
    Session state{log, &clock};
    session = &state;
    rl_callback_handler_install("you: ", onLine);
    std::string buffer;
    while (!state.done) {
        std::vector<pollfd> fds{{STDIN_FILENO, POLLIN, 0}};
        if (driver >= 0) fds.push_back({driver, POLLIN, 0});
        if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) break;
        if (fds[0].revents) rl_callback_read_char();
        if (driver >= 0 && fds.size() > 1 && fds[1].revents) {
            std::vector<ChatChannel::Message> messages;
            if (!receive(driver, buffer, messages)) {
                ::close(driver);
                driver = -1;
                std::printf("\r\033[K(The coach driver stopped; replies come when it starts again.)\n");
                prompt();
            }
            for (const auto& message : messages) show(message);
        }
    }
    rl_callback_handler_remove();
    std::printf("\n");
    write_history(history.c_str());
    ::chmod(history.c_str(), 0600);
    session = nullptr;
    if (driver >= 0) ::close(driver);
    if (lockFd >= 0) ::close(lockFd);
    return 0;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && c != '\n' && c != '\t') || byte == 0x7F) continue;
        out.push_back(c);
    }
    return out;
}

std::vector<std::string> recentLines(std::span<const EventLogEvent> events, int64_t nowMs, size_t limit) {
    std::vector<std::string> lines;
    for (const EventLogEvent& event : events) {
        if (event.type != "app_chat_message" || event.tsMs < nowMs - 86'400'000 || event.tsMs > nowMs) continue;
        const auto role = member(event, "role");
        const auto text = member(event, "text");
        if (!text || text->empty() || (role != "user" && role != "coach")) continue;
        lines.push_back(ProjectionTimeText::hourMinute(event.tsMs) + (role == "user" ? " you: " : " coach: ") +
                        printable(*text));
    }
    if (lines.size() > limit) lines.erase(lines.begin(), lines.end() - static_cast<ptrdiff_t>(limit));
    return lines;
}

std::optional<std::string> replyAfter(std::span<const EventLogEvent> events, int64_t sentMs) {
    for (const EventLogEvent& event : events) {
        if (event.type != "app_chat_message" || event.tsMs < sentMs || member(event, "role") != "coach") continue;
        if (auto text = member(event, "text"); text && !text->empty()) return text;
    }
    return std::nullopt;
}

int run(const std::vector<std::string>& arguments, const Environment& environment, const Clock& clock) {
    std::optional<std::string> text;
    double waitSec = defaultWaitSec;
    for (size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == "--send" && i + 1 < arguments.size()) {
            text = trimWhitespaceAndNewlines(arguments[++i]);
        } else if (arguments[i] == "--wait" && i + 1 < arguments.size()) {
            char* end = nullptr;
            waitSec = std::strtod(arguments[++i].c_str(), &end);
            if (end == arguments[i].c_str() || *end || !(waitSec >= 0) || waitSec > 86'400)
                return usage("--wait needs a number of seconds from 0 to 86400, not \"" + arguments[i] + "\"");
        } else {
            return usage("chat takes --send TEXT and --wait SECONDS, not \"" + arguments[i] + "\"");
        }
    }
    if (text && text->empty()) return usage("--send needs a message");
    if (!text && waitSec != defaultWaitSec) return usage("--wait goes with --send");
    if (!DataPaths::isDataRootAvailable()) {
        std::fprintf(stderr, "FAIL: %s — nothing was sent. Run `aimwise init PATH` first.\n",
                     DataPaths::dataRootUnavailableReason().value_or("the data root is not available").c_str());
        return 1;
    }
    if (text) return send(*text, waitSec, DataPaths::dataRoot(), environment, clock);
    return interactive(DataPaths::dataRoot(), environment, clock);
}

}  // namespace aimwise::ChatVerb
