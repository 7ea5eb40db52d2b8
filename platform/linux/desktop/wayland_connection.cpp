#include "platform/linux/desktop/wayland_connection.h"

#include <poll.h>
#include <wayland-client.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <list>

#include "ext-idle-notify-v1-client-protocol.h"
#include "idle-client-protocol.h"
#include "wlr-foreign-toplevel-management-unstable-v1-client-protocol.h"

namespace aimwise::Wayland {
namespace {

// Compositors of the past two years speak version 3; the parent event (3) is not needed.
constexpr uint32_t toplevelManagerVersion = 2;

class ClientConnection final : public Connection {
public:
    struct Handle {
        ClientConnection* owner = nullptr;
        zwlr_foreign_toplevel_handle_v1* proxy = nullptr;
        Toplevel pending;
        Toplevel current;
        bool described = false;
        bool closed = false;
    };

    ~ClientConnection() override {
        for (Handle& handle : handles_)
            if (handle.proxy) zwlr_foreign_toplevel_handle_v1_destroy(handle.proxy);
        if (extNotification_) ext_idle_notification_v1_destroy(extNotification_);
        if (kdeTimeout_) org_kde_kwin_idle_timeout_release(kdeTimeout_);
        if (extNotifier_) ext_idle_notifier_v1_destroy(extNotifier_);
        if (kdeIdle_) org_kde_kwin_idle_destroy(kdeIdle_);
        if (manager_) zwlr_foreign_toplevel_manager_v1_destroy(manager_);
        if (seat_) wl_seat_destroy(seat_);
        if (registry_) wl_registry_destroy(registry_);
        if (display_) wl_display_disconnect(display_);
    }

    bool connect(const std::string& name, int64_t idleThresholdMs) {
        display_ = wl_display_connect(name.empty() ? nullptr : name.c_str());
        if (!display_) return false;
        registry_ = wl_display_get_registry(display_);
        static const wl_registry_listener registryListener{&ClientConnection::global, &ClientConnection::globalRemove};
        wl_registry_add_listener(registry_, &registryListener, this);
        // The globals, then the first description of every toplevel.
        if (wl_display_roundtrip(display_) < 0) return false;
        if (seat_ && idleThresholdMs > 0) {
            const auto threshold = static_cast<uint32_t>(idleThresholdMs);
            if (extNotifier_) {
                extNotification_ = ext_idle_notifier_v1_get_idle_notification(extNotifier_, threshold, seat_);
                static const ext_idle_notification_v1_listener listener{&ClientConnection::idled,
                                                                        &ClientConnection::resumed};
                ext_idle_notification_v1_add_listener(extNotification_, &listener, this);
            } else if (kdeIdle_) {
                kdeTimeout_ = org_kde_kwin_idle_get_idle_timeout(kdeIdle_, seat_, threshold);
                static const org_kde_kwin_idle_timeout_listener listener{&ClientConnection::kdeIdled,
                                                                         &ClientConnection::kdeResumed};
                org_kde_kwin_idle_timeout_add_listener(kdeTimeout_, &listener, this);
            }
        }
        idleThresholdMs_ = idleThresholdMs;
        return wl_display_roundtrip(display_) >= 0;
    }

    bool dispatch(int timeoutMs, int64_t now) override {
        if (lost_) return false;
        now_ = now;
        // The documented way to read without racing another reader of the same queue.
        while (wl_display_prepare_read(display_) != 0)
            if (wl_display_dispatch_pending(display_) < 0) return lose();
        if (wl_display_flush(display_) < 0 && errno != EAGAIN) {
            wl_display_cancel_read(display_);
            return lose();
        }
        pollfd descriptor{wl_display_get_fd(display_), POLLIN, 0};
        const int ready = ::poll(&descriptor, 1, timeoutMs);
        if (ready > 0) {
            if (wl_display_read_events(display_) < 0) return lose();
        } else {
            wl_display_cancel_read(display_);
        }
        if (wl_display_dispatch_pending(display_) < 0) return lose();
        if (wl_display_get_error(display_) != 0) return lose();
        return true;
    }

    bool offersToplevels() const override { return manager_ != nullptr; }

    std::string idleProtocol() const override {
        if (extNotification_) return "ext-idle-notify-v1";
        if (kdeTimeout_) return "org_kde_kwin_idle";
        return {};
    }

    std::vector<Toplevel> toplevels() const override {
        std::vector<Toplevel> out;
        for (const Handle& handle : handles_)
            if (handle.described && !handle.closed) out.push_back(handle.current);
        return out;
    }

    std::optional<double> idleSec(int64_t now) const override {
        if (idleProtocol().empty()) return std::nullopt;
        if (!idleSinceMs_) return 0.0;
        return static_cast<double>(std::max<int64_t>(0, now - *idleSinceMs_)) / 1000.0;
    }

private:
    bool lose() {
        lost_ = true;
        return false;
    }

    static void global(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t version) {
        auto* self = static_cast<ClientConnection*>(data);
        const std::string_view which = interface;
        if (which == zwlr_foreign_toplevel_manager_v1_interface.name && !self->manager_) {
            self->manager_ = static_cast<zwlr_foreign_toplevel_manager_v1*>(wl_registry_bind(
                registry, name, &zwlr_foreign_toplevel_manager_v1_interface, std::min(version, toplevelManagerVersion)));
            static const zwlr_foreign_toplevel_manager_v1_listener listener{&ClientConnection::toplevel,
                                                                            &ClientConnection::finished};
            zwlr_foreign_toplevel_manager_v1_add_listener(self->manager_, &listener, self);
        } else if (which == ext_idle_notifier_v1_interface.name && !self->extNotifier_) {
            self->extNotifier_ =
                static_cast<ext_idle_notifier_v1*>(wl_registry_bind(registry, name, &ext_idle_notifier_v1_interface, 1));
        } else if (which == org_kde_kwin_idle_interface.name && !self->kdeIdle_) {
            self->kdeIdle_ =
                static_cast<org_kde_kwin_idle*>(wl_registry_bind(registry, name, &org_kde_kwin_idle_interface, 1));
        } else if (which == wl_seat_interface.name && !self->seat_) {
            // Idle time is per seat; the first one is the person's.
            self->seat_ = static_cast<wl_seat*>(wl_registry_bind(registry, name, &wl_seat_interface, 1));
        }
    }
    static void globalRemove(void*, wl_registry*, uint32_t) {}

    static void toplevel(void* data, zwlr_foreign_toplevel_manager_v1*, zwlr_foreign_toplevel_handle_v1* proxy) {
        auto* self = static_cast<ClientConnection*>(data);
        Handle& handle = self->handles_.emplace_back();
        handle.owner = self;
        handle.proxy = proxy;
        static const zwlr_foreign_toplevel_handle_v1_listener listener{
            &ClientConnection::title, &ClientConnection::appId, &ClientConnection::outputEnter,
            &ClientConnection::outputLeave, &ClientConnection::state, &ClientConnection::done,
            &ClientConnection::closed, &ClientConnection::parent};
        zwlr_foreign_toplevel_handle_v1_add_listener(proxy, &listener, &handle);
    }
    static void finished(void* data, zwlr_foreign_toplevel_manager_v1* manager) {
        auto* self = static_cast<ClientConnection*>(data);
        zwlr_foreign_toplevel_manager_v1_destroy(manager);
        self->manager_ = nullptr;
    }

    static void title(void* data, zwlr_foreign_toplevel_handle_v1*, const char* text) {
        static_cast<Handle*>(data)->pending.title = text ? text : "";
    }
    static void appId(void* data, zwlr_foreign_toplevel_handle_v1*, const char* text) {
        static_cast<Handle*>(data)->pending.appId = text ? text : "";
    }
    static void outputEnter(void*, zwlr_foreign_toplevel_handle_v1*, wl_output*) {}
    static void outputLeave(void*, zwlr_foreign_toplevel_handle_v1*, wl_output*) {}
    static void state(void* data, zwlr_foreign_toplevel_handle_v1*, wl_array* states) {
        Toplevel& pending = static_cast<Handle*>(data)->pending;
        pending.activated = pending.minimized = pending.maximized = pending.fullscreen = false;
        const auto* entries = static_cast<const uint32_t*>(states->data);
        for (size_t i = 0; i < states->size / sizeof(uint32_t); ++i) {
            switch (entries[i]) {
                case ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_ACTIVATED: pending.activated = true; break;
                case ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_MINIMIZED: pending.minimized = true; break;
                case ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_MAXIMIZED: pending.maximized = true; break;
                case ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_FULLSCREEN: pending.fullscreen = true; break;
                default: break;
            }
        }
    }
    static void done(void* data, zwlr_foreign_toplevel_handle_v1*) {
        auto* handle = static_cast<Handle*>(data);
        handle->current = handle->pending;
        handle->described = true;
    }
    static void closed(void* data, zwlr_foreign_toplevel_handle_v1* proxy) {
        auto* handle = static_cast<Handle*>(data);
        ClientConnection* self = handle->owner;
        zwlr_foreign_toplevel_handle_v1_destroy(proxy);
        self->handles_.remove_if([&](const Handle& h) { return &h == handle; });
    }
    static void parent(void*, zwlr_foreign_toplevel_handle_v1*, zwlr_foreign_toplevel_handle_v1*) {}

    // The compositor speaks once the threshold has passed without input: idleness began that long ago.
    void becameIdle() { idleSinceMs_ = now_ - idleThresholdMs_; }
    void becameActive() { idleSinceMs_.reset(); }
    static void idled(void* data, ext_idle_notification_v1*) { static_cast<ClientConnection*>(data)->becameIdle(); }
    static void resumed(void* data, ext_idle_notification_v1*) { static_cast<ClientConnection*>(data)->becameActive(); }
    static void kdeIdled(void* data, org_kde_kwin_idle_timeout*) { static_cast<ClientConnection*>(data)->becameIdle(); }
    static void kdeResumed(void* data, org_kde_kwin_idle_timeout*) {
        static_cast<ClientConnection*>(data)->becameActive();
    }

    wl_display* display_ = nullptr;
    wl_registry* registry_ = nullptr;
    wl_seat* seat_ = nullptr;
    zwlr_foreign_toplevel_manager_v1* manager_ = nullptr;
    ext_idle_notifier_v1* extNotifier_ = nullptr;
    ext_idle_notification_v1* extNotification_ = nullptr;
    org_kde_kwin_idle* kdeIdle_ = nullptr;
    org_kde_kwin_idle_timeout* kdeTimeout_ = nullptr;
    // A list, so that a handle's address (the listener's data) survives others coming and going.
    std::list<Handle> handles_;
    int64_t idleThresholdMs_ = 0;
    std::optional<int64_t> idleSinceMs_;
    int64_t now_ = 0;
    bool lost_ = false;
};

}  // namespace

std::unique_ptr<Connection> Connection::open(const std::string& displayName, int64_t idleThresholdMs) {
    auto connection = std::make_unique<ClientConnection>();
    if (!connection->connect(displayName, idleThresholdMs)) return nullptr;
    return connection;
}

}  // namespace aimwise::Wayland
