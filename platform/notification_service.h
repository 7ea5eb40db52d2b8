#pragma once
// Desktop notifications with buttons: the session's notification service (org.freedesktop.
// Notifications on the session bus). The service tells which button was pressed and when a
// notification went away as signals, read when the descriptor becomes readable, so a loop that waits
// on one poll hears them without a thread of its own.
//
// A session may have no notification service at all, or lose it; every call then throws, and the
// caller decides what to say and whether to connect again later.
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "CaptureShared/common/error.h"

namespace aimwise {

struct NotificationServiceError : Error {
    using Error::Error;
};

class NotificationService {
  public:
    struct Notification {
        std::string appName = "Aimwise";
        std::string summary;
        std::string body;
        // Pairs of an action key and the label its button shows; "default" is a click on the body.
        std::vector<std::pair<std::string, std::string>> actions;
        // What this one replaces; 0 for a new notification.
        uint32_t replaces = 0;
    };
    struct Signal {
        enum class Kind { actionInvoked, closed };
        Kind kind = Kind::closed;
        uint32_t id = 0;
        std::string actionKey;  // actionInvoked
        uint32_t reason = 0;    // closed: 1 expired, 2 dismissed, 3 closed by a call, 4 other
        bool operator==(const Signal&) const = default;
    };

    virtual ~NotificationService() = default;

    // A private connection to the session bus ($DBUS_SESSION_BUS_ADDRESS, else the user's bus),
    // listening for the service's signals. Throws NotificationServiceError when there is no bus.
    static std::unique_ptr<NotificationService> connectSessionBus();

    // Shows a notification and returns its id. Throws NotificationServiceError, also when no
    // service answers on the bus.
    virtual uint32_t show(const Notification& notification) = 0;
    // Throws NotificationServiceError.
    virtual void close(uint32_t id) = 0;
    // Readable while signals may wait; for poll(2) with POLLIN.
    virtual int pollFd() const = 0;
    // The signals that arrived about this connection's notifications. Never blocks. Throws
    // NotificationServiceError when the bus connection was lost.
    virtual std::vector<Signal> readSignals() = 0;
};

}  // namespace aimwise
