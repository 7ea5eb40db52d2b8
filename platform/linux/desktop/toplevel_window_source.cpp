#include "platform/app_identity.h"
#include "platform/linux/desktop/wayland_connection.h"
#include "platform/linux/desktop/window_source.h"

namespace aimwise {
namespace {

class ToplevelWindowSource final : public WindowSource {
public:
    explicit ToplevelWindowSource(Wayland::Connection& connection) : connection_(connection) {}

    std::optional<WindowReport> read(int64_t) override {
        WindowReport report;
        const std::vector<Wayland::Toplevel> toplevels = connection_.toplevels();
        // The active toplevel first, then the newest: the protocol has no stacking order.
        for (auto it = toplevels.rbegin(); it != toplevels.rend(); ++it) {
            if (it->minimized) continue;
            DesktopWindow window = describe(*it, static_cast<unsigned long>(toplevels.rend() - it));
            if (it->activated) {
                report.front = window;
                report.windows.insert(report.windows.begin(), std::move(window));
            } else {
                report.windows.push_back(std::move(window));
            }
        }
        return report;
    }

    std::string describe() const override {
        return "the compositor's toplevel list (wlr-foreign-toplevel-management-unstable-v1): the active window's "
               "title and app id and the open windows; window positions and sizes and the stacking order are not "
               "given, so positions are recorded as unknown";
    }

private:
    static DesktopWindow describe(const Wayland::Toplevel& toplevel, unsigned long id) {
        DesktopWindow window;
        window.id = id;
        if (const auto identity = AppIdentity::fromWMClass("", toplevel.appId)) {
            window.ownerName = identity->name;
            window.bundleId = identity->bundleId;
        }
        window.title = toplevel.title;
        window.fullscreen = toplevel.fullscreen;
        window.geometryKnown = false;
        return window;
    }

    Wayland::Connection& connection_;
};

}  // namespace

std::unique_ptr<WindowSource> toplevelWindowSource(Wayland::Connection& connection) {
    return std::make_unique<ToplevelWindowSource>(connection);
}

}  // namespace aimwise
