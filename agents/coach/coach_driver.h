#pragma once
// `aimwise-coach`'s loop around CoachDriverCore: one poll over the file watcher, the turn worker, the
// stop signal, the chat socket and the notification service, with the core's next deadline as its
// timeout. Effects are carried out here, each handler catching at its edge: a write that fails, a
// notification service that is gone, a terminal that will not open are logged and the loop goes on.
//
// Gate calls and turns run one at a time on a worker thread, which hands back stream deltas and the
// result through a queue and an eventfd; the loop never waits on a model.
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "AimwiseCore/coach/coach_driver_core.h"
#include "AimwiseCore/coach/coach_gate.h"
#include "AimwiseCore/models/cancellation.h"
#include "AimwiseCore/models/model_backend.h"
#include "AimwiseCore/models/sticky_provider_selector.h"
#include "CaptureShared/common/clock.h"
#include "platform/file_watcher.h"
#include "platform/notification_service.h"

namespace aimwise {

class CoachDriver {
public:
    struct Services {
        const Clock* clock = &Clock::system();
        std::shared_ptr<ModelBackend> backend;
        std::shared_ptr<StickyProviderSelector> providerSelector;
        // Called when a notification is first needed, and again after the service was lost.
        std::function<std::unique_ptr<NotificationService>()> connectNotifications;
        // Nothing: the slow poll alone.
        std::unique_ptr<FileWatcher> watcher;
        std::function<void(const std::string&)> log;
        // Opens `aimwise chat` for the person; by default in their terminal.
        std::function<void()> openChat;
        int64_t gateMaxTokens = 2048;
    };

    CoachDriver(CoachDriverCore::Settings settings, Services services);
    ~CoachDriver();
    CoachDriver(const CoachDriver&) = delete;
    CoachDriver& operator=(const CoachDriver&) = delete;

    // Handles what is pending now and returns: 0 when it ran or had nothing to do, 1 on a failure.
    int runOnce();
    // Until `stopFd` is readable (a signalfd for SIGTERM and SIGINT). Returns 0.
    int run(int stopFd);

    // Opens `aimwise chat` (beside this program) in $TERMINAL, else x-terminal-emulator. Throws
    // Error with the reason when the terminal cannot be started.
    static void openChatInTerminal(const Environment& environment);

private:
    struct Finished {
        std::optional<CoachDriverCore::Input> input;
    };

    void feed(const CoachDriverCore::Input& input);
    void apply(std::vector<CoachDriverCore::Effect> effects);
    void startGate(const CoachDriverCore::CallGate& call);
    void startTurn(CoachDriverCore::RunTurn run);
    void post(CoachDriverCore::Input input);
    void drainWorker();
    void joinWorker();
    void showNotification(const std::string& text);
    void closeNotification();
    void readNotificationSignals();
    void broadcast(const std::string& line);
    void listenForChats();
    void acceptChats();
    void say(const std::string& line);
    void sayOnce(const std::string& key, const std::string& line);

    CoachDriverCore::Settings settings_;
    Services services_;
    CoachDriverCore core_;
    GateUnconstrainedBreaker breaker_{8};

    std::thread worker_;
    std::shared_ptr<CancellationToken> workerToken_;
    std::mutex queueMutex_;
    std::vector<CoachDriverCore::Input> queue_;
    int wakeFd_ = -1;

    std::unique_ptr<NotificationService> notifications_;
    std::optional<uint32_t> notificationId_;
    int listenFd_ = -1;
    std::string socketPath_;
    std::vector<int> chats_;
    bool failed_ = false;
    std::vector<std::string> saidOnce_;
};

}  // namespace aimwise
