#pragma once
// A private session bus (dbus-daemon --session, started by the test and stopped with it), and a
// stand-in for the desktop's notification service on it: it answers Notify and CloseNotification as
// a real one does, remembers what it was asked to show, and presses a notification's buttons when a
// test says so.
#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace aimwise::testing {

class PrivateSessionBus {
public:
    PrivateSessionBus();
    ~PrivateSessionBus();
    PrivateSessionBus(const PrivateSessionBus&) = delete;
    PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

    // What DBUS_SESSION_BUS_ADDRESS must say; empty when the daemon did not start.
    const std::string& address() const { return address_; }

private:
    pid_t pid_ = -1;
    std::string address_;
};

class StandInNotificationService {
public:
    struct Shown {
        uint32_t id = 0;
        std::string appName;
        std::string summary;
        std::string body;
        std::vector<std::string> actions;
    };

    // Takes org.freedesktop.Notifications on the bus at `address` and serves it from a thread.
    explicit StandInNotificationService(const std::string& address);
    ~StandInNotificationService();

    std::vector<Shown> shown() const;
    std::vector<uint32_t> closed() const;
    bool waitForShown(size_t count, int timeoutMs) const;
    bool waitForClosed(size_t count, int timeoutMs) const;
    // As if the person pressed the button with `key` on notification `id`.
    void invokeAction(uint32_t id, const std::string& key);

private:
    static int onNotify(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onClose(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onCapabilities(sd_bus_message* message, void* self, sd_bus_error* error);
    void serve();

    sd_bus* bus_ = nullptr;
    int wakeFd_ = -1;
    std::atomic<bool> stopping_{false};
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Shown> shown_;
    std::vector<uint32_t> closed_;
    std::vector<std::pair<uint32_t, std::string>> toInvoke_;
    uint32_t nextId_ = 1;
    std::thread thread_;
};

}  // namespace aimwise::testing
