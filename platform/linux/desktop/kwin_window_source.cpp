// KWin runs a script of ours that calls back over the session bus with the window list; the agent
// keeps the newest list and unloads the script when it stops.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/linux/desktop/kwin_script.h"
#include "platform/linux/desktop_bus/session_bus.h"
#include "platform/linux/desktop/window_source.h"

namespace aimwise {
namespace {

constexpr const char* kwinService = "org.kde.KWin";
constexpr const char* scriptingPath = "/Scripting";
constexpr const char* scriptingInterface = "org.kde.kwin.Scripting";
constexpr int64_t callTimeoutMs = 2000;

std::filesystem::path privateDirectory() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    return runtime && *runtime ? std::filesystem::path(runtime) : std::filesystem::temp_directory_path();
}

bool writePrivateFile(const std::filesystem::path& path, const std::string& text) {
    const int fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return ::close(fd) == 0 && written;
}

class KWinWindowSource final : public WindowSource {
public:
    ~KWinWindowSource() override {
        if (bus_ && loaded_) unload();
        std::error_code ignored;
        if (!scriptPath_.empty()) std::filesystem::remove(scriptPath_, ignored);
    }

    bool start() {
        bus_ = SessionBus::open();
        if (!bus_ || !SessionBus::hasOwner(bus_.get(), kwinService)) return false;
        const char* unique = nullptr;
        if (sd_bus_get_unique_name(bus_.get(), &unique) < 0 || !unique) return false;
        if (sd_bus_add_object(bus_.get(), nullptr, KWinScript::objectPath, &KWinWindowSource::received, this) < 0)
            return false;
        pluginName_ = "aimwise-capture-" + std::to_string(::getuid());
        scriptPath_ = privateDirectory() / (pluginName_ + ".js");
        if (!writePrivateFile(scriptPath_, KWinScript::text(unique))) return false;
        // A script left behind by an agent that did not stop cleanly would keep the name taken.
        unload();
        const SessionBus::Reply load =
            SessionBus::call(bus_.get(), kwinService, scriptingPath, scriptingInterface, "loadScript", callTimeoutMs,
                             [&](sd_bus_message* m) {
                                 return sd_bus_message_append(m, "ss", scriptPath_.c_str(), pluginName_.c_str());
                             });
        int32_t id = -1;
        if (!load || sd_bus_message_read(load.message.get(), "i", &id) < 0 || id < 0) return false;
        loaded_ = true;
        // KWin 6 names the script's object /Scripting/Script<id>, KWin 5 /<id>; `start` runs every
        // loaded script on both.
        for (const std::string& path : {"/Scripting/Script" + std::to_string(id), "/" + std::to_string(id)})
            if (SessionBus::call(bus_.get(), kwinService, path.c_str(), "org.kde.kwin.Script", "run", callTimeoutMs))
                return true;
        return bool(SessionBus::call(bus_.get(), kwinService, scriptingPath, scriptingInterface, "start", callTimeoutMs));
    }

    std::optional<WindowReport> read(int64_t) override {
        if (!SessionBus::processPending(bus_.get())) return std::nullopt;
        return latest_.value_or(WindowReport{});
    }

    bool ready() const override { return latest_.has_value(); }

    std::string describe() const override {
        return "a KWin script loaded over D-Bus (org.kde.KWin /Scripting) that reports the windows' captions, "
               "resource classes, geometry and minimised state; windows on other virtual desktops are counted as "
               "open";
    }

private:
    void unload() {
        SessionBus::call(bus_.get(), kwinService, scriptingPath, scriptingInterface, "unloadScript", callTimeoutMs,
                         [&](sd_bus_message* m) { return sd_bus_message_append(m, "s", pluginName_.c_str()); });
    }

    static int received(sd_bus_message* message, void* data, sd_bus_error*) {
        auto* self = static_cast<KWinWindowSource*>(data);
        if (!sd_bus_message_is_method_call(message, KWinScript::interfaceName, KWinScript::member)) return 0;
        if (const auto json = SessionBus::readString(message))
            if (auto report = KWinScript::parseReport(*json)) self->latest_ = std::move(*report);
        return sd_bus_reply_method_return(message, "");
    }

    SessionBus::Bus bus_;
    std::string pluginName_;
    std::filesystem::path scriptPath_;
    bool loaded_ = false;
    std::optional<WindowReport> latest_;
};

}  // namespace

std::unique_ptr<WindowSource> kwinWindowSource() {
    auto source = std::make_unique<KWinWindowSource>();
    if (!source->start()) return nullptr;
    return source;
}

}  // namespace aimwise
