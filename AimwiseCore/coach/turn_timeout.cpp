#include "AimwiseCore/coach/turn_timeout.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

namespace aimwise::TurnTimeout {

std::string secondsText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", seconds);
    return text;
}

Exceeded::Exceeded(double seconds)
    : Error("turn watchdog: no response within " + secondsText(seconds) + "s -- abandoning this turn"),
      seconds(seconds) {}

void run(double seconds, const std::function<void()>& operation, std::shared_ptr<CancellationToken> token) {
    if (!token) token = std::make_shared<CancellationToken>();
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    bool expired = false;
    std::thread watchdog([&] {
        std::unique_lock lock(mutex);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(std::max(0.0, seconds));
        if (!finished.wait_until(lock, deadline, [&] { return done; })) {
            expired = true;
            token->cancel();
        }
    });
    auto stopWatchdog = [&] {
        {
            std::lock_guard lock(mutex);
            done = true;
        }
        finished.notify_all();
        watchdog.join();
        return expired;
    };
    try {
        CancellationScope scope(token);
        operation();
    } catch (...) {
        if (stopWatchdog()) throw Exceeded(seconds);
        throw;
    }
    if (stopWatchdog()) throw Exceeded(seconds);
}

}  // namespace aimwise::TurnTimeout
