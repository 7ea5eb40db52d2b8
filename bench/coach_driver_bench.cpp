// The coach driver as the person meets it, measured on the real program against the scripted model
// server (the conversation path, replies streamed at once):
//   - ChatLineToModelRequest: from a chat line appended to the event log to the turn's request at the
//     model server; baseline: the same append seen by an inotify watch in this process.
//   - ModelLastByteToChat: from the model's last byte to the finished reply at a connected chat;
//     baseline: a request to the scripted server straight from this process.
//   - IdleDriver: CPU time per hour and resident memory of a driver with nothing to do, over a window
//     that includes one of its slow polls (AIMWISE_BENCH_IDLE_SEC, 65 by default).
#include <benchmark/benchmark.h>
#include <signal.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "AimwiseCore/coach/coach_turn_effects.h"
#include "AimwiseCore/events/event_log_writer.h"
#include "AimwiseCore/models/http_session.h"
#include "AimwiseCore/models/local_model_backend.h"
#include "AimwiseCore/models/request_conformance.h"
#include "agents/coach/chat_channel.h"
#include "platform/file_watcher.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace aimwise;
using namespace aimwise::testing;
using Clock = std::chrono::steady_clock;

struct Driver {
    TempDir temp{"aimwise-coach-bench"};
    fs::path root = temp / "root";
    ScriptedModelServer server{ScriptedModelServer::Transport::tcp};
    std::atomic<int64_t> lastByteNs{0};
    Environment environment;
    pid_t pid = -1;

    Driver() {
        fs::create_directories(root / "io-layer");
        environment = {{"HOME", (temp / "home").string()}, {"AIMCAP_DATA_ROOT", root.string()},
                       {"XDG_RUNTIME_DIR", (temp / "run").string()}, {"XDG_STATE_HOME", (temp / "state").string()},
                       {"AIMCAP_LOCAL_INFERENCE_ENDPOINT", server.baseURLString()}, {"AIMCAP_LAYER3", "1"},
                       {"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent"}};
        server.setHandler("/v1/chat/completions", [this](const ScriptedModelServer::Request&) {
            auto reply = ScriptedModelServer::Reply::events(ScriptedModelServer::streamPayloads({"Open the ", "outline."}));
            lastByteNs = Clock::now().time_since_epoch().count();
            return reply;
        });
        pid = ::fork();
        if (pid == 0) {
            for (const auto& [key, value] : environment) ::setenv(key.c_str(), value.c_str(), 1);
            const std::string program = std::string(AIMWISE_BINARY_DIR) + "/bin/aimwise-coach";
            ::execl(program.c_str(), program.c_str(), nullptr);
            ::_exit(127);
        }
        for (int i = 0; i < 200 && !fs::exists(ChatChannel::socketPath(root, environment)); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ~Driver() {
        ::kill(pid, SIGTERM);
        ::waitpid(pid, nullptr, 0);
    }
    int connectChat() const {
        const std::string path = ChatChannel::socketPath(root, environment).string();
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path.c_str());
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        return ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ? fd : -1;
    }
    void send(const std::string& text) {
        EventLogWriter::append(AppChatEvents::userMessage(text, std::chrono::duration_cast<std::chrono::milliseconds>(
                                                                    std::chrono::system_clock::now().time_since_epoch())
                                                                    .count()),
                               root / "io-layer" / "events.jsonl", "aimwise");
    }
    // Blocks until the chat connection `fd` hears the end of a turn.
    static void awaitEnd(int fd) {
        std::string buffer;
        char chunk[4096];
        for (;;) {
            const ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
            if (got <= 0) return;
            buffer.append(chunk, static_cast<size_t>(got));
            for (size_t end; (end = buffer.find('\n')) != std::string::npos; buffer.erase(0, end + 1))
                if (auto message = ChatChannel::decode(std::string_view(buffer).substr(0, end));
                    message && message->type != ChatChannel::Message::Type::delta)
                    return;
        }
    }
};

Driver& driver() {
    static Driver instance;
    return instance;
}

// Each turn's message is stamped a second after the last, so every one is new to the driver.
void ChatLineToModelRequest(benchmark::State& state) {
    Driver& d = driver();
    const int chat = d.connectChat();
    for (auto _ : state) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1001));
        const size_t before = d.server.requests("/v1/chat/completions").size();
        const auto start = Clock::now();
        d.send("one more thing");
        d.server.waitForRequests(before + 1, 5000);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        Driver::awaitEnd(chat);
    }
    ::close(chat);
}

void ModelLastByteToChat(benchmark::State& state) {
    Driver& d = driver();
    const int chat = d.connectChat();
    for (auto _ : state) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1001));
        d.send("and now?");
        Driver::awaitEnd(chat);
        const int64_t shownNs = Clock::now().time_since_epoch().count();
        state.SetIterationTime(static_cast<double>(shownNs - d.lastByteNs.load()) / 1e9);
    }
    ::close(chat);
}

void AppendSeenByWatch(benchmark::State& state) {
    TempDir dir;
    auto watcher = FileWatcher::create();
    watcher->watch(dir.path(), {"events.jsonl"});
    for (auto _ : state) {
        const auto start = Clock::now();
        EventLogWriter::append(AppChatEvents::userMessage("x", 1), dir / "events.jsonl");
        pollfd wait{watcher->pollFd(), POLLIN, 0};
        ::poll(&wait, 1, 1000);
        watcher->readEvents();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
}

void DirectModelRequest(benchmark::State& state) {
    Driver& d = driver();
    LocalModelBackend backend(LocalModelConfig{d.server.chatURL(), "bench", 10.0}, std::make_shared<HTTPSession>(),
                              std::nullopt, [](const std::string&) {}, RequestConformance::Mode::off);
    for (auto _ : state) {
        const auto start = Clock::now();
        backend.chatStream({ChatMessage::user("hi")}, std::nullopt, {}, [](const ModelStreamDelta&) {});
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
}

int64_t cpuTicks(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), {});
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    int64_t utime = 0, stime = 0;
    for (int i = 3; fields >> field; ++i) {
        if (i == 14) utime = std::stoll(field);
        if (i == 15) { stime = std::stoll(field); break; }
    }
    return utime + stime;
}

void IdleDriver(benchmark::State& state) {
    Driver& d = driver();
    const char* configured = std::getenv("AIMWISE_BENCH_IDLE_SEC");
    const int seconds = configured ? std::atoi(configured) : 65;
    for (auto _ : state) {
        const int64_t before = cpuTicks(d.pid);
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        const double cpuSec = static_cast<double>(cpuTicks(d.pid) - before) / static_cast<double>(::sysconf(_SC_CLK_TCK));
        state.counters["cpu_s_per_hour"] = cpuSec * 3600.0 / seconds;
        std::ifstream status("/proc/" + std::to_string(d.pid) + "/status");
        for (std::string line; std::getline(status, line);)
            for (const char* key : {"VmRSS:", "RssAnon:", "RssFile:"})
                if (line.starts_with(key)) state.counters[key] = std::stod(line.substr(std::strlen(key))) / 1024.0;
        // Shared library pages counted once per process that maps them.
        std::ifstream rollup("/proc/" + std::to_string(d.pid) + "/smaps_rollup");
        for (std::string line; std::getline(rollup, line);)
            if (line.starts_with("Pss:")) state.counters["Pss:"] = std::stod(line.substr(4)) / 1024.0;
    }
}

}  // namespace

BENCHMARK(AppendSeenByWatch)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20)->Repetitions(3)->ReportAggregatesOnly();
BENCHMARK(ChatLineToModelRequest)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(7)->Repetitions(3)->ReportAggregatesOnly();
BENCHMARK(DirectModelRequest)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20)->Repetitions(3)->ReportAggregatesOnly();
BENCHMARK(ModelLastByteToChat)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(7)->Repetitions(3)->ReportAggregatesOnly();
BENCHMARK(IdleDriver)->Unit(benchmark::kSecond)->Iterations(1);

BENCHMARK_MAIN();
