// The X11 window stack, read through a libX11 opened on first use: a process that never asks for
// the window list (a tick that skips) does not pay for loading the X client libraries.
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <cstdlib>
#include <deque>
#include <optional>

#include "CaptureShared/common/shared_library.h"
#include "platform/on_screen_windows.h"

namespace aimwise::OnScreenWindows {
namespace {

struct Xlib {
    decltype(&::XOpenDisplay) openDisplay;
    decltype(&::XCloseDisplay) closeDisplay;
    decltype(&::XQueryTree) queryTree;
    decltype(&::XGetWindowAttributes) getWindowAttributes;
    decltype(&::XGetClassHint) getClassHint;
    decltype(&::XFree) free;
    decltype(&::XSetErrorHandler) setErrorHandler;
    decltype(&::XSync) sync;
};

// Nothing when libX11 cannot be loaded: then there is no display to ask.
const Xlib* loadXlib() {
    static const std::optional<Xlib> xlib = []() -> std::optional<Xlib> {
        try {
            static const SharedLibrary library("libX11.so.6", "The on-screen window list", "libx11-6");
            Xlib x{};
            const auto bind = [&](const char* name, auto& function) {
                function = library.function<std::remove_reference_t<decltype(function)>>(name);
            };
            bind("XOpenDisplay", x.openDisplay);
            bind("XCloseDisplay", x.closeDisplay);
            bind("XQueryTree", x.queryTree);
            bind("XGetWindowAttributes", x.getWindowAttributes);
            bind("XGetClassHint", x.getClassHint);
            bind("XFree", x.free);
            bind("XSetErrorHandler", x.setErrorHandler);
            bind("XSync", x.sync);
            return x;
        } catch (const SharedLibraryError&) {
            return std::nullopt;
        }
    }();
    return xlib ? &*xlib : nullptr;
}

// Windows come and go while the tree is walked; a vanished one must cost a skipped entry, not the
// default handler's exit of the whole process.
int ignoreErrors(Display*, XErrorEvent*) { return 0; }

std::vector<Window> children(const Xlib& x, Display* display, Window window) {
    Window root = 0, parent = 0;
    Window* list = nullptr;
    unsigned int count = 0;
    if (!x.queryTree(display, window, &root, &parent, &list, &count) || !list) return {};
    std::vector<Window> result(list, list + count);
    x.free(list);
    return result;
}

std::optional<std::string> windowClass(const Xlib& x, Display* display, Window window) {
    XClassHint hint{nullptr, nullptr};
    if (!x.getClassHint(display, window, &hint)) return std::nullopt;
    std::optional<std::string> result;
    if (hint.res_class && *hint.res_class)
        result = hint.res_class;
    else if (hint.res_name && *hint.res_name)
        result = hint.res_name;
    if (hint.res_name) x.free(hint.res_name);
    if (hint.res_class) x.free(hint.res_class);
    return result;
}

// A window manager puts each client inside frames of its own; the class is on the client.
std::optional<std::string> clientClass(const Xlib& x, Display* display, Window topLevel) {
    constexpr int maxDepth = 3;
    std::deque<std::pair<Window, int>> queue{{topLevel, 0}};
    while (!queue.empty()) {
        auto [window, depth] = queue.front();
        queue.pop_front();
        if (auto found = windowClass(x, display, window)) return found;
        if (depth < maxDepth)
            for (Window child : children(x, display, window)) queue.emplace_back(child, depth + 1);
    }
    return std::nullopt;
}

}  // namespace

std::vector<OnScreenWindowRecord> live() {
    const char* displayName = std::getenv("DISPLAY");
    if (!displayName || !*displayName) return {};
    const Xlib* x = loadXlib();
    if (!x) return {};
    Display* display = x->openDisplay(displayName);
    if (!display) return {};
    const XErrorHandler previous = x->setErrorHandler(ignoreErrors);

    std::vector<OnScreenWindowRecord> records;
    // The root's children in stacking order, bottom first; override-redirect windows (pop-ups that
    // no manager frames) are among them, as they are in a screenshot.
    const std::vector<Window> stack = children(*x, display, DefaultRootWindow(display));
    for (auto it = stack.rbegin(); it != stack.rend(); ++it) {
        XWindowAttributes attributes{};
        if (!x->getWindowAttributes(display, *it, &attributes)) continue;
        if (attributes.map_state != IsViewable || attributes.c_class == InputOnly) continue;
        std::optional<std::string> cls = clientClass(*x, display, *it);
        if (!cls) continue;
        const double border = 2.0 * attributes.border_width;
        records.push_back(OnScreenWindowRecord{
            *cls, *cls,
            ScreenRect{double(attributes.x), double(attributes.y), attributes.width + border,
                       attributes.height + border}});
    }
    x->sync(display, False);
    x->setErrorHandler(previous);
    x->closeDisplay(display);
    return records;
}

}  // namespace aimwise::OnScreenWindows
