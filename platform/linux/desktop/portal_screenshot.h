#pragma once
// A screenshot through the desktop portal (org.freedesktop.portal.Screenshot), for Wayland desktops
// that have no capture tool of their own for clients: GNOME and KDE Plasma. The portal writes a
// picture of the whole screen and says where; it is moved to the caller's path at once.
#include <filesystem>
#include <string>
#include <variant>

namespace aimwise::PortalScreenshot {

struct Captured {};
// The portal would ask the person (an old portal, or one that wants consent for every picture).
struct NeedsInteraction {
    std::string reason;
};
struct Unavailable {
    std::string reason;
};
struct Failed {
    std::string reason;
};
using Result = std::variant<Captured, NeedsInteraction, Unavailable, Failed>;

// Asks for a non-interactive picture and waits up to `timeoutMs` for the answer. A portal that shows a
// dialog instead of answering counts as NeedsInteraction when the time runs out.
Result capture(const std::filesystem::path& destination, int timeoutMs);

// "file:///home/a%20b/x.png" to "/home/a b/x.png"; empty for anything but a local file URI.
std::filesystem::path localPath(const std::string& uri);

}  // namespace aimwise::PortalScreenshot
