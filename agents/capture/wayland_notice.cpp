#include "agents/capture/wayland_notice.h"

namespace aimwise {

std::optional<std::string> waylandNotice(const Environment& environment) {
    const bool wayland = lookup(environment, "XDG_SESSION_TYPE") == "wayland" ||
                         !lookup(environment, "WAYLAND_DISPLAY").value_or("").empty();
    if (!wayland) return std::nullopt;
    return "this is a Wayland session: only applications running through XWayland are visible. Their windows, "
           "titles and the front window among them are recorded; native Wayland windows are not, and idle time "
           "counts only input that XWayland sees.";
}

}  // namespace aimwise
