#include "agents/coach/coach_driver.h"

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "AimwiseCore/coach/coach_gate_session_id.h"
#include "AimwiseCore/coach/turn_timeout.h"
#include "AimwiseCore/energy/energy_meter.h"
#include "AimwiseCore/events/event_log_writer.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "CaptureShared/dataroot/executable_path.h"
#include "agents/coach/chat_channel.h"

namespace aimwise {

namespace fs = std::filesystem;

namespace {

constexpr const char* processName = "aimwise-coach";

struct TerminalError : Error {
    using Error::Error;
};

template <typename Metered>
void finishMeter(const EnergyMeter& meter, const Metered& facts, const std::function<void(const std::string&)>& log) {
    try {
        meter.finish(facts);
    } catch (const std::exception& error) {
        if (log) log(std::string("could not record the energy row: ") + error.what() + "; the work itself stands");
    }
}

std::string userReason(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const TurnTimeout::Exceeded&) {
        return "The coach took too long to answer, so this turn was dropped.";
    } catch (const ModelBackendError& error) {
        return error.isReachabilityFailure() ? "The coach's model could not be reached, so there is no reply this time."
                                             : "The coach's model gave an answer that could not be used.";
    } catch (...) {
        return "Something went wrong while the coach was answering, so there is no reply this time.";
    }
}

}  // namespace

CoachDriver::CoachDriver(CoachDriverCore::Settings settings, Services services)
    : settings_(settings), services_(std::move(services)), core_([&] {
          if (!settings.chatIsOpen) {
              const Environment environment = settings.environment;
              const fs::path root = settings.dataRoot;
              settings.chatIsOpen = [environment, root] {
                  try {
                      return ChatChannel::isChatOpen(ChatChannel::chatLockPath(root, environment));
                  } catch (const std::exception&) {
                      return false;
                  }
              };
          }
          return settings;
      }()) {
    wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (services_.watcher) {
        try {
            services_.watcher->watch(settings_.dataRoot / "io-layer", {"events.jsonl"});
            services_.watcher->watch(settings_.dataRoot, {"checker-log.jsonl"});
        } catch (const FileWatcherError& error) {
            say("cannot watch the logs (" + error.description() + "); looking at them every " +
                std::to_string(settings_.slowPollMs / 1000) + " s instead");
            services_.watcher.reset();
        }
    }
}

CoachDriver::~CoachDriver() {
    if (workerToken_) workerToken_->cancel();
    joinWorker();
    for (int fd : chats_) ::close(fd);
    if (listenFd_ >= 0) {
        ::close(listenFd_);
        ::unlink(socketPath_.c_str());
    }
    if (wakeFd_ >= 0) ::close(wakeFd_);
}

void CoachDriver::say(const std::string& line) {
    if (services_.log) services_.log(line);
}

void CoachDriver::sayOnce(const std::string& key, const std::string& line) {
    if (std::find(saidOnce_.begin(), saidOnce_.end(), key) != saidOnce_.end()) return;
    saidOnce_.push_back(key);
    say(line);
}

void CoachDriver::feed(const CoachDriverCore::Input& input) {
    if (const auto* turn = std::get_if<CoachDriverCore::TurnEnded>(&input); turn && !turn->response) failed_ = true;
    if (const auto* gate = std::get_if<CoachDriverCore::GateEnded>(&input); gate && gate->backendFailed) failed_ = true;
    apply(core_.handle(input, services_.clock->wallMs()));
}

void CoachDriver::apply(std::vector<CoachDriverCore::Effect> effects) {
    bool appended = false;
    for (auto& effect : effects) {
        if (auto* log = std::get_if<CoachDriverCore::Log>(&effect)) {
            say(log->line);
        } else if (auto* append = std::get_if<CoachDriverCore::AppendEvents>(&effect)) {
            try {
                EventLogWriter::append(append->events, settings_.dataRoot / "io-layer" / "events.jsonl", processName);
                appended = true;
            } catch (const std::exception& error) {
                failed_ = true;
                say(std::string("could not append to the event log (") + error.what() +
                    "); the lines before it stand and nothing else was changed");
            }
        } else if (auto* gate = std::get_if<CoachDriverCore::CallGate>(&effect)) {
            startGate(*gate);
        } else if (auto* turn = std::get_if<CoachDriverCore::RunTurn>(&effect)) {
            startTurn(std::move(*turn));
        } else if (auto* decision = std::get_if<CoachDriverCore::RecordGateDecision>(&effect)) {
            try {
                GateDecisionLog::append(decision->record, GateDecisionLog::defaultURL(settings_.dataRoot));
            } catch (const std::exception& error) {
                say(std::string("could not record the gate decision (") + error.what() + ")");
            }
        } else if (auto* usage = std::get_if<CoachDriverCore::RecordUsage>(&effect)) {
            try {
                usage->record.append(settings_.dataRoot);
            } catch (const std::exception& error) {
                say(std::string("could not record the turn's usage (") + error.what() + ")");
            }
        } else if (auto* show = std::get_if<CoachDriverCore::ShowNotification>(&effect)) {
            showNotification(show->text);
        } else if (std::holds_alternative<CoachDriverCore::CloseNotification>(effect)) {
            closeNotification();
        } else if (std::holds_alternative<CoachDriverCore::OpenChat>(effect)) {
            try {
                if (services_.openChat) services_.openChat();
                else openChatInTerminal(settings_.environment);
            } catch (const std::exception& error) {
                say(std::string("could not open the chat (") + error.what() + "); `aimwise chat` opens it by hand");
            }
        } else if (auto* delta = std::get_if<CoachDriverCore::ChatDelta>(&effect)) {
            broadcast(ChatChannel::encode({.text = delta->delta.text, .thinking = delta->delta.thinking,
                                           .reset = delta->delta.resetsPrevious}));
        } else if (auto* ended = std::get_if<CoachDriverCore::ChatTurnEnded>(&effect)) {
            ChatChannel::Message message{.type = ChatChannel::Message::Type::end};
            if (ended->failure) message = {.type = ChatChannel::Message::Type::failed, .reason = *ended->failure};
            else if (ended->text) message.text = *ended->text;
            else message.silent = true;
            broadcast(ChatChannel::encode(message));
        }
    }
    // What was just written is weighed at once, so a check-in's turn or a recorded timeout's follow-up
    // does not wait for the watcher.
    if (appended) feed(CoachDriverCore::LogsChanged{});
}

void CoachDriver::post(CoachDriverCore::Input input) {
    {
        std::lock_guard lock(queueMutex_);
        queue_.push_back(std::move(input));
    }
    const uint64_t one = 1;
    (void)!::write(wakeFd_, &one, sizeof one);
}

void CoachDriver::joinWorker() {
    if (worker_.joinable()) worker_.join();
}

void CoachDriver::startGate(const CoachDriverCore::CallGate& call) {
    joinWorker();
    workerToken_ = std::make_shared<CancellationToken>();
    const int64_t generation = services_.providerSelector ? services_.providerSelector->routingGeneration() : 0;
    const std::string session = CoachGateSessionID::value(call.lowEffort, generation);
    worker_ = std::thread([this, call, session, token = workerToken_] {
        CoachDriverCore::GateEnded ended{.job = call.job};
        const EnergyMeter meter = EnergyMeter::start(EnergyKind::gate, settings_.dataRoot);
        try {
            CancellationScope scope(token);
            CoachGate gate(services_.backend, services_.gateMaxTokens);
            CoachGate::Callbacks callbacks{
                .onUsage = [&](const ChatResponse& response) { ended.usage.add(response); },
                .onUnconstrainedRetry = [this](const std::string& line) { say("gate: " + line); },
                .onBackendError = [&](const ModelBackendError&) { ended.backendFailed = true; }};
            ended.outcome = gate.decide(call.message, session, call.unconstrained, &breaker_, callbacks, &ended.attempts);
        } catch (const CancellationError&) {
            return;
        } catch (const std::exception& error) {
            ended.outcome = GateOutcome::failed(std::string("backend: ") + error.what());
            ended.backendFailed = true;
        }
        ended.breaker = breaker_.counters();
        finishMeter(meter, EnergyMeter::Facts{ended.usage.servedBy, ended.usage.usage}, services_.log);
        post(std::move(ended));
    });
}

void CoachDriver::startTurn(CoachDriverCore::RunTurn run) {
    joinWorker();
    workerToken_ = std::make_shared<CancellationToken>();
    worker_ = std::thread([this, run = std::move(run), token = workerToken_] {
        CoachDriverCore::TurnEnded ended{.job = run.job};
        const EnergyMeter meter = EnergyMeter::start(EnergyKind::turn, settings_.dataRoot);
        const StreamDeltaHandler onDelta = [this, job = run.job](const ModelStreamDelta& delta) {
            post(CoachDriverCore::Delta{job, delta});
        };
        ChatResponse response;
        try {
            TurnTimeout::run(
                run.timeoutSec,
                [&] {
                    response = run.layer3 ? Layer3CoachLoop::runTurn(run.turn.messages, run.tools, *services_.backend,
                                                                     run.turn.options, run.correctJudgment, onDelta)
                                          : CoachLoop::complete(run.turn, run.tools, *services_.backend,
                                                                run.uiStateAnswer, run.correctJudgment, onDelta);
                },
                token);
            ended.response = response;
        } catch (const CancellationError&) {
            return;
        } catch (const Error& error) {
            ended.failureReason = error.description();
            ended.failureUserReason = userReason(std::current_exception());
        } catch (const std::exception& error) {
            ended.failureReason = error.what();
            ended.failureUserReason = userReason(std::current_exception());
        }
        finishMeter(meter,
                    EnergyMeter::Facts{ended.response ? ended.response->servedBy : std::nullopt,
                                       ended.response ? ended.response->usage : std::nullopt},
                    services_.log);
        post(std::move(ended));
    });
}

void CoachDriver::drainWorker() {
    uint64_t value = 0;
    (void)!::read(wakeFd_, &value, sizeof value);
    std::vector<CoachDriverCore::Input> inputs;
    {
        std::lock_guard lock(queueMutex_);
        inputs.swap(queue_);
    }
    for (auto& input : inputs) {
        const bool ends = std::holds_alternative<CoachDriverCore::GateEnded>(input) ||
                          std::holds_alternative<CoachDriverCore::TurnEnded>(input);
        if (ends) joinWorker();
        feed(input);
        // A turn's buffers go back to the system, so an idle driver stays small between turns.
        if (ends) ::malloc_trim(0);
    }
}

void CoachDriver::showNotification(const std::string& text) {
    say("coach: " + text);
    if (!notifications_ && services_.connectNotifications) {
        try {
            notifications_ = services_.connectNotifications();
        } catch (const std::exception& error) {
            sayOnce("no-bus", std::string("no notification service (") + error.what() +
                                  "); the coach's words still reach `aimwise chat` and this log");
            return;
        }
    }
    if (!notifications_) return;
    NotificationService::Notification notification{
        .summary = "Your coach", .body = text, .actions = {{"reply", "Reply"}, {"not-now", "Not now"}},
        .replaces = notificationId_.value_or(0)};
    try {
        notificationId_ = notifications_->show(notification);
        std::erase(saidOnce_, "no-service");
    } catch (const std::exception& error) {
        sayOnce("no-service", std::string("the notification was not shown (") + error.what() +
                                  "); the coach's words still reach `aimwise chat` and this log. Waiting for a "
                                  "notification service.");
        notifications_.reset();
        notificationId_.reset();
    }
}

void CoachDriver::closeNotification() {
    if (!notifications_ || !notificationId_) return;
    try {
        notifications_->close(*std::exchange(notificationId_, std::nullopt));
    } catch (const std::exception& error) {
        say(std::string("could not close the notification (") + error.what() + ")");
    }
}

void CoachDriver::readNotificationSignals() {
    std::vector<NotificationService::Signal> signals;
    try {
        signals = notifications_->readSignals();
    } catch (const std::exception& error) {
        say(std::string("lost the notification service (") + error.what() + "); connecting again when next needed");
        notifications_.reset();
        notificationId_.reset();
        return;
    }
    for (const auto& signal : signals) {
        if (signal.id != notificationId_) continue;
        if (signal.kind == NotificationService::Signal::Kind::actionInvoked) {
            notificationId_.reset();
            feed(CoachDriverCore::NotificationAction{signal.actionKey});
        } else {
            notificationId_.reset();
            feed(CoachDriverCore::NotificationClosed{});
        }
    }
}

void CoachDriver::listenForChats() {
    try {
        socketPath_ = ChatChannel::socketPath(settings_.dataRoot, settings_.environment).string();
    } catch (const std::exception& error) {
        say(std::string("no runtime directory for the chat socket (") + error.what() +
            "); the chat will show replies from the event log");
        return;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath_.size() >= sizeof address.sun_path) {
        say("the chat socket's path is too long; the chat will show replies from the event log");
        return;
    }
    std::memcpy(address.sun_path, socketPath_.c_str(), socketPath_.size() + 1);
    // Whatever is there was left by an earlier driver: this one holds the data root's lock.
    ::unlink(socketPath_.c_str());
    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listenFd_, 8) != 0) {
        say(std::string("could not listen for chats at ") + socketPath_ + " (" + std::strerror(errno) +
            "); the chat will show replies from the event log");
        if (listenFd_ >= 0) ::close(listenFd_);
        listenFd_ = -1;
    }
}

void CoachDriver::acceptChats() {
    for (;;) {
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        chats_.push_back(fd);
    }
}

void CoachDriver::broadcast(const std::string& line) {
    std::erase_if(chats_, [&](int fd) {
        const ssize_t sent = ::send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent == static_cast<ssize_t>(line.size())) return false;
        ::close(fd);  // a chat that cannot keep up reads the rest from the event log
        return true;
    });
}

int CoachDriver::runOnce() {
    feed(CoachDriverCore::LogsChanged{});
    while (core_.busy()) {
        pollfd wake{wakeFd_, POLLIN, 0};
        if (::poll(&wake, 1, 1000) > 0) drainWorker();
    }
    return failed_ ? 1 : 0;
}

int CoachDriver::run(int stopFd) {
    listenForChats();
    say("watching " + settings_.dataRoot.string() + " for the coach");
    feed(CoachDriverCore::LogsChanged{});
    for (;;) {
        std::vector<pollfd> fds{{stopFd, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
        const size_t watcherAt = fds.size();
        if (services_.watcher) fds.push_back({services_.watcher->pollFd(), POLLIN, 0});
        const size_t busAt = fds.size();
        if (notifications_) fds.push_back({notifications_->pollFd(), POLLIN, 0});
        const size_t listenAt = fds.size();
        if (listenFd_ >= 0) fds.push_back({listenFd_, POLLIN, 0});
        const size_t chatsAt = fds.size();
        for (int fd : chats_) fds.push_back({fd, POLLIN, 0});

        const int64_t now = services_.clock->wallMs();
        const int64_t waitMs = std::clamp<int64_t>(core_.nextDeadlineMs(now) - now, 0, 3'600'000);
        const int ready = ::poll(fds.data(), fds.size(), static_cast<int>(waitMs));
        if (ready < 0 && errno != EINTR) {
            say(std::string("poll failed: ") + std::strerror(errno));
            return 1;
        }
        if (ready <= 0) {
            feed(CoachDriverCore::TimerFired{});
            continue;
        }
        if (fds[0].revents) {
            say("stopping");
            return 0;
        }
        if (fds[1].revents) drainWorker();
        if (services_.watcher && fds[watcherAt].revents) {
            try {
                if (!services_.watcher->readEvents().empty()) feed(CoachDriverCore::LogsChanged{});
            } catch (const std::exception& error) {
                say(std::string("the file watcher failed (") + error.what() + "); polling the logs instead");
                services_.watcher.reset();
            }
        }
        if (notifications_ && busAt < fds.size() && fds[busAt].fd == notifications_->pollFd() && fds[busAt].revents)
            readNotificationSignals();
        if (listenFd_ >= 0 && fds[listenAt].revents) acceptChats();
        for (size_t i = chatsAt; i < fds.size(); ++i) {
            if (!fds[i].revents) continue;
            char sink[256];
            if (::recv(fds[i].fd, sink, sizeof sink, MSG_DONTWAIT) <= 0) {
                ::close(fds[i].fd);
                std::erase(chats_, fds[i].fd);
            }
        }
        if (!core_.busy() && core_.nextDeadlineMs(services_.clock->wallMs()) <= services_.clock->wallMs())
            feed(CoachDriverCore::TimerFired{});
    }
}

void CoachDriver::openChatInTerminal(const Environment& environment) {
    const auto configured = lookup(environment, "TERMINAL");
    const std::string terminal = configured && !configured->empty() ? *configured : "x-terminal-emulator";
    const std::string aimwise = (ExecutablePath::siblingDirectory(ExecutablePath::resolveSelf()) / "aimwise").string();
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) throw TerminalError(std::string("pipe: ") + std::strerror(errno));
    const pid_t child = ::fork();
    if (child < 0) throw TerminalError(std::string("fork: ") + std::strerror(errno));
    if (child == 0) {
        // The terminal outlives this process's interest in it: a grandchild in its own session, so
        // nothing is left to reap.
        ::setsid();
        if (::fork() == 0) {
            const char* argv[] = {terminal.c_str(), "-e", aimwise.c_str(), "chat", nullptr};
            ::execvp(argv[0], const_cast<char* const*>(argv));
            const int error = errno;
            (void)!::write(report[1], &error, sizeof error);
            ::_exit(127);
        }
        ::_exit(0);
    }
    ::close(report[1]);
    ::waitpid(child, nullptr, 0);
    int error = 0;
    const ssize_t got = ::read(report[0], &error, sizeof error);
    ::close(report[0]);
    if (got == sizeof error) throw TerminalError("could not start " + terminal + ": " + std::strerror(error));
}

}  // namespace aimwise
