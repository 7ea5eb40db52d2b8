#pragma once
// A clock that moves only when a test says so. sleepMs advances both readings, so code that waits
// runs instantly and a test can read how long it would have waited.
#include <atomic>
#include <cstdint>

#include "CaptureShared/common/clock.h"

namespace aimwise::testing {

class FakeClock final : public Clock {
public:
    explicit FakeClock(int64_t wallMs = 1'700'000'000'000, int64_t monotonicMs = 1'000'000)
        : wall_(wallMs), monotonic_(monotonicMs) {}

    int64_t wallMs() const override { return wall_.load(); }
    int64_t monotonicMs() const override { return monotonic_.load(); }
    void sleepMs(int64_t ms) const override {
        if (ms <= 0) return;
        slept_ += ms;
        wall_ += ms;
        monotonic_ += ms;
    }

    void advance(int64_t ms) {
        wall_ += ms;
        monotonic_ += ms;
    }
    void setWall(int64_t ms) { wall_ = ms; }
    int64_t totalSleptMs() const { return slept_.load(); }

private:
    mutable std::atomic<int64_t> wall_;
    mutable std::atomic<int64_t> monotonic_;
    mutable std::atomic<int64_t> slept_{0};
};

}  // namespace aimwise::testing
