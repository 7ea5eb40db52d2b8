#include "tests/support/session_bus.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace aimwise::testing {

PrivateSessionBus::PrivateSessionBus() {
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
        ::close(pipeFds[0]);
        const std::string printTo = "--print-address=" + std::to_string(pipeFds[1]);
        ::execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile", printTo.c_str(), nullptr);
        ::_exit(127);
    }
    ::close(pipeFds[1]);
    char buffer[512];
    std::string text;
    pollfd wait{pipeFds[0], POLLIN, 0};
    while (text.find('\n') == std::string::npos && ::poll(&wait, 1, 5000) > 0) {
        const ssize_t got = ::read(pipeFds[0], buffer, sizeof buffer);
        if (got <= 0) break;
        text.append(buffer, static_cast<size_t>(got));
    }
    ::close(pipeFds[0]);
    if (const size_t end = text.find('\n'); end != std::string::npos) address_ = text.substr(0, end);
}

PrivateSessionBus::~PrivateSessionBus() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }
}

StandInNotificationService::StandInNotificationService(const std::string& address) {
    wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (sd_bus_new(&bus_) < 0 || sd_bus_set_address(bus_, address.c_str()) < 0 || sd_bus_set_bus_client(bus_, 1) < 0 ||
        sd_bus_start(bus_) < 0)
        throw std::runtime_error("the stand-in notification service could not reach the bus at " + address);
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", &StandInNotificationService::onNotify, 0),
        SD_BUS_METHOD("CloseNotification", "u", "", &StandInNotificationService::onClose, 0),
        SD_BUS_METHOD("GetCapabilities", "", "as", &StandInNotificationService::onCapabilities, 0),
        SD_BUS_SIGNAL("ActionInvoked", "us", 0),
        SD_BUS_SIGNAL("NotificationClosed", "uu", 0),
        SD_BUS_VTABLE_END};
    if (sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/Notifications", "org.freedesktop.Notifications",
                                 table, this) < 0 ||
        sd_bus_request_name(bus_, "org.freedesktop.Notifications", 0) < 0)
        throw std::runtime_error("the stand-in notification service could not take its name");
    thread_ = std::thread([this] { serve(); });
}

StandInNotificationService::~StandInNotificationService() {
    stopping_ = true;
    const uint64_t one = 1;
    (void)!::write(wakeFd_, &one, sizeof one);
    if (thread_.joinable()) thread_.join();
    sd_bus_flush_close_unref(bus_);
    ::close(wakeFd_);
}

void StandInNotificationService::serve() {
    while (!stopping_) {
        {
            std::lock_guard lock(mutex_);
            while (sd_bus_process(bus_, nullptr) > 0) {
            }
            for (const auto& [id, key] : toInvoke_) {
                sd_bus_emit_signal(bus_, "/org/freedesktop/Notifications", "org.freedesktop.Notifications",
                                   "ActionInvoked", "us", id, key.c_str());
                sd_bus_emit_signal(bus_, "/org/freedesktop/Notifications", "org.freedesktop.Notifications",
                                   "NotificationClosed", "uu", id, uint32_t{2});
            }
            toInvoke_.clear();
            sd_bus_flush(bus_);
        }
        pollfd fds[2] = {{sd_bus_get_fd(bus_), static_cast<short>(sd_bus_get_events(bus_)), 0}, {wakeFd_, POLLIN, 0}};
        ::poll(fds, 2, 100);
        uint64_t value = 0;
        (void)!::read(wakeFd_, &value, sizeof value);
    }
}

int StandInNotificationService::onNotify(sd_bus_message* message, void* self, sd_bus_error*) {
    auto* service = static_cast<StandInNotificationService*>(self);
    const char *app = nullptr, *icon = nullptr, *summary = nullptr, *body = nullptr;
    uint32_t replaces = 0;
    Shown shown;
    if (sd_bus_message_read(message, "susss", &app, &replaces, &icon, &summary, &body) < 0) return -EINVAL;
    shown.appName = app;
    shown.summary = summary;
    shown.body = body;
    if (sd_bus_message_enter_container(message, 'a', "s") < 0) return -EINVAL;
    for (const char* action = nullptr; sd_bus_message_read(message, "s", &action) > 0;) shown.actions.push_back(action);
    sd_bus_message_exit_container(message);
    // Handlers run inside serve(), which holds the lock.
    shown.id = replaces ? replaces : service->nextId_++;
    service->shown_.push_back(shown);
    service->changed_.notify_all();
    return sd_bus_reply_method_return(message, "u", shown.id);
}

int StandInNotificationService::onClose(sd_bus_message* message, void* self, sd_bus_error*) {
    auto* service = static_cast<StandInNotificationService*>(self);
    uint32_t id = 0;
    if (sd_bus_message_read(message, "u", &id) < 0) return -EINVAL;
    service->closed_.push_back(id);
    service->changed_.notify_all();
    sd_bus_emit_signal(service->bus_, "/org/freedesktop/Notifications", "org.freedesktop.Notifications",
                       "NotificationClosed", "uu", id, uint32_t{3});
    return sd_bus_reply_method_return(message, "");
}

int StandInNotificationService::onCapabilities(sd_bus_message* message, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(message, "as", 2, "actions", "body");
}

std::vector<StandInNotificationService::Shown> StandInNotificationService::shown() const {
    std::lock_guard lock(mutex_);
    return shown_;
}

std::vector<uint32_t> StandInNotificationService::closed() const {
    std::lock_guard lock(mutex_);
    return closed_;
}

bool StandInNotificationService::waitForShown(size_t count, int timeoutMs) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return shown_.size() >= count; });
}

bool StandInNotificationService::waitForClosed(size_t count, int timeoutMs) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return closed_.size() >= count; });
}

void StandInNotificationService::invokeAction(uint32_t id, const std::string& key) {
    {
        std::lock_guard lock(mutex_);
        toInvoke_.emplace_back(id, key);
    }
    const uint64_t one = 1;
    (void)!::write(wakeFd_, &one, sizeof one);
}

}  // namespace aimwise::testing
