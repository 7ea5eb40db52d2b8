#pragma once
// A picture of part of the screen, written as PNG by an external capture tool run as a bounded child.
#include <filesystem>
#include <string>
#include <variant>

#include "platform/screen_rect.h"

namespace aimwise::ScreenshotCapture {

struct Captured {};
struct TimedOut {
    double timeoutSec = 0;
};
struct Failed {
    std::string reason;
};
using Result = std::variant<Captured, TimedOut, Failed>;

// Writes `rect` to `destination`. Captured means the tool succeeded and the file is not empty.
Result captureRect(const ScreenRect& rect, const std::filesystem::path& destination, double timeoutSec);

// The whole screen, for a front window whose place the desktop does not tell (most Wayland
// compositors). On Wayland desktops both calls use grim or the desktop portal.
Result captureScreen(const std::filesystem::path& destination, double timeoutSec);

// The tool that captureRect would run, e.g. "maim"; absent tools give a description of what is missing.
std::string toolDescription();

}  // namespace aimwise::ScreenshotCapture
