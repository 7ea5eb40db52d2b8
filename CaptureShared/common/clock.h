#pragma once
#include <cstdint>

namespace aimwise {

// "Now": the system clock in seconds times 1000, truncated to whole milliseconds.
int64_t wallClockMs();

}  // namespace aimwise
