#pragma once
#include <cstdint>
#include <ctime>

namespace aimwise {

// Milliseconds on the monotonic clock: for intervals and deadlines, which a wall-clock change
// must not stretch or cut short.
inline int64_t monotonicMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace aimwise
