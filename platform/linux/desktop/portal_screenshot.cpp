#include "platform/linux/desktop/portal_screenshot.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <random>

#include <fmt/format.h>

#include "platform/linux/desktop_bus/session_bus.h"

namespace aimwise::PortalScreenshot {
namespace {

constexpr const char* portalService = "org.freedesktop.portal.Desktop";
constexpr const char* portalPath = "/org/freedesktop/portal/desktop";
constexpr const char* screenshotInterface = "org.freedesktop.portal.Screenshot";

struct Response {
    bool arrived = false;
    uint32_t code = 2;
    std::string uri;
};

// Response(u code, a{sv} results): only results["uri"] matters.
int onResponse(sd_bus_message* message, void* data, sd_bus_error*) {
    auto* response = static_cast<Response*>(data);
    response->arrived = true;
    if (sd_bus_message_read(message, "u", &response->code) < 0) return 0;
    if (sd_bus_message_enter_container(message, 'a', "{sv}") < 0) return 0;
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
        const char* key = nullptr;
        if (sd_bus_message_read(message, "s", &key) < 0) return 0;
        if (key && std::strcmp(key, "uri") == 0 && sd_bus_message_enter_container(message, 'v', "s") > 0) {
            const char* uri = nullptr;
            if (sd_bus_message_read(message, "s", &uri) >= 0 && uri) response->uri = uri;
            sd_bus_message_exit_container(message);
        } else if (sd_bus_message_skip(message, "v") < 0) {
            return 0;
        }
        sd_bus_message_exit_container(message);
    }
    return 0;
}

std::optional<uint32_t> interfaceVersion(sd_bus* bus) {
    const SessionBus::Reply reply =
        SessionBus::call(bus, portalService, portalPath, "org.freedesktop.DBus.Properties", "Get", 2000,
                         [](sd_bus_message* m) { return sd_bus_message_append(m, "ss", screenshotInterface, "version"); });
    uint32_t version = 0;
    if (!reply || sd_bus_message_read(reply.message.get(), "v", "u", &version) < 0) return std::nullopt;
    return version;
}

// The portal's file is ours to take: copied to the destination, then removed, so that no picture
// collects in the person's folders.
Result take(const std::filesystem::path& source, const std::filesystem::path& destination) {
    struct stat info{};
    if (::lstat(source.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != ::getuid())
        return Failed{"the portal named a file that is not there or not ours: " + source.string()};
    std::error_code error;
    std::filesystem::copy_file(source, destination, std::filesystem::copy_options::overwrite_existing, error);
    std::error_code ignored;
    std::filesystem::remove(source, ignored);
    if (error) return Failed{"could not copy the portal's screenshot: " + error.message()};
    return Captured{};
}

}  // namespace

std::filesystem::path localPath(const std::string& uri) {
    constexpr std::string_view prefix = "file://";
    if (!uri.starts_with(prefix)) return {};
    std::string path;
    for (size_t i = prefix.size(); i < uri.size(); ++i) {
        if (uri[i] == '%' && i + 2 < uri.size() && std::isxdigit(static_cast<unsigned char>(uri[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(uri[i + 2]))) {
            path += static_cast<char>(std::stoi(uri.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            path += uri[i];
        }
    }
    // "file://host/path" names another machine; only an empty host is local.
    if (!path.starts_with('/') || path.find('\0') != std::string::npos) return {};
    return path;
}

Result capture(const std::filesystem::path& destination, int timeoutMs) {
    SessionBus::Bus bus = SessionBus::open();
    if (!bus) return Unavailable{"no session bus to reach the desktop portal"};
    const auto version = interfaceVersion(bus.get());
    if (!version) return Unavailable{"the desktop portal offers no Screenshot interface"};
    // Before version 2 there is no way to ask for a picture without the portal's dialog.
    if (*version < 2)
        return NeedsInteraction{fmt::format("the desktop portal's Screenshot (version {}) only takes pictures the "
                                            "person confirms in a dialog",
                                            *version)};

    const char* unique = nullptr;
    if (sd_bus_get_unique_name(bus.get(), &unique) < 0 || !unique) return Failed{"no name on the session bus"};
    std::string sender = unique + 1;
    std::replace(sender.begin(), sender.end(), '.', '_');
    std::random_device entropy;
    const std::string token = fmt::format("aimwise{:08x}", entropy());
    const std::string handle = "/org/freedesktop/portal/desktop/request/" + sender + "/" + token;

    // Subscribed before the call, so that a quick answer is not missed.
    Response response;
    sd_bus_slot* slot = nullptr;
    if (sd_bus_match_signal(bus.get(), &slot, portalService, handle.c_str(), "org.freedesktop.portal.Request",
                            "Response", onResponse, &response) < 0)
        return Failed{"could not listen for the portal's answer"};
    const SessionBus::Reply call = SessionBus::call(
        bus.get(), portalService, portalPath, screenshotInterface, "Screenshot", timeoutMs, [&](sd_bus_message* m) {
            return sd_bus_message_append(m, "sa{sv}", "", 3, "handle_token", "s", token.c_str(), "interactive", "b", 0,
                                         "modal", "b", 0);
        });
    if (!call) {
        sd_bus_slot_unref(slot);
        return Failed{"the desktop portal refused the request: " + call.error};
    }

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!response.arrived) {
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        const int r = sd_bus_process(bus.get(), nullptr);
        if (r < 0) break;
        if (r == 0) sd_bus_wait(bus.get(), static_cast<uint64_t>(left.count()));
    }
    sd_bus_slot_unref(slot);
    if (!response.arrived)
        return NeedsInteraction{fmt::format("the desktop portal did not answer within {} ms, as when it waits for "
                                            "the person to confirm a screenshot",
                                            timeoutMs)};
    if (response.code == 1)
        return NeedsInteraction{"the desktop portal asked the person, and the screenshot was declined"};
    if (response.code != 0) return Failed{fmt::format("the desktop portal answered with code {}", response.code)};
    const std::filesystem::path source = localPath(response.uri);
    if (source.empty()) return Failed{"the desktop portal gave no local file: \"" + response.uri.substr(0, 200) + "\""};
    return take(source, destination);
}

}  // namespace aimwise::PortalScreenshot
