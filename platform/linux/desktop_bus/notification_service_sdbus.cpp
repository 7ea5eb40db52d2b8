// The notification service over sd-bus. Kept out of AimwisePlatform so that only the programs that
// show notifications with buttons load libsystemd.
#include <systemd/sd-bus.h>

#include <cstring>
#include <set>

#include "platform/notification_service.h"

namespace aimwise {

namespace {

constexpr const char* destination = "org.freedesktop.Notifications";
constexpr const char* objectPath = "/org/freedesktop/Notifications";
constexpr const char* interfaceName = "org.freedesktop.Notifications";
// A service that does not answer within this is as good as absent; the loop must not stall on it.
constexpr uint64_t callTimeoutUsec = 3'000'000;

std::string errorText(int result, const sd_bus_error* error) {
    if (error && error->message) return error->message;
    return std::strerror(-result);
}

class SdBusNotificationService final : public NotificationService {
  public:
    SdBusNotificationService() {
        int result = sd_bus_open_user(&bus_);
        if (result < 0)
            throw NotificationServiceError("could not connect to the session bus: " + errorText(result, nullptr));
        sd_bus_set_method_call_timeout(bus_, callTimeoutUsec);
        result = sd_bus_match_signal(bus_, nullptr, nullptr, objectPath, interfaceName, "ActionInvoked",
                                     &SdBusNotificationService::onAction, this);
        if (result >= 0)
            result = sd_bus_match_signal(bus_, nullptr, nullptr, objectPath, interfaceName, "NotificationClosed",
                                         &SdBusNotificationService::onClosed, this);
        if (result < 0) {
            sd_bus_flush_close_unref(bus_);
            throw NotificationServiceError("could not listen for notification signals: " + errorText(result, nullptr));
        }
    }
    ~SdBusNotificationService() override { sd_bus_flush_close_unref(bus_); }

    uint32_t show(const Notification& notification) override {
        sd_bus_message* call = nullptr;
        sd_bus_message* reply = nullptr;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        int result = sd_bus_message_new_method_call(bus_, &call, destination, objectPath, interfaceName, "Notify");
        if (result >= 0)
            result = sd_bus_message_append(call, "susss", notification.appName.c_str(), notification.replaces, "",
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
        if (result >= 0) result = sd_bus_call(bus_, call, 0, &error, &reply);
        uint32_t id = 0;
        if (result >= 0) result = sd_bus_message_read(reply, "u", &id);
        const std::string why = result < 0 ? errorText(result, &error) : "";
        sd_bus_error_free(&error);
        sd_bus_message_unref(reply);
        sd_bus_message_unref(call);
        if (result < 0) throw NotificationServiceError("the notification service did not show it: " + why);
        ours_.insert(id);
        return id;
    }

    void close(uint32_t id) override {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        const int result = sd_bus_call_method(bus_, destination, objectPath, interfaceName, "CloseNotification", &error,
                                              nullptr, "u", id);
        const std::string why = result < 0 ? errorText(result, &error) : "";
        sd_bus_error_free(&error);
        if (result < 0) throw NotificationServiceError("the notification service did not close it: " + why);
    }

    int pollFd() const override { return sd_bus_get_fd(bus_); }

    std::vector<Signal> readSignals() override {
        for (;;) {
            const int result = sd_bus_process(bus_, nullptr);
            if (result < 0) throw NotificationServiceError("the session bus went away: " + errorText(result, nullptr));
            if (result == 0) break;
        }
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

    sd_bus* bus_ = nullptr;
    std::set<uint32_t> ours_;
    std::vector<Signal> pending_;
};

}  // namespace

std::unique_ptr<NotificationService> NotificationService::connectSessionBus() {
    return std::make_unique<SdBusNotificationService>();
}

}  // namespace aimwise
