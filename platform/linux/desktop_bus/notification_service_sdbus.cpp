// The notification service over sd-bus. Kept out of AimwisePlatform so that only the programs that
// show notifications with buttons load libsystemd.
#include <cstring>
#include <set>

#include "platform/linux/desktop_bus/session_bus.h"
#include "platform/notification_service.h"

namespace aimwise {

namespace {

constexpr const char* destination = "org.freedesktop.Notifications";
constexpr const char* objectPath = "/org/freedesktop/Notifications";
constexpr const char* interfaceName = "org.freedesktop.Notifications";
// A service that does not answer within this is as good as absent; the loop must not stall on it.
constexpr int64_t callTimeoutMs = 3000;

class SdBusNotificationService final : public NotificationService {
  public:
    SdBusNotificationService() {
        std::string failure;
        bus_ = SessionBus::open(&failure);
        if (!bus_) throw NotificationServiceError("could not connect to the session bus: " + failure);
        int result = sd_bus_match_signal(bus_.get(), nullptr, nullptr, objectPath, interfaceName, "ActionInvoked",
                                         &SdBusNotificationService::onAction, this);
        if (result >= 0)
            result = sd_bus_match_signal(bus_.get(), nullptr, nullptr, objectPath, interfaceName, "NotificationClosed",
                                         &SdBusNotificationService::onClosed, this);
        if (result < 0)
            throw NotificationServiceError(std::string("could not listen for notification signals: ") +
                                           std::strerror(-result));
    }

    uint32_t show(const Notification& notification) override {
        const SessionBus::Reply reply = call("Notify", [&](sd_bus_message* call) {
            int result = sd_bus_message_append(call, "susss", notification.appName.c_str(), notification.replaces, "",
                                               notification.summary.c_str(), notification.body.c_str());
            if (result >= 0) result = sd_bus_message_open_container(call, 'a', "s");
            for (const auto& [key, label] : notification.actions) {
                if (result >= 0) result = sd_bus_message_append(call, "s", key.c_str());
                if (result >= 0) result = sd_bus_message_append(call, "s", label.c_str());
            }
            if (result >= 0) result = sd_bus_message_close_container(call);
            // Normal urgency, filed as a message received, kept until the person acts on it.
            if (result >= 0)
                result = sd_bus_message_append(call, "a{sv}i", 2, "urgency", "y", uint8_t{1}, "category", "s",
                                               "im.received", int32_t{0});
            return result;
        });
        uint32_t id = 0;
        if (!reply) throw NotificationServiceError("the notification service did not show it: " + reply.error);
        if (const int result = sd_bus_message_read(reply.message.get(), "u", &id); result < 0)
            throw NotificationServiceError(std::string("the notification service did not show it: ") +
                                           std::strerror(-result));
        ours_.insert(id);
        return id;
    }

    void close(uint32_t id) override {
        const SessionBus::Reply reply =
            call("CloseNotification", [&](sd_bus_message* call) { return sd_bus_message_append(call, "u", id); });
        if (!reply) throw NotificationServiceError("the notification service did not close it: " + reply.error);
    }

    int pollFd() const override { return sd_bus_get_fd(bus_.get()); }

    std::vector<Signal> readSignals() override {
        std::string failure;
        if (!SessionBus::processPending(bus_.get(), &failure))
            throw NotificationServiceError("the session bus went away: " + failure);
        return std::exchange(pending_, {});
    }

  private:
    static int onAction(sd_bus_message* message, void* self, sd_bus_error*) {
        auto* service = static_cast<SdBusNotificationService*>(self);
        uint32_t id = 0;
        const char* key = nullptr;
        if (sd_bus_message_read(message, "us", &id, &key) < 0 || !service->ours_.contains(id)) return 0;
        service->pending_.push_back({Signal::Kind::actionInvoked, id, key ? key : "", 0});
        return 0;
    }
    static int onClosed(sd_bus_message* message, void* self, sd_bus_error*) {
        auto* service = static_cast<SdBusNotificationService*>(self);
        uint32_t id = 0, reason = 0;
        if (sd_bus_message_read(message, "uu", &id, &reason) < 0 || !service->ours_.erase(id)) return 0;
        service->pending_.push_back({Signal::Kind::closed, id, "", reason});
        return 0;
    }

    SessionBus::Reply call(const char* member, const std::function<int(sd_bus_message*)>& append) {
        return SessionBus::call(bus_.get(), destination, objectPath, interfaceName, member, callTimeoutMs, append);
    }

    SessionBus::Bus bus_;
    std::set<uint32_t> ours_;
    std::vector<Signal> pending_;
};

}  // namespace

std::unique_ptr<NotificationService> NotificationService::connectSessionBus() {
    return std::make_unique<SdBusNotificationService>();
}

}  // namespace aimwise
