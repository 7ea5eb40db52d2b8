#pragma once
// A client of the Wayland compositor for what the capture agent can learn from it: the toplevel list
// (wlr foreign toplevel management: title, app id, activated and minimised states) and idle time
// (ext-idle-notify-v1, else KDE's idle protocol). No window geometry: the protocols do not carry it.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace aimwise::Wayland {

struct Toplevel {
    std::string title;
    std::string appId;
    bool activated = false;
    bool minimized = false;
    bool maximized = false;
    bool fullscreen = false;
    bool operator==(const Toplevel&) const = default;
};

class Connection {
public:
    virtual ~Connection() = default;

    // Nothing when the display cannot be reached. `idleThresholdMs` is how long without input the
    // compositor waits before it says the person is idle; shorter idle times read as zero.
    static std::unique_ptr<Connection> open(const std::string& displayName, int64_t idleThresholdMs);

    // Handles whatever the compositor sent, waiting up to `timeoutMs` for it; false once the
    // connection is lost. `nowMonotonicMs` stamps idle and resume notices.
    virtual bool dispatch(int timeoutMs, int64_t nowMonotonicMs) = 0;

    virtual bool offersToplevels() const = 0;
    // The protocol that gives idle time ("ext-idle-notify-v1", "org_kde_kwin_idle"), or empty.
    virtual std::string idleProtocol() const = 0;
    // The toplevels the compositor has fully described, oldest first.
    virtual std::vector<Toplevel> toplevels() const = 0;
    virtual std::optional<double> idleSec(int64_t nowMonotonicMs) const = 0;
};

}  // namespace aimwise::Wayland
