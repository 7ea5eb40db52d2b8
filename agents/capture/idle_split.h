#pragma once
// Keyboard and pointer idle times from what X11 offers cheaply: the screen saver extension's
// idle time for any input, and the pointer position at each sample. Input that reset the idle
// time while the pointer stayed put is taken for the keyboard (a click without motion counts
// too); input with motion is taken for the pointer, even when keys were typed as well. Neither
// can be less idle than any input.
#include <cstdint>
#include <optional>
#include <utility>

namespace aimwise {

class IdleSplit {
public:
    struct Reading {
        double keySec = 0;
        double mouseSec = 0;
        double anySec = 0;
        bool operator==(const Reading&) const = default;
    };
    using Point = std::pair<int, int>;

    // `nowMs` on a monotonic clock; `anySec` as the server reports it.
    Reading update(int64_t nowMs, double anySec, Point pointer);

private:
    std::optional<int64_t> lastActivityMs_;
    std::optional<Point> lastPointer_;
    int64_t lastKeyMs_ = 0;
    int64_t lastMouseMs_ = 0;
};

}  // namespace aimwise
