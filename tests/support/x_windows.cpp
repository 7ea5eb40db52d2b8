// TestWindows apart from the rest of x_display: only the programs that use it need libX11.
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <stdexcept>

#include "tests/support/x_display.h"

namespace aimwise::testing {

struct TestWindows::Connection {
    Display* display = nullptr;
    Window root = 0;
    Atom atom(const char* name) const { return XInternAtom(display, name, False); }
    void sync() const { XSync(display, False); }
};

TestWindows::TestWindows(const std::string& display) : x_(std::make_unique<Connection>()) {
    x_->display = XOpenDisplay(display.c_str());
    if (!x_->display) throw std::runtime_error("cannot open " + display);
    x_->root = DefaultRootWindow(x_->display);
}

TestWindows::~TestWindows() { XCloseDisplay(x_->display); }

XWindowId TestWindows::create(const std::string& instance, const std::string& className, const std::string& title,
                              int x, int y, unsigned width, unsigned height, long pid) {
    Window window = XCreateSimpleWindow(x_->display, x_->root, x, y, width, height, 0, 0, 0xffffff);
    XClassHint hint{const_cast<char*>(instance.c_str()), const_cast<char*>(className.c_str())};
    XSetClassHint(x_->display, window, &hint);
    setTitle(window, title);
    if (pid)
        XChangeProperty(x_->display, window, x_->atom("_NET_WM_PID"), XA_CARDINAL, 32, PropModeReplace,
                        reinterpret_cast<unsigned char*>(&pid), 1);
    XMapWindow(x_->display, window);
    x_->sync();
    return window;
}

void TestWindows::setTitle(XWindowId window, const std::string& title) {
    XChangeProperty(x_->display, window, x_->atom("_NET_WM_NAME"), x_->atom("UTF8_STRING"), 8, PropModeReplace,
                    reinterpret_cast<const unsigned char*>(title.data()), static_cast<int>(title.size()));
    x_->sync();
}

void TestWindows::moveResize(XWindowId window, int x, int y, unsigned width, unsigned height) {
    XMoveResizeWindow(x_->display, window, x, y, width, height);
    x_->sync();
}

void TestWindows::unmap(XWindowId window) {
    XUnmapWindow(x_->display, window);
    x_->sync();
}

void TestWindows::setFullscreen(XWindowId window) {
    Atom state = x_->atom("_NET_WM_STATE_FULLSCREEN");
    XChangeProperty(x_->display, window, x_->atom("_NET_WM_STATE"), XA_ATOM, 32, PropModeReplace,
                    reinterpret_cast<unsigned char*>(&state), 1);
    x_->sync();
}

void TestWindows::publishHints(const std::vector<XWindowId>& bottomToTop, XWindowId active) {
    std::vector<long> ids(bottomToTop.begin(), bottomToTop.end());
    XChangeProperty(x_->display, x_->root, x_->atom("_NET_CLIENT_LIST_STACKING"), XA_WINDOW, 32, PropModeReplace,
                    reinterpret_cast<unsigned char*>(ids.data()), static_cast<int>(ids.size()));
    long activeId = static_cast<long>(active);
    XChangeProperty(x_->display, x_->root, x_->atom("_NET_ACTIVE_WINDOW"), XA_WINDOW, 32, PropModeReplace,
                    reinterpret_cast<unsigned char*>(&activeId), 1);
    x_->sync();
}

void TestWindows::focus(XWindowId window) {
    XSetInputFocus(x_->display, window, RevertToParent, CurrentTime);
    x_->sync();
}

void TestWindows::warpPointer(int x, int y) {
    XWarpPointer(x_->display, None, x_->root, 0, 0, 0, 0, x, y);
    x_->sync();
}

void TestWindows::resetIdle() {
    XForceScreenSaver(x_->display, ScreenSaverReset);
    x_->sync();
}

}  // namespace aimwise::testing
