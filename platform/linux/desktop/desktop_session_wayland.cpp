// The Wayland readers: the desktop kind picks where windows come from, and idle time comes from the
// first of ext-idle-notify-v1, GNOME's idle monitor and KDE's idle protocol that answers.
#include "platform/desktop_session.h"
#include "platform/linux/desktop/wayland_connection.h"
#include "platform/linux/desktop/window_source.h"

namespace aimwise {
namespace {

// Idle shorter than this reads as none; the compositor needs some threshold to speak at all.
constexpr int64_t idleThresholdMs = 1000;

class WaylandDesktopSession final : public DesktopSession {
public:
    WaylandDesktopSession(DesktopKind kind, std::unique_ptr<Wayland::Connection> wayland)
        : kind_(kind), wayland_(std::move(wayland)) {}

    bool start() {
        switch (kind_) {
            case DesktopKind::wlroots:
                if (!wayland_ || !wayland_->offersToplevels()) return false;
                windows_ = toplevelWindowSource(*wayland_);
                break;
            case DesktopKind::kde: windows_ = kwinWindowSource(); break;
            case DesktopKind::gnome: windows_ = gnomeWindowSource(); break;
            case DesktopKind::x11: return false;
        }
        if (!windows_) return false;
        if ((!wayland_ || wayland_->idleProtocol().empty()) && kind_ == DesktopKind::gnome)
            mutterIdle_ = mutterIdleMonitor();
        return true;
    }

    std::optional<DesktopSnapshot> sample(int64_t now) override {
        if (lost_) return std::nullopt;
        if (wayland_ && !wayland_->dispatch(0, now)) {
            lost_ = true;
            return std::nullopt;
        }
        std::optional<WindowReport> report = windows_->read(now);
        if (!report) {
            lost_ = true;
            return std::nullopt;
        }
        DesktopSnapshot snapshot;
        snapshot.front = std::move(report->front);
        snapshot.windows = std::move(report->windows);
        snapshot.pointerKnown = false;
        if (wayland_ && !wayland_->idleProtocol().empty())
            snapshot.idleSec = wayland_->idleSec(now);
        else if (mutterIdle_)
            snapshot.idleSec = mutterIdle_->idleSec();
        return snapshot;
    }

    bool lost() const override { return lost_; }

    std::string describe() const override {
        std::string text = "reading the Wayland desktop (" + kindName() + ") through " + windows_->describe() + ". ";
        if (wayland_ && !wayland_->idleProtocol().empty())
            text += "Idle time comes from " + wayland_->idleProtocol();
        else if (mutterIdle_)
            text += "Idle time comes from org.gnome.Mutter.IdleMonitor";
        else
            text += "The compositor offers no idle time (neither ext-idle-notify-v1, org.gnome.Mutter.IdleMonitor nor "
                    "KDE's idle protocol), so idle time is not recorded";
        text += "; the pointer's position is not visible to clients, so keyboard and pointer idle time are not told "
                "apart.";
        return text;
    }

private:
    std::string kindName() const {
        switch (kind_) {
            case DesktopKind::wlroots: return "wlroots compositor";
            case DesktopKind::kde: return "KDE Plasma";
            case DesktopKind::gnome: return "GNOME";
            case DesktopKind::x11: break;
        }
        return "X11";
    }

    DesktopKind kind_;
    std::unique_ptr<Wayland::Connection> wayland_;
    std::unique_ptr<WindowSource> windows_;
    std::unique_ptr<IdleMonitor> mutterIdle_;
    bool lost_ = false;
};

}  // namespace

std::unique_ptr<DesktopSession> DesktopSession::open(DesktopKind kind, const Environment& environment,
                                                     const std::string& displayName) {
    if (kind == DesktopKind::x11) return connect(displayName);
    const std::string waylandDisplay = lookup(environment, "WAYLAND_DISPLAY").value_or("");
    auto wayland = Wayland::Connection::open(waylandDisplay, idleThresholdMs);
    // Idle time alone is no reason to go on; the windows are the point.
    if (!wayland && kind == DesktopKind::wlroots) return nullptr;
    auto session = std::make_unique<WaylandDesktopSession>(kind, std::move(wayland));
    if (!session->start()) return nullptr;
    return session;
}

}  // namespace aimwise
