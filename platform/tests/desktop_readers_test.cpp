// The Wayland readers' D-Bus parts against fake desktop services on a private session bus: the KWin
// script run under node by a fake KWin, GNOME's focused-window extension and idle monitor, and the
// screenshot portal. None of these desktops runs here; what they would say is played.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <regex>
#include <thread>

#include <nlohmann/json.hpp>

#include "platform/desktop_helper.h"
#include "platform/desktop_session.h"
#include "platform/linux/screenshot_capture_wayland.h"
#include "tests/support/required_tools.h"
#include "tests/support/run_process.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/session_bus.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using namespace testing;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Handler = std::function<int(sd_bus_message*)>;

// Owns `name` on the bus and answers every method call to the given paths on a thread of its own.
class FakeService {
public:
    FakeService(const std::string& address, const char* name, std::map<std::string, Handler> paths)
        : paths_(std::move(paths)) {
        sd_bus_new(&bus_);
        sd_bus_set_address(bus_, address.c_str());
        sd_bus_set_bus_client(bus_, 1);
        if (sd_bus_start(bus_) < 0 || sd_bus_request_name(bus_, name, 0) < 0) throw std::runtime_error("fake bus");
        for (auto& [path, handler] : paths_) sd_bus_add_object(bus_, nullptr, path.c_str(), &FakeService::dispatch, &handler);
        thread_ = std::thread([this] {
            while (!stop_)
                if (sd_bus_process(bus_, nullptr) == 0) sd_bus_wait(bus_, 50'000);
        });
    }
    ~FakeService() { stop_ = true; thread_.join(); sd_bus_flush_close_unref(bus_); }

private:
    static int dispatch(sd_bus_message* m, void* handler, sd_bus_error*) { return (*static_cast<Handler*>(handler))(m); }
    sd_bus* bus_ = nullptr;
    std::map<std::string, Handler> paths_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class DesktopReaders : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto missing = missingTools({"dbus-daemon"})) GTEST_SKIP() << *missing;
        bus_.emplace();
        environment_.set("DBUS_SESSION_BUS_ADDRESS", bus_->address());
        environment_.set("XDG_RUNTIME_DIR", dir_.path().string());
        environment_.unset("WAYLAND_DISPLAY");
        environment_.set(DesktopHelper::helperEnvVar, AIMWISE_BINARY_DIR "/bin/aimwise-desktop");
    }
    static bool called(sd_bus_message* m, const char* member) { return sd_bus_message_is_method_call(m, nullptr, member); }
    ScopedEnvironment environment_;
    TempDir dir_;
    std::optional<PrivateSessionBus> bus_;
    std::mutex mutex_;
    std::vector<std::string> calls_;
};

TEST(DesktopKindFor, TheSessionsVariablesChooseTheReader) {
    using enum DesktopKind;
    // Wayland display, desktop, and the reader; an empty display falls to the session type.
    const std::vector<std::tuple<std::string, std::string, DesktopKind>> cases{
        {"", "KDE", x11}, {"wayland-0", "sway", wlroots}, {"wayland-0", "KDE", kde}, {"wayland-0", "ubuntu:GNOME", gnome},
        {"wayland-0", "GNOME-Classic:GNOME", gnome}, {"wayland-0", "KDEish", wlroots}};
    for (const auto& [display, desktop, kind] : cases)
        EXPECT_EQ(desktopKindFor({{"WAYLAND_DISPLAY", display}, {"XDG_CURRENT_DESKTOP", desktop}}), kind) << desktop;
    EXPECT_EQ(desktopKindFor({{"XDG_SESSION_TYPE", "wayland"}, {"XDG_CURRENT_DESKTOP", "Hyprland"}}), wlroots);
}

TEST_F(DesktopReaders, AKWinScriptRunsReportsTheWindowsAndIsUnloaded) {
    // The script is JavaScript; node plays KWin's script engine.
    if (auto missing = missingTools({"/usr/bin/node"})) GTEST_SKIP() << *missing;
    for (const char* flavour : {"6", "5"}) {
        SCOPED_TRACE(flavour);
        std::string script;
        const Handler scripting = [&](sd_bus_message* m) {
            std::lock_guard lock(mutex_);
            calls_.push_back(sd_bus_message_get_member(m));
            if (called(m, "loadScript")) {
                const char* path = nullptr;
                sd_bus_message_read(m, "s", &path);
                script = path;
                return sd_bus_reply_method_return(m, "i", 7);
            }
            if (called(m, "start") || called(m, "run")) {
                const ProcessResult run = runProcess("/usr/bin/node", {AIMWISE_SOURCE_DIR "/platform/tests/kwin_script_harness.js", script, flavour});
                // Each callDBus the script made, forwarded as KWin would make it.
                for (size_t at = 0, end; (end = run.standardOutput.find('\n', at)) != std::string::npos; at = end + 1) {
                    const auto call = nlohmann::json::parse(run.standardOutput.substr(at, end - at));
                    const auto text = [&](int i) { return call[i].get<std::string>(); };
                    sd_bus_call_method_async(sd_bus_message_get_bus(m), nullptr, text(0).c_str(), text(1).c_str(), text(2).c_str(),
                                             text(3).c_str(), nullptr, nullptr, "s", text(4).c_str());
                }
            }
            return sd_bus_reply_method_return(m, called(m, "unloadScript") ? "b" : "", 1);
        };
        // KWin 6 runs the script at its own object /Scripting/Script7; KWin 5 has none and answers `start`.
        std::map<std::string, Handler> paths{{"/Scripting", scripting}};
        if (std::string(flavour) == "6") paths.emplace("/Scripting/Script7", scripting);
        FakeService kwin(bus_->address(), "org.kde.KWin", std::move(paths));
        auto session = DesktopSession::open(DesktopKind::kde, processEnvironment(), "");
        ASSERT_TRUE(session);
        std::optional<DesktopSnapshot> snapshot;
        for (int i = 0; i < 100 && !(snapshot && snapshot->windows.size() == 2 && snapshot->windows[0].title == "Passwords.kdbx"); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            snapshot = session->sample(i);
        }
        ASSERT_TRUE(snapshot);
        // Front to back, the minimised browser left out.
        const DesktopWindow kate{3, "kate", "kate", 101, "notes.md - Kate", 0, 40, 800, 600};
        EXPECT_EQ(snapshot->front, kate);
        EXPECT_EQ(snapshot->windows,
                  (std::vector<DesktopWindow>{{1, "KeePassXC", "KeePassXC", 103, "Passwords.kdbx", 300, 40, 800, 600}, kate}));
        EXPECT_THAT(session->describe(), HasSubstr("through a KWin script loaded over D-Bus"));
        session.reset();
        std::lock_guard lock(mutex_);
        EXPECT_EQ(calls_.front(), "unloadScript");
        EXPECT_EQ(calls_.back(), "unloadScript");
        EXPECT_FALSE(std::filesystem::exists(script)) << "the script file was left behind";
        calls_.clear();
    }
}

TEST_F(DesktopReaders, GnomeTakesTheFocusedWindowFromTheExtensionAndIdleTimeFromMutter) {
    FakeService shell(bus_->address(), "org.gnome.Shell", {{"/org/gnome/shell/extensions/FocusedWindow", [](sd_bus_message* m) {
        return sd_bus_reply_method_return(m, "s", R"({"title":"Inbox - Geary","wm_class":"Geary","wm_class_instance":"geary",
            "pid":4242,"x":10,"y":20,"width":1000,"height":700,"focus":true})");
    }}});
    FakeService mutter(bus_->address(), "org.gnome.Mutter.IdleMonitor", {{"/org/gnome/Mutter/IdleMonitor/Core",
        [](sd_bus_message* m) { return sd_bus_reply_method_return(m, "t", uint64_t{4200}); }}});
    // The accessibility bus answers that it cannot start.
    FakeService a11y(bus_->address(), "org.a11y.Bus", {{"/org/a11y/bus", [](sd_bus_message* m) {
        return sd_bus_reply_method_errorf(m, "org.freedesktop.DBus.Error.Failed", "no");
    }}});
    auto session = DesktopSession::open(DesktopKind::gnome, processEnvironment(), "");
    ASSERT_TRUE(session);
    const auto snapshot = session->sample(0);
    ASSERT_TRUE(snapshot && snapshot->front);
    const DesktopWindow geary{0, "Geary", "Geary", 4242, "Inbox - Geary", 10, 20, 1000, 700};
    EXPECT_EQ(*snapshot->front, geary);
    EXPECT_EQ(snapshot->windows, std::vector<DesktopWindow>{geary});
    EXPECT_EQ(snapshot->idleSec, 4.2);
    EXPECT_FALSE(snapshot->pointerKnown);
    EXPECT_EQ(session->describe(), "reading the Wayland desktop (GNOME) through the Focused Window D-Bus extension for the "
                                   "focused window's title, class and geometry; the accessibility bus is not running, so only "
                                   "the focused window is known. Idle time comes from org.gnome.Mutter.IdleMonitor; the "
                                   "pointer's position is not visible to clients, so keyboard and pointer idle time are not "
                                   "told apart.");
}

TEST_F(DesktopReaders, ThePortalsPictureIsTakenAndAPortalThatWouldAskIsLeftAloneForHours) {
    environment_.set("XDG_CURRENT_DESKTOP", "GNOME");
    environment_.set("WAYLAND_DISPLAY", "wayland-none");
    std::atomic<int> requests{0};
    std::atomic<uint32_t> version{2}, answer{0};
    const auto picture = dir_ / "Screenshot from today.png";
    FakeService portal(bus_->address(), "org.freedesktop.portal.Desktop", {{"/org/freedesktop/portal/desktop", [&](sd_bus_message* m) {
        if (called(m, "Get")) return sd_bus_reply_method_return(m, "v", "u", version.load());
        ++requests;
        const char *parent = nullptr, *key = nullptr, *token = nullptr;
        int interactive = 1, modal = 1;
        sd_bus_message_read(m, "sa{sv}", &parent, 3, &key, "s", &token, &key, "b", &interactive, &key, "b", &modal);
        EXPECT_FALSE(interactive || modal) << "the portal was asked to show a dialog";
        std::string sender = sd_bus_message_get_sender(m) + 1;
        std::replace(sender.begin(), sender.end(), '.', '_');
        const std::string handle = "/org/freedesktop/portal/desktop/request/" + sender + "/" + token;
        writeFile(picture, "\x89PNG picture");
        sd_bus_reply_method_return(m, "o", handle.c_str());
        const std::string uri = "file://" + std::regex_replace(picture.string(), std::regex(" "), "%20");
        return sd_bus_emit_signal(sd_bus_message_get_bus(m), handle.c_str(), "org.freedesktop.portal.Request", "Response",
                                  "ua{sv}", answer.load(), 1, "uri", "s", uri.c_str());
    }}});
    const auto failure = [&] {
        const auto result = ScreenshotCapture::captureScreen(dir_ / "shot.png", 5.0);
        const auto* failed = std::get_if<ScreenshotCapture::Failed>(&result);
        return failed ? failed->reason : std::string("no failure");
    };
    ASSERT_EQ(failure(), "no failure");
    EXPECT_EQ(readFile(dir_ / "shot.png"), "\x89PNG picture");
    EXPECT_FALSE(std::filesystem::exists(picture)) << "the portal's copy was left in the person's folder";

    // Declined once: no request again while the refusal holds, and the reason says why.
    answer = 1;
    for (int i = 0; i < 3; ++i)
        EXPECT_THAT(failure(), HasSubstr("the screenshot was declined; window content is skipped until "));
    EXPECT_EQ(requests, 2);
    // An old portal only has the dialog, and is not even asked.
    std::filesystem::remove(ScreenshotCapture::portalDeclinedMarker());
    version = 1;
    EXPECT_THAT(failure(), StartsWith("the desktop portal's Screenshot (version 1) only takes pictures the person "
                                      "confirms in a dialog; window content is skipped until "));
    EXPECT_EQ(requests, 2);
}

}  // namespace
}  // namespace aimwise
