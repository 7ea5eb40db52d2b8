// The entry point of aimwise-wayland.so (platform/wayland_desktop_module.h).
#include "platform/wayland_desktop_module.h"

extern "C" __attribute__((visibility("default"))) aimwise::DesktopSession* aimwiseOpenWaylandDesktop(
    aimwise::DesktopKind kind, const aimwise::Environment& environment, const std::string& displayName) {
    return aimwise::DesktopSession::open(kind, environment, displayName).release();
}
