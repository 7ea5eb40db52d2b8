#include <algorithm>
#include <cctype>

#include "platform/desktop_session.h"

namespace aimwise {

DesktopKind desktopKindFor(const Environment& environment) {
    const bool wayland = !lookup(environment, "WAYLAND_DISPLAY").value_or("").empty() ||
                         lookup(environment, "XDG_SESSION_TYPE") == "wayland";
    if (!wayland) return DesktopKind::x11;
    // A colon-separated list, most specific first ("ubuntu:GNOME", "KDE").
    std::string desktops = ":" + lookup(environment, "XDG_CURRENT_DESKTOP").value_or("") + ":";
    std::transform(desktops.begin(), desktops.end(), desktops.begin(), [](unsigned char c) { return std::tolower(c); });
    if (desktops.find(":kde:") != std::string::npos) return DesktopKind::kde;
    if (desktops.find(":gnome:") != std::string::npos || desktops.find(":gnome-classic:") != std::string::npos)
        return DesktopKind::gnome;
    return DesktopKind::wlroots;
}

}  // namespace aimwise
