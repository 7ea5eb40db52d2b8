#include "platform/desktop_session.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/scrnsaver.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <set>

#include "platform/app_identity.h"

namespace aimwise {

namespace {

// Windows vanish between any two requests; their BadWindow errors are expected and counted so
// that a fetch can tell it raced with a close.
std::atomic<uint64_t> protocolErrors{0};

int countError(Display*, XErrorEvent*) {
    protocolErrors.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

// The default handler prints and the default exit handler ends the process; the agent instead
// notices the lost connection and connects again later.
int quietIOError(Display*) { return 0; }

constexpr int64_t fullRefreshIntervalMs = 60'000;
// A title is read to at most 4 KiB (1024 items of 32 bits, as X counts the length to read).
constexpr long maxTitleItems = 1024;
constexpr int layerDesktop = -1;
constexpr int layerAbove = 3;
constexpr int layerDock = 20;

std::string latin1ToUTF8(const unsigned char* bytes, size_t length) {
    std::string out;
    out.reserve(length);
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = bytes[i];
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

}  // namespace

namespace {

struct X11DesktopSession final : DesktopSession {
    struct Tracked {
        bool staticKnown = false;
        bool dynamicKnown = false;
        std::string instance, className;
        std::optional<int64_t> pid;
        int typeLayer = 0;
        std::string title;
        bool fullscreen = false;
        bool above = false;
        bool viewable = false;
        bool overrideRedirect = false;
        bool inputOnly = false;
        int x = 0, y = 0, width = 0, height = 0;
    };

    Display* display = nullptr;
    Window root = 0;
    bool connectionLost = false;
    bool screenSaverExtension = false;
    XScreenSaverInfo* screenSaverInfo = nullptr;

    struct Atoms {
        Atom activeWindow, clientListStacking, clientList, wmName, utf8String, wmState, state, stateFullscreen,
            stateAbove, stateHidden, pid, windowType, typeDesktop, typeDock, wmClass;
    } atoms{};

    std::map<Window, Tracked> tracked;
    std::vector<Window> stacking;  // bottom to top
    std::optional<Window> active;
    bool activeFromHints = false;
    bool listDirty = true;
    bool activeDirty = true;
    std::optional<int64_t> lastFullRefreshMs;
    Window lastFocus = 0;

    ~X11DesktopSession() override {
        if (screenSaverInfo) XFree(screenSaverInfo);
        if (display) XCloseDisplay(display);
    }

    // --- properties ---------------------------------------------------------------------------

    // The property's items when it exists with the expected type and format.
    template <typename Item>
    std::optional<std::vector<Item>> listProperty(Window window, Atom property, Atom type, long maxItems = 4096) {
        Atom actualType = None;
        int actualFormat = 0;
        unsigned long count = 0, after = 0;
        unsigned char* data = nullptr;
        if (XGetWindowProperty(display, window, property, 0, maxItems, False, type, &actualType, &actualFormat, &count,
                               &after, &data) != Success)
            return std::nullopt;
        std::optional<std::vector<Item>> items;
        if (data && actualType == type && actualFormat == 32) {
            // Format 32 items arrive as longs whatever the platform's word size.
            const auto* values = reinterpret_cast<const long*>(data);
            items.emplace();
            for (unsigned long i = 0; i < count; ++i) items->push_back(static_cast<Item>(values[i]));
        }
        if (data) XFree(data);
        return items;
    }

    std::optional<std::string> utf8Property(Window window, Atom property) {
        Atom actualType = None;
        int actualFormat = 0;
        unsigned long count = 0, after = 0;
        unsigned char* data = nullptr;
        if (XGetWindowProperty(display, window, property, 0, maxTitleItems, False, atoms.utf8String, &actualType, &actualFormat,
                               &count, &after, &data) != Success)
            return std::nullopt;
        std::optional<std::string> text;
        if (data && actualType == atoms.utf8String && actualFormat == 8)
            text = std::string(reinterpret_cast<const char*>(data), count);
        if (data) XFree(data);
        return text;
    }

    std::string title(Window window) {
        if (auto text = utf8Property(window, atoms.wmName)) return *text;
        // Read through XGetWindowProperty with the same bound as above: XGetWMName would take a
        // title of any length a client cares to set.
        XTextProperty property{};
        unsigned long after = 0;
        if (XGetWindowProperty(display, window, XA_WM_NAME, 0, maxTitleItems, False, AnyPropertyType,
                               &property.encoding, &property.format, &property.nitems, &after,
                               &property.value) != Success ||
            !property.value)
            return {};
        std::string text;
        if (property.encoding == XA_STRING && property.format == 8) {
            text = latin1ToUTF8(property.value, property.nitems);
        } else if (property.encoding == atoms.utf8String && property.format == 8) {
            text.assign(reinterpret_cast<const char*>(property.value), property.nitems);
        } else {
            char** list = nullptr;
            int count = 0;
            if (Xutf8TextPropertyToTextList(display, &property, &list, &count) >= Success && list) {
                if (count > 0 && list[0]) text = list[0];
                XFreeStringList(list);
            }
        }
        XFree(property.value);
        return text;
    }

    // --- tracking -----------------------------------------------------------------------------

    // False when the window went away while it was being read.
    bool fetch(Window window, Tracked& entry) {
        const uint64_t errorsBefore = protocolErrors.load(std::memory_order_relaxed);
        if (!entry.staticKnown) {
            XSelectInput(display, window, PropertyChangeMask | StructureNotifyMask);
            XClassHint hint{};
            if (XGetClassHint(display, window, &hint)) {
                entry.instance = hint.res_name ? hint.res_name : "";
                entry.className = hint.res_class ? hint.res_class : "";
                if (hint.res_name) XFree(hint.res_name);
                if (hint.res_class) XFree(hint.res_class);
            }
            entry.pid.reset();
            if (const auto pids = listProperty<int64_t>(window, atoms.pid, XA_CARDINAL, 1); pids && !pids->empty())
                entry.pid = pids->front();
            entry.typeLayer = 0;
            if (const auto types = listProperty<Atom>(window, atoms.windowType, XA_ATOM, 16)) {
                for (Atom type : *types) {
                    if (type == atoms.typeDock) entry.typeLayer = layerDock;
                    if (type == atoms.typeDesktop) entry.typeLayer = layerDesktop;
                }
            }
            entry.staticKnown = true;
        }
        if (!entry.dynamicKnown) {
            XWindowAttributes attributes{};
            if (!XGetWindowAttributes(display, window, &attributes)) return false;
            entry.viewable = attributes.map_state == IsViewable;
            entry.overrideRedirect = attributes.override_redirect;
            entry.inputOnly = attributes.c_class == InputOnly;
            entry.width = attributes.width;
            entry.height = attributes.height;
            Window child = 0;
            int x = 0, y = 0;
            if (XTranslateCoordinates(display, window, root, 0, 0, &x, &y, &child)) {
                entry.x = x;
                entry.y = y;
            }
            entry.title = title(window);
            entry.fullscreen = entry.above = false;
            bool hidden = false;
            if (const auto states = listProperty<Atom>(window, atoms.state, XA_ATOM, 32)) {
                for (Atom state : *states) {
                    entry.fullscreen |= state == atoms.stateFullscreen;
                    entry.above |= state == atoms.stateAbove;
                    hidden |= state == atoms.stateHidden;
                }
            }
            if (hidden) entry.viewable = false;
            entry.dynamicKnown = true;
        }
        return protocolErrors.load(std::memory_order_relaxed) == errorsBefore;
    }

    Tracked* ensureTracked(Window window) {
        auto [it, inserted] = tracked.try_emplace(window);
        if (!fetch(window, it->second)) {
            tracked.erase(it);
            return nullptr;
        }
        return &it->second;
    }

    void markAllDirty() {
        for (auto& [window, entry] : tracked) entry.dynamicKnown = false;
        listDirty = activeDirty = true;
    }

    void drainEvents() {
        while (!connectionLost && XPending(display) > 0) {
            XEvent event;
            XNextEvent(display, &event);
            const Window about = event.xany.window;
            if (event.type == PropertyNotify) {
                const Atom property = event.xproperty.atom;
                if (about == root) {
                    if (property == atoms.activeWindow) activeDirty = true;
                    if (property == atoms.clientListStacking || property == atoms.clientList) listDirty = true;
                } else if (auto it = tracked.find(about); it != tracked.end()) {
                    it->second.dynamicKnown = false;
                    if (property == XA_WM_CLASS || property == atoms.pid || property == atoms.windowType)
                        it->second.staticKnown = false;
                }
            } else if (about == root && isMenuOrTooltip(event)) {
                // Menus and tooltips come and go all the time and are never listed.
            } else if (about == root) {
                // A top-level window (or its frame) was created, mapped, moved or restacked: frames
                // are not tracked, so every tracked position may have changed.
                markAllDirty();
            } else if (auto it = tracked.find(about); it != tracked.end()) {
                if (event.type == DestroyNotify) tracked.erase(it);
                else it->second.dynamicKnown = false;
                listDirty = true;
            }
        }
    }

    static bool isMenuOrTooltip(const XEvent& event) {
        switch (event.type) {
            case CreateNotify: return event.xcreatewindow.override_redirect;
            case MapNotify: return event.xmap.override_redirect;
            case ConfigureNotify: return event.xconfigure.override_redirect;
            default: return false;
        }
    }

    // The client window of a root child: itself when it carries WM_CLASS, else the first child
    // that the window manager marked with WM_STATE.
    std::optional<Window> clientOf(Window frame) {
        XClassHint hint{};
        if (XGetClassHint(display, frame, &hint)) {
            if (hint.res_name) XFree(hint.res_name);
            if (hint.res_class) XFree(hint.res_class);
            return frame;
        }
        Window parent = 0, rootReturn = 0;
        Window* children = nullptr;
        unsigned count = 0;
        if (!XQueryTree(display, frame, &rootReturn, &parent, &children, &count)) return std::nullopt;
        std::optional<Window> client;
        for (unsigned i = 0; i < count && !client; ++i)
            if (listProperty<long>(children[i], atoms.wmState, atoms.wmState, 2)) client = children[i];
        if (children) XFree(children);
        return client;
    }

    void refreshStacking() {
        std::optional<std::vector<Window>> hinted =
            listProperty<Window>(root, atoms.clientListStacking, XA_WINDOW);
        if (hinted) {
            stacking = std::move(*hinted);
        } else {
            stacking.clear();
            Window parent = 0, rootReturn = 0;
            Window* children = nullptr;
            unsigned count = 0;
            if (XQueryTree(display, root, &rootReturn, &parent, &children, &count)) {
                for (unsigned i = 0; i < count; ++i) {
                    XWindowAttributes attributes{};
                    if (!XGetWindowAttributes(display, children[i], &attributes)) continue;
                    if (attributes.map_state != IsViewable || attributes.override_redirect ||
                        attributes.c_class == InputOnly)
                        continue;
                    if (auto client = clientOf(children[i])) stacking.push_back(*client);
                }
                if (children) XFree(children);
            }
        }
        const std::set<Window> listed(stacking.begin(), stacking.end());
        std::erase_if(tracked, [&](const auto& item) { return !listed.contains(item.first) && item.first != active; });
        listDirty = false;
    }

    void refreshActive() {
        if (const auto hinted = listProperty<Window>(root, atoms.activeWindow, XA_WINDOW, 1)) {
            activeFromHints = true;
            active = hinted->empty() || hinted->front() == None ? std::nullopt : std::optional(hinted->front());
            activeDirty = false;
            return;
        }
        activeFromHints = false;
        Window focus = 0;
        int revert = 0;
        XGetInputFocus(display, &focus, &revert);
        // With no window manager the focus usually follows the pointer: the window under it is in front.
        if (focus == PointerRoot) {
            Window rootReturn = 0, child = None;
            int rootX = 0, rootY = 0, winX = 0, winY = 0;
            unsigned mask = 0;
            if (XQueryPointer(display, root, &rootReturn, &child, &rootX, &rootY, &winX, &winY, &mask)) focus = child;
        }
        if (focus == lastFocus && !activeDirty) return;
        lastFocus = focus;
        activeDirty = false;
        active.reset();
        // Focus often sits on a child of the application's top-level window.
        for (Window window = focus; window != None && window != PointerRoot && window != root;) {
            if (std::find(stacking.begin(), stacking.end(), window) != stacking.end()) {
                active = window;
                break;
            }
            Window parent = 0, rootReturn = 0;
            Window* children = nullptr;
            unsigned count = 0;
            if (!XQueryTree(display, window, &rootReturn, &parent, &children, &count)) break;
            if (children) XFree(children);
            window = parent;
        }
    }

    DesktopWindow describe(Window window, const Tracked& entry) const {
        const auto identity = AppIdentity::fromWMClass(entry.instance, entry.className);
        DesktopWindow out;
        out.id = window;
        if (identity) {
            out.ownerName = identity->name;
            out.bundleId = identity->bundleId;
        }
        out.pid = entry.pid;
        out.title = entry.title;
        out.x = entry.x;
        out.y = entry.y;
        out.width = entry.width;
        out.height = entry.height;
        out.layer = entry.typeLayer != 0 ? entry.typeLayer : entry.above ? layerAbove : 0;
        out.fullscreen = entry.fullscreen;
        return out;
    }

    bool lost() const override { return connectionLost; }

    std::string describe() const override {
        std::string text = "reading the X11 desktop (window manager hints, WM_CLASS as the app identity)";
        if (!screenSaverExtension) text += "; the X server has no screen saver extension, so idle time is not recorded";
        return text;
    }

    std::optional<DesktopSnapshot> sample(int64_t now) override {
        if (connectionLost) return std::nullopt;
        drainEvents();
        if (!lastFullRefreshMs) lastFullRefreshMs = now;
        if (now - *lastFullRefreshMs >= fullRefreshIntervalMs) {
            markAllDirty();
            lastFullRefreshMs = now;
        }
        if (listDirty) refreshStacking();
        if (activeDirty || !activeFromHints) refreshActive();

        DesktopSnapshot snapshot;
        for (auto it = stacking.rbegin(); it != stacking.rend(); ++it) {
            const Tracked* entry = ensureTracked(*it);
            if (!entry || !entry->viewable || entry->overrideRedirect || entry->inputOnly) continue;
            snapshot.windows.push_back(describe(*it, *entry));
        }
        if (active) {
            if (const Tracked* entry = ensureTracked(*active)) snapshot.front = describe(*active, *entry);
        }

        if (screenSaverExtension && XScreenSaverQueryInfo(display, root, screenSaverInfo)) {
            snapshot.idleSec = static_cast<double>(screenSaverInfo->idle) / 1000.0;
            snapshot.screensaverActive = screenSaverInfo->state == ScreenSaverOn;
        }
        Window rootReturn = 0, child = 0;
        int winX = 0, winY = 0;
        unsigned mask = 0;
        XQueryPointer(display, root, &rootReturn, &child, &snapshot.pointerX, &snapshot.pointerY, &winX, &winY, &mask);
        if (connectionLost) return std::nullopt;
        return snapshot;
    }
};

void connectionLostHandler(Display*, void* session) { static_cast<X11DesktopSession*>(session)->connectionLost = true; }

}  // namespace

std::unique_ptr<DesktopSession> DesktopSession::connect(const std::string& displayName) {
    static const bool handlersInstalled = [] {
        XSetErrorHandler(countError);
        XSetIOErrorHandler(quietIOError);
        return true;
    }();
    (void)handlersInstalled;

    Display* display = XOpenDisplay(displayName.empty() ? nullptr : displayName.c_str());
    if (!display) return nullptr;
    auto impl = std::make_unique<X11DesktopSession>();
    impl->display = display;
    XSetIOErrorExitHandler(display, connectionLostHandler, impl.get());
    impl->root = DefaultRootWindow(display);

    const auto atom = [&](const char* name) { return XInternAtom(display, name, False); };
    impl->atoms = {atom("_NET_ACTIVE_WINDOW"),
                   atom("_NET_CLIENT_LIST_STACKING"),
                   atom("_NET_CLIENT_LIST"),
                   atom("_NET_WM_NAME"),
                   atom("UTF8_STRING"),
                   atom("WM_STATE"),
                   atom("_NET_WM_STATE"),
                   atom("_NET_WM_STATE_FULLSCREEN"),
                   atom("_NET_WM_STATE_ABOVE"),
                   atom("_NET_WM_STATE_HIDDEN"),
                   atom("_NET_WM_PID"),
                   atom("_NET_WM_WINDOW_TYPE"),
                   atom("_NET_WM_WINDOW_TYPE_DESKTOP"),
                   atom("_NET_WM_WINDOW_TYPE_DOCK"),
                   XA_WM_CLASS};

    int eventBase = 0, errorBase = 0;
    impl->screenSaverExtension = XScreenSaverQueryExtension(display, &eventBase, &errorBase);
    if (impl->screenSaverExtension) impl->screenSaverInfo = XScreenSaverAllocInfo();
    XSelectInput(display, impl->root, PropertyChangeMask | SubstructureNotifyMask);
    if (impl->connectionLost) return nullptr;
    return impl;
}

std::optional<std::pair<int, int>> DesktopSession::screenSize(const std::string& displayName) {
    XSetIOErrorHandler(quietIOError);
    Display* display = XOpenDisplay(displayName.empty() ? nullptr : displayName.c_str());
    if (!display) return std::nullopt;
    // A server that goes away during the question must not end the process.
    XSetIOErrorExitHandler(display, [](Display*, void*) {}, nullptr);
    Window root = 0;
    int x = 0, y = 0;
    unsigned width = 0, height = 0, border = 0, depth = 0;
    const bool known = XGetGeometry(display, DefaultRootWindow(display), &root, &x, &y, &width, &height, &border, &depth);
    XCloseDisplay(display);
    if (!known || width == 0 || height == 0) return std::nullopt;
    return std::pair(static_cast<int>(width), static_cast<int>(height));
}

}  // namespace aimwise
