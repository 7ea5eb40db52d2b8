// GNOME: the focused window from the Focused Window D-Bus extension when it is installed, otherwise
// from the accessibility bus; the open windows from the accessibility bus; idle time from Mutter.
#include <nlohmann/json.hpp>

#include "platform/app_identity.h"
#include "platform/linux/desktop/atspi_desktop.h"
#include "platform/linux/desktop/gnome_shell.h"
#include "platform/linux/desktop_bus/session_bus.h"
#include "platform/linux/desktop/window_source.h"

namespace aimwise {

namespace GnomeShell {

std::optional<DesktopWindow> parseFocusedWindow(std::string_view json) {
    const nlohmann::json item = nlohmann::json::parse(json, nullptr, false);
    if (!item.is_object()) return std::nullopt;
    const auto text = [&](const char* key) {
        const auto it = item.find(key);
        return it != item.end() && it->is_string() ? it->get<std::string>() : std::string();
    };
    const auto number = [&](const char* key) -> std::optional<double> {
        const auto it = item.find(key);
        return it != item.end() && it->is_number() ? std::optional(it->get<double>()) : std::nullopt;
    };
    const auto identity = AppIdentity::fromWMClass(text("wm_class_instance"), text("wm_class"));
    if (!identity) return std::nullopt;
    DesktopWindow window;
    window.ownerName = identity->name;
    window.bundleId = identity->bundleId;
    window.title = text("title");
    if (const auto pid = number("pid"); pid && *pid > 0 && *pid < 4194305) window.pid = int64_t(*pid);
    const auto x = number("x"), y = number("y"), width = number("width"), height = number("height");
    window.geometryKnown = x && y && width && height && *width > 0 && *height > 0;
    if (window.geometryKnown) window.x = *x, window.y = *y, window.width = *width, window.height = *height;
    return window;
}

}  // namespace GnomeShell

namespace {

constexpr int64_t callTimeoutMs = 300;
// The accessibility bus is asked once per sample; a slow application must not hold the agent.
constexpr auto atspiBudget = std::chrono::milliseconds(400);

DesktopWindow fromFrame(const AtspiDesktop::Frame& frame) {
    DesktopWindow window;
    if (const auto identity = AppIdentity::fromWMClass("", frame.application)) {
        window.ownerName = identity->name;
        window.bundleId = identity->bundleId;
    }
    window.title = frame.title;
    window.pid = frame.pid;
    window.geometryKnown = false;
    return window;
}

class GnomeWindowSource final : public WindowSource {
public:
    bool start() {
        bus_ = SessionBus::open();
        extension_ = bus_ && focusedWindow().has_value();
        accessible_ = AtspiDesktop::connect(static_cast<int>(callTimeoutMs));
        return extension_ || accessible_;
    }

    std::optional<WindowReport> read(int64_t) override {
        WindowReport report;
        if (accessible_) {
            const auto deadline = std::chrono::steady_clock::now() + atspiBudget;
            for (const AtspiDesktop::Frame& frame : AtspiDesktop::frames(deadline)) {
                if (frame.iconified) continue;
                DesktopWindow window = fromFrame(frame);
                if (frame.active) {
                    report.front = window;
                    report.windows.insert(report.windows.begin(), std::move(window));
                } else {
                    report.windows.push_back(std::move(window));
                }
            }
        }
        if (extension_) {
            // The extension knows the focused window exactly, and where it is.
            if (auto focused = focusedWindow(); focused && *focused) {
                if (report.front && !report.windows.empty()) report.windows.erase(report.windows.begin());
                report.front = **focused;
                report.windows.insert(report.windows.begin(), **focused);
            }
        }
        return report;
    }

    std::string describe() const override {
        std::string text;
        if (extension_)
            text = "the Focused Window D-Bus extension for the focused window's title, class and geometry";
        else
            text = "the accessibility bus for the focused application and window (the Focused Window D-Bus "
                   "extension is not installed, so window positions are unknown)";
        if (accessible_)
            text += ", and the accessibility bus for the open windows; applications that publish nothing to it "
                    "are not seen";
        else
            text += "; the accessibility bus is not running, so only the focused window is known";
        return text;
    }

private:
    // Outer nothing: the call failed; inner nothing: no window has focus.
    std::optional<std::optional<DesktopWindow>> focusedWindow() {
        const SessionBus::Reply reply =
            SessionBus::call(bus_.get(), GnomeShell::shellService, GnomeShell::focusedWindowPath,
                             GnomeShell::focusedWindowInterface, "Get", callTimeoutMs);
        if (!reply) {
            // The extension raises an error when nothing has focus; only a missing object means absent.
            if (reply.error.find("No window in focus") != std::string::npos) return std::optional<DesktopWindow>();
            return std::nullopt;
        }
        const auto json = SessionBus::readString(reply.message.get());
        if (!json) return std::nullopt;
        return GnomeShell::parseFocusedWindow(*json);
    }

    SessionBus::Bus bus_;
    bool extension_ = false;
    bool accessible_ = false;
};

class MutterIdleMonitor final : public IdleMonitor {
public:
    bool start() {
        bus_ = SessionBus::open();
        return bus_ && idleSec();
    }
    std::optional<double> idleSec() override {
        const SessionBus::Reply reply = SessionBus::call(bus_.get(), "org.gnome.Mutter.IdleMonitor",
                                                         "/org/gnome/Mutter/IdleMonitor/Core",
                                                         "org.gnome.Mutter.IdleMonitor", "GetIdletime", callTimeoutMs);
        uint64_t idleMs = 0;
        if (!reply || sd_bus_message_read(reply.message.get(), "t", &idleMs) < 0) return std::nullopt;
        return static_cast<double>(idleMs) / 1000.0;
    }

private:
    SessionBus::Bus bus_;
};

}  // namespace

std::unique_ptr<WindowSource> gnomeWindowSource() {
    auto source = std::make_unique<GnomeWindowSource>();
    if (!source->start()) return nullptr;
    return source;
}

std::unique_ptr<IdleMonitor> mutterIdleMonitor() {
    auto monitor = std::make_unique<MutterIdleMonitor>();
    if (!monitor->start()) return nullptr;
    return monitor;
}

}  // namespace aimwise
