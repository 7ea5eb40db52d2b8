#include "CaptureShared/common/clock.h"

#include <chrono>

namespace aimwise {

int64_t wallClockMs() {
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<int64_t>(std::chrono::duration<double>(since).count() * 1000.0);
}

}  // namespace aimwise
