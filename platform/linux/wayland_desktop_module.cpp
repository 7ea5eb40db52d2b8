#include "platform/wayland_desktop_module.h"

#include <optional>

#include "CaptureShared/common/shared_library.h"
#include "CaptureShared/dataroot/executable_path.h"

namespace aimwise::WaylandDesktopModule {

namespace {

using Entry = decltype(&aimwiseOpenWaylandDesktop);

// Loaded once and kept: the sessions it makes run its code until exit.
Entry entry() {
    static const SharedLibrary module = SharedLibrary::ownModule(
        (ExecutablePath::siblingDirectory(ExecutablePath::resolveSelf()) / fileName).string(), "Reading a Wayland desktop");
    static const Entry found = module.function<Entry>("aimwiseOpenWaylandDesktop");
    return found;
}

}  // namespace

std::unique_ptr<DesktopSession> open(DesktopKind kind, const Environment& environment, const std::string& displayName,
                                     std::string& failure) {
    if (kind == DesktopKind::x11) return DesktopSession::connect(displayName);
    Entry open = nullptr;
    try {
        open = entry();
    } catch (const Error& error) {
        failure = error.description();
        return nullptr;
    }
    return std::unique_ptr<DesktopSession>(open(kind, environment, displayName));
}

}  // namespace aimwise::WaylandDesktopModule
