#include "tests/support/sway_display.h"

#include <unistd.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/support/required_tools.h"
#include "tests/support/run_process.h"
#include "tests/support/temp_dir.h"

namespace aimwise::testing {
namespace {

constexpr uid_t nobody = 65534;

std::string swaymsg() { return BoundedProcess::findInPath("swaymsg").value_or("/usr/bin/swaymsg"); }

bool waitFor(const std::function<bool()>& condition, int timeoutMs) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < end) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return condition();
}

}  // namespace

std::optional<std::string> SwayDisplay::missing() { return missingTools({"sway", swaymsg(), "foot", "setpriv"}); }

SwayDisplay::SwayDisplay(std::filesystem::path log) {
    std::string pattern = "/tmp/aimwise-sway-XXXXXX";
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    directory_ = pattern;
    writeFile(directory_ / "config", "output HEADLESS-1 resolution 1280x800\n");
    std::vector<std::string> argv{"sway", "-c", (directory_ / "config").string()};
    if (::geteuid() == 0) {
        for (const auto& path : {directory_, directory_ / "config"})
            if (::chown(path.c_str(), nobody, nobody) != 0) throw std::runtime_error("chown failed");
        argv.insert(argv.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    }
    server_ = std::make_unique<ChildProcess>(
        argv, ChildProcess::Options{.environment = {{"XDG_RUNTIME_DIR", directory_.string()}, {"WLR_BACKENDS", "headless"},
                                                    {"WLR_LIBINPUT_NO_DEVICES", "1"}, {"WLR_RENDERER", "pixman"},
                                                    {"WAYLAND_DISPLAY", ""}, {"DISPLAY", ""}},
                                    .standardError = log});
    const bool ready = waitFor(
        [&] {
            for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
                const std::string name = entry.path().filename().string();
                if (name.starts_with("sway-ipc.")) socket_ = entry.path().string();
                if (name.starts_with("wayland-") && !name.ends_with(".lock")) waylandDisplay_ = name;
            }
            return !socket_.empty() && !waylandDisplay_.empty() && command("nop");
        },
        10000);
    if (!ready)
        throw std::runtime_error("headless sway did not start; is sway installed (scripts/setup)? " +
                                 (log.empty() ? std::string() : readFile(log)));
}

SwayDisplay::~SwayDisplay() {
    server_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::map<std::string, std::string> SwayDisplay::environment() const {
    return {{"XDG_RUNTIME_DIR", directory_.string()}, {"WAYLAND_DISPLAY", waylandDisplay_}, {"SWAYSOCK", socket_},
            {"XDG_CURRENT_DESKTOP", "sway"}, {"XDG_SESSION_TYPE", "wayland"}};
}

std::unique_ptr<ChildProcess> SwayDisplay::terminal(const std::string& appId, const std::string& title,
                                                   const std::vector<std::string>& command) const {
    std::vector<std::string> argv{"foot", "--app-id", appId, "--title", title};
    argv.insert(argv.end(), command.begin(), command.end());
    auto process = std::make_unique<ChildProcess>(
        argv,
        ChildProcess::Options{.environment = environment(), .standardError = directory_ / ("foot-" + appId + ".log")});
    const bool listed = waitFor(
        [&] {
            const ProcessResult tree = runProcess(swaymsg(), {"-s", socket_, "-t", "get_tree"});
            return tree.standardOutput.find("\"app_id\": \"" + appId + "\"") != std::string::npos;
        },
        10000);
    if (!listed) throw std::runtime_error("foot did not open a window; is foot installed (scripts/setup)?");
    return process;
}

bool SwayDisplay::command(const std::string& text) const {
    return runProcess(swaymsg(), {"-s", socket_, text}, {.timeoutSec = 10}).exitStatus == 0;
}

}  // namespace aimwise::testing
