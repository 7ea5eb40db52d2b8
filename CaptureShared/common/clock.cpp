#include "CaptureShared/common/clock.h"

#include <chrono>
#include <ctime>
#include <thread>

namespace aimwise {
namespace {

class SystemClock final : public Clock {
public:
    int64_t wallMs() const override {
        const auto since = std::chrono::system_clock::now().time_since_epoch();
        return static_cast<int64_t>(std::chrono::duration<double>(since).count() * 1000.0);
    }
    int64_t monotonicMs() const override {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return int64_t(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
    }
    void sleepMs(int64_t ms) const override {
        if (ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }
};

}  // namespace

const Clock& Clock::system() {
    static const SystemClock clock;
    return clock;
}

}  // namespace aimwise
