#pragma once
// The script that KWin runs on our behalf, and the reading of what it reports. KWin has no D-Bus call
// that lists windows, but a script loaded through org.kde.KWin /Scripting sees them all and can call
// back over the bus whenever the active window, a caption, a geometry or a minimised state changes.
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/desktop/window_source.h"

namespace aimwise::KWinScript {

// The callback the script makes: method `member` of `interface` at `path` on bus name `service`,
// with one string argument, the JSON list of windows front to back.
inline constexpr const char* objectPath = "/org/aimwise/capture/kwin";
inline constexpr const char* interfaceName = "org.aimwise.capture.KWin";
inline constexpr const char* member = "Windows";

// Written for both KWin 5 (clients) and KWin 6 (windows) in plain ES5.
std::string text(std::string_view service);

// Nothing for a report that is not the list the script sends; windows with a broken entry are
// skipped, minimised ones left out of `windows`.
std::optional<WindowReport> parseReport(std::string_view json);

}  // namespace aimwise::KWinScript
