#pragma once
// A private connection to the session bus through sd-bus, with the few calls the Wayland readers and
// the coach's notifications make: a method call under a deadline and the processing of what arrived.
#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace aimwise::SessionBus {

struct BusDeleter {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageDeleter {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusDeleter>;
using Message = std::unique_ptr<sd_bus_message, MessageDeleter>;

// $DBUS_SESSION_BUS_ADDRESS, else the user's bus; nothing when neither is there, with the reason in
// `failure` when given.
Bus open(std::string* failure = nullptr);

struct Reply {
    Message message;
    std::string error;  // empty on success
    explicit operator bool() const { return error.empty(); }
};

// A method call that waits at most `timeoutMs`; arguments appended by `append` when given.
Reply call(sd_bus* bus, const char* destination, const char* path, const char* interface, const char* member,
           int64_t timeoutMs, const std::function<int(sd_bus_message*)>& append = {});

// Whether the name has an owner on the bus.
bool hasOwner(sd_bus* bus, const char* name);

// The reply's single string argument, or nothing when it has another shape.
std::optional<std::string> readString(sd_bus_message* message);

// Handles everything that has arrived without waiting; false when the connection is gone, with the
// reason in `failure` when given.
bool processPending(sd_bus* bus, std::string* failure = nullptr);

}  // namespace aimwise::SessionBus
