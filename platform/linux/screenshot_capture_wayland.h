#pragma once
// Screenshots on a Wayland desktop: grim on wlroots compositors, the desktop portal (through the
// aimwise-desktop helper) on GNOME and KDE Plasma. A portal that would ask the person is not asked
// again for a while, so that a check never puts a dialog in front of them.
#include <filesystem>
#include <optional>

#include "platform/desktop_session.h"
#include "platform/screenshot_capture.h"

namespace aimwise::ScreenshotCapture {

// The rectangle, or the whole screen when it is not given.
Result captureOnWayland(DesktopKind kind, const std::optional<ScreenRect>& rect,
                        const std::filesystem::path& destination, double timeoutSec);

// Where the portal's refusal is remembered for the login session, and for how long.
std::filesystem::path portalDeclinedMarker();
inline constexpr int64_t portalDeclinedHoldSec = 6 * 3600;

}  // namespace aimwise::ScreenshotCapture
