#pragma once
// Where a Wayland session's reader gets its windows from: the compositor's toplevel list, a KWin
// script, or GNOME's focused-window extension and accessibility bus. Each says what it misses.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/desktop_session.h"

namespace aimwise {

namespace Wayland {
class Connection;
}

struct WindowReport {
    std::optional<DesktopWindow> front;
    std::vector<DesktopWindow> windows;  // front to back as far as known; minimised ones left out
};

class WindowSource {
public:
    virtual ~WindowSource() = default;
    // Nothing once the source is lost for good; the reader then reconnects.
    virtual std::optional<WindowReport> read(int64_t nowMonotonicMs) = 0;
    // False until the source has heard anything (a KWin script that has not reported yet).
    virtual bool ready() const { return true; }
    virtual std::string describe() const = 0;
};

// The wlr foreign toplevel list: titles and app ids, no geometry and no stacking order beyond the
// active toplevel. The connection outlives the source.
std::unique_ptr<WindowSource> toplevelWindowSource(Wayland::Connection& connection);

// KWin on Plasma: a script loaded at run time reports the windows over the session bus. Nothing
// when KWin's scripting service is not there.
std::unique_ptr<WindowSource> kwinWindowSource();

// GNOME Shell: the focused-window extension when it is installed, else the accessibility bus.
// Nothing when neither answers.
std::unique_ptr<WindowSource> gnomeWindowSource();

// Idle time from GNOME's own monitor on the session bus (org.gnome.Mutter.IdleMonitor), for a
// compositor that offers no idle protocol to clients. Nothing when it does not answer.
class IdleMonitor {
public:
    virtual ~IdleMonitor() = default;
    virtual std::optional<double> idleSec() = 0;
};
std::unique_ptr<IdleMonitor> mutterIdleMonitor();

}  // namespace aimwise
