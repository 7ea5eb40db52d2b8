#include "platform/linux/desktop_bus/session_bus.h"

#include <cstring>

namespace aimwise::SessionBus {

Bus open(std::string* failure) {
    sd_bus* bus = nullptr;
    if (const int r = sd_bus_open_user(&bus); r < 0) {
        if (failure) *failure = std::strerror(-r);
        return nullptr;
    }
    return Bus(bus);
}

Reply call(sd_bus* bus, const char* destination, const char* path, const char* interface, const char* member,
           int64_t timeoutMs, const std::function<int(sd_bus_message*)>& append) {
    Reply reply;
    sd_bus_message* request = nullptr;
    int r = sd_bus_message_new_method_call(bus, &request, destination, path, interface, member);
    Message owned(request);
    if (r >= 0 && append) r = append(request);
    if (r < 0) {
        reply.error = std::string("could not build the call: ") + std::strerror(-r);
        return reply;
    }
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* answer = nullptr;
    r = sd_bus_call(bus, request, static_cast<uint64_t>(timeoutMs) * 1000, &error, &answer);
    reply.message.reset(answer);
    if (r < 0) reply.error = error.message ? error.message : (error.name ? error.name : std::strerror(-r));
    sd_bus_error_free(&error);
    return reply;
}

bool hasOwner(sd_bus* bus, const char* name) {
    const Reply reply = call(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                             "NameHasOwner", 1000, [&](sd_bus_message* m) { return sd_bus_message_append(m, "s", name); });
    int owned = 0;
    return reply && sd_bus_message_read(reply.message.get(), "b", &owned) >= 0 && owned;
}

std::optional<std::string> readString(sd_bus_message* message) {
    const char* text = nullptr;
    if (!message || sd_bus_message_read(message, "s", &text) < 0 || !text) return std::nullopt;
    return std::string(text);
}

bool processPending(sd_bus* bus, std::string* failure) {
    while (true) {
        const int r = sd_bus_process(bus, nullptr);
        if (r < 0) {
            if (failure) *failure = std::strerror(-r);
            return false;
        }
        if (r == 0) return true;
    }
}

}  // namespace aimwise::SessionBus
