#include "platform/linux/desktop/atspi_desktop.h"

#include <atspi/atspi.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "platform/linux/desktop_bus/session_bus.h"

namespace aimwise::AtspiDesktop {
namespace {

// Beyond these the window is a document or a list far larger than a screen: what shows is
// a small part of it, and the walk stops.
constexpr size_t maxNodes = 4000;
constexpr size_t maxTotalChars = 20000;
constexpr int longTextChars = 2000;

struct Unref {
    void operator()(gpointer object) const {
        if (object) g_object_unref(object);
    }
};
template <typename T>
using Ref = std::unique_ptr<T, Unref>;

std::string takeString(gchar* text) {
    std::string out = text ? text : "";
    g_free(text);
    return out;
}

void clear(GError*& error) {
    if (error) g_error_free(error);
    error = nullptr;
}

bool has(AtspiAccessible* object, AtspiStateType state) {
    Ref<AtspiStateSet> states(atspi_accessible_get_state_set(object));
    return states && atspi_state_set_contains(states.get(), state);
}

std::vector<Ref<AtspiAccessible>> children(AtspiAccessible* object) {
    std::vector<Ref<AtspiAccessible>> out;
    GError* error = nullptr;
    const int count = atspi_accessible_get_child_count(object, &error);
    clear(error);
    for (int i = 0; i < count && out.size() < maxNodes; ++i) {
        Ref<AtspiAccessible> child(atspi_accessible_get_child_at_index(object, i, &error));
        clear(error);
        if (child) out.push_back(std::move(child));
    }
    return out;
}

bool isTopLevel(AtspiAccessible* object) {
    GError* error = nullptr;
    const AtspiRole role = atspi_accessible_get_role(object, &error);
    clear(error);
    return role == ATSPI_ROLE_FRAME || role == ATSPI_ROLE_WINDOW || role == ATSPI_ROLE_DIALOG ||
           role == ATSPI_ROLE_ALERT || role == ATSPI_ROLE_FILE_CHOOSER;
}

Frame describe(AtspiAccessible* application, AtspiAccessible* window) {
    GError* error = nullptr;
    Frame frame;
    frame.application = takeString(atspi_accessible_get_name(application, &error));
    clear(error);
    frame.title = takeString(atspi_accessible_get_name(window, &error));
    clear(error);
    const guint pid = atspi_accessible_get_process_id(application, &error);
    if (!error && pid > 0) frame.pid = pid;
    clear(error);
    Ref<AtspiStateSet> states(atspi_accessible_get_state_set(window));
    frame.active = states && atspi_state_set_contains(states.get(), ATSPI_STATE_ACTIVE);
    frame.iconified = states && atspi_state_set_contains(states.get(), ATSPI_STATE_ICONIFIED);
    return frame;
}

template <typename Visit>
void forEachTopLevel(Deadline deadline, Visit visit) {
    Ref<AtspiAccessible> desktop(atspi_get_desktop(0));
    if (!desktop) return;
    for (auto& application : children(desktop.get())) {
        if (std::chrono::steady_clock::now() >= deadline) return;
        for (auto& window : children(application.get()))
            if (isTopLevel(window.get()) && !visit(application.get(), window.get())) return;
    }
}

// The part of a long text that its widget shows: the offsets under its top-left and bottom-right
// corners. The whole text when the toolkit cannot say.
std::string visiblePart(AtspiAccessible* object, AtspiText* text, int length) {
    GError* error = nullptr;
    int start = 0, end = std::min(length, longTextChars);
    if (length > longTextChars) {
        Ref<AtspiComponent> component(atspi_accessible_get_component(object));
        if (component) {
            AtspiRect* extents = atspi_component_get_extents(component.get(), ATSPI_COORD_TYPE_WINDOW, &error);
            clear(error);
            if (extents) {
                const int first = atspi_text_get_offset_at_point(text, extents->x, extents->y, ATSPI_COORD_TYPE_WINDOW,
                                                                 &error);
                clear(error);
                const int last = atspi_text_get_offset_at_point(text, extents->x + extents->width - 1,
                                                                extents->y + extents->height - 1,
                                                                ATSPI_COORD_TYPE_WINDOW, &error);
                clear(error);
                g_free(extents);
                if (first >= 0 && last > first) start = first, end = std::min(length, last + 1);
            }
        }
    }
    std::string out = takeString(atspi_text_get_text(text, start, end, &error));
    clear(error);
    return out;
}

class TextWalk {
public:
    explicit TextWalk(Deadline deadline) : deadline_(deadline) {}

    void visit(AtspiAccessible* object) {
        if (stopped()) return;
        ++nodes_;
        Ref<AtspiStateSet> states(atspi_accessible_get_state_set(object));
        if (!states || !atspi_state_set_contains(states.get(), ATSPI_STATE_SHOWING)) return;
        GError* error = nullptr;
        const AtspiRole role = atspi_accessible_get_role(object, &error);
        clear(error);
        // What a password field holds is never read, not even its length.
        if (role == ATSPI_ROLE_PASSWORD_TEXT) return;
        std::string line;
        if (Ref<AtspiText> text{atspi_accessible_get_text(object)}) {
            const int length = atspi_text_get_character_count(text.get(), &error);
            clear(error);
            if (length > 0) line = visiblePart(object, text.get(), length);
        } else if (role != ATSPI_ROLE_FRAME && role != ATSPI_ROLE_FILLER && role != ATSPI_ROLE_PANEL) {
            line = takeString(atspi_accessible_get_name(object, &error));
            clear(error);
        }
        add(line);
        for (auto& child : children(object)) visit(child.get());
    }

    std::string text() { return std::move(text_); }
    bool complete() const { return !cut_; }

private:
    bool stopped() {
        if (nodes_ >= maxNodes || text_.size() >= maxTotalChars || std::chrono::steady_clock::now() >= deadline_)
            cut_ = true;
        return cut_;
    }
    void add(const std::string& line) {
        if (line.find_first_not_of(" \t\r\n\u00a0") == std::string::npos) return;
        if (!text_.empty()) text_ += '\n';
        text_ += line;
    }

    Deadline deadline_;
    std::string text_;
    size_t nodes_ = 0;
    bool cut_ = false;
};

}  // namespace

// libatspi ends the process when it cannot reach the accessibility bus, so the address is found
// first over the session bus (starting the bus launcher if need be) and handed to it.
bool accessibilityBusReachable(int timeoutMs) {
    if (const char* address = std::getenv("AT_SPI_BUS_ADDRESS"); address && *address) return true;
    SessionBus::Bus bus = SessionBus::open();
    if (!bus) return false;
    const SessionBus::Reply reply = SessionBus::call(bus.get(), "org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus",
                                                     "GetAddress", std::max(timeoutMs, 1000));
    const auto address = reply ? SessionBus::readString(reply.message.get()) : std::nullopt;
    if (!address || address->empty()) return false;
    ::setenv("AT_SPI_BUS_ADDRESS", address->c_str(), 1);
    return true;
}

bool connect(int callTimeoutMs) {
    static const bool connected = [&] {
        // atspi_init answers 1 when it was already done, which is as good.
        return accessibilityBusReachable(callTimeoutMs) && atspi_init() >= 0;
    }();
    if (connected) atspi_set_timeout(callTimeoutMs, callTimeoutMs);
    if (!connected) return false;
    Ref<AtspiAccessible> desktop(atspi_get_desktop(0));
    return desktop != nullptr;
}

std::vector<Frame> frames(Deadline deadline) {
    std::vector<Frame> out;
    forEachTopLevel(deadline, [&](AtspiAccessible* application, AtspiAccessible* window) {
        out.push_back(describe(application, window));
        return true;
    });
    return out;
}

std::optional<WindowText> activeWindowText(Deadline deadline) {
    std::optional<WindowText> found;
    forEachTopLevel(deadline, [&](AtspiAccessible* application, AtspiAccessible* window) {
        if (!has(window, ATSPI_STATE_ACTIVE)) return true;
        found.emplace();
        found->frame = describe(application, window);
        TextWalk walk(deadline);
        for (auto& child : children(window)) walk.visit(child.get());
        found->text = walk.text();
        found->complete = walk.complete();
        return false;
    });
    return found;
}

}  // namespace aimwise::AtspiDesktop
