#pragma once
// The desktop session as the capture agent samples it: the front window, the mapped top-level
// windows in stacking order, idle time, pointer and screen saver. On Linux it is the X11 session
// (only linux/desktop_session_x11.cpp sees Xlib) or one of the Wayland readers in linux/desktop/,
// chosen from the session's environment.
//
// Window properties are kept between samples and fetched again only for windows that reported a
// change (the agent listens for property, structure and stacking events), so a quiet desktop costs
// a few requests per sample however many windows it has.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "CaptureShared/common/environment.h"

namespace aimwise {

struct DesktopWindow {
    unsigned long id = 0;
    std::string ownerName;
    std::string bundleId;
    std::optional<int64_t> pid;
    std::string title;
    double x = 0, y = 0, width = 0, height = 0;
    int layer = 0;
    bool fullscreen = false;
    // Wayland compositors other than KWin do not tell clients where windows are: the rectangle is
    // then unknown and written as NULL.
    bool geometryKnown = true;
    bool operator==(const DesktopWindow&) const = default;
};

struct DesktopSnapshot {
    std::optional<DesktopWindow> front;
    std::vector<DesktopWindow> windows;  // front to back
    std::optional<double> idleSec;       // nothing without the screen saver extension
    bool screensaverActive = false;
    int pointerX = 0, pointerY = 0;
    // Wayland gives no client the pointer's position outside its own surfaces.
    bool pointerKnown = true;
};

// Which reader suits the session, from WAYLAND_DISPLAY, XDG_SESSION_TYPE and XDG_CURRENT_DESKTOP.
enum class DesktopKind { x11, wlroots, kde, gnome };
DesktopKind desktopKindFor(const Environment& environment);


class DesktopSession {
  public:
    virtual ~DesktopSession() = default;

    // The X11 session of the named display (empty: $DISPLAY), or nothing when it cannot be opened.
    static std::unique_ptr<DesktopSession> connect(const std::string& displayName);
    // The size of the named display's whole screen in pixels, asked afresh, or nothing when the
    // display cannot be opened.
    static std::optional<std::pair<int, int>> screenSize(const std::string& displayName);
    // The reader of `kind` (linux/desktop/), or nothing when its session cannot be reached. An X11
    // kind connects to `displayName`.
    static std::unique_ptr<DesktopSession> open(DesktopKind kind, const Environment& environment,
                                                const std::string& displayName);

    // Which reader runs and what it cannot see, in a sentence or two for the agent's log.
    virtual std::string describe() const = 0;

    // Nothing once the connection is lost; the caller then drops this object and connects anew.
    // The time, on a monotonic clock, paces the occasional full refresh of window properties.
    virtual std::optional<DesktopSnapshot> sample(int64_t nowMonotonicMs) = 0;
    virtual bool lost() const = 0;
};

}  // namespace aimwise
