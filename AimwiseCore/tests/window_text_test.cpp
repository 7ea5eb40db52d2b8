// Window content against real desktops: on a private Xvfb with a session bus that starts the
// accessibility bus, a GTK window's exact text comes before any OCR; on a headless sway, where window
// places are unknown, the whole screen is taken with grim and any open denylisted window withholds it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "AimwiseCore/classifier/window_content.h"
#include "AimwiseCore/models/http_session.h"
#include "CaptureShared/signals/signals_reader.h"
#include "platform/desktop_helper.h"
#include "platform/vision_text_recognizer.h"
#include "tests/support/required_tools.h"
#include "tests/support/run_process.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/gtk_text_window.h"
#include "tests/support/session_bus.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/sway_display.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using namespace testing;

const std::string body = "Invoice 4471 due Friday\nCall the dentist";

// The helpers as a check runs them, an OCR helper that says `ocrText` and leaves a mark when it runs,
// and a model that describes any picture.
class LiveWindowContent : public ::testing::Test {
protected:
    void prepare(const std::string& ocrText) {
        environment_.set(DesktopHelper::helperEnvVar, AIMWISE_BINARY_DIR "/bin/aimwise-desktop");
        environment_.set("TMPDIR", (dir_ / "tmp").string());
        std::filesystem::create_directories(dir_ / "tmp");
        writeFile(dir_ / "ocr", "#!/bin/sh\ntouch " + (dir_ / "ocr-ran").string() + "\necho '" + ocrText + "'\n");
        ::chmod((dir_ / "ocr").c_str(), 0755);
        environment_.set(VisionTextRecognizer::helperEnvVar, (dir_ / "ocr").string());
        server_.setHandler("/v1/chat/completions", [](const ScriptedModelServer::Request&) {
            return ScriptedModelServer::Reply::json(200, ScriptedModelServer::completionBody("A budget in an editor."));
        });
    }
    // The capture agent's row for the front window: where the GTK window is when its process is
    // known, else a place unknown, as on wlroots.
    void front(const std::string& app, const std::string& title, std::optional<int64_t> pid = {}) {
        signals_.tick(FixtureTick{.tsMs = ++ts_, .frontmostApp = app, .frontmostBundleId = app});
        FixtureWindow window{.tsMs = ts_, .ownerName = app, .title = title, .x = 100, .y = 100, .width = 640, .height = 300};
        if (!pid) window.x = window.y = window.width = window.height = std::nullopt;
        signals_.window(window);
        if (pid) signals_.db().exec("UPDATE windows SET owner_pid = " + std::to_string(*pid) + " WHERE ts_ms = " + std::to_string(ts_));
    }
    SignalsReader reader() const { return SignalsReader::open(signals_.path()); }
    // With an accessibility budget that a loaded test machine meets.
    std::optional<WindowContentReader::Parts> capture() {
        return captureLiveWindowContentParts(reader(), std::nullopt,
                                             {"describe-model", "Describe.", server_.chatURL(), 150, 5'000},
                                             session_);
    }

    ScopedEnvironment environment_;
    TempDir dir_;
    SignalsFixture signals_{dir_ / "signals.sqlite"};
    ScriptedModelServer server_{ScriptedModelServer::Transport::tcp};
    HTTPSession session_;
    int64_t ts_ = 1000;
};

class WindowTextOnXvfb : public LiveWindowContent {
protected:
    void SetUp() override {
        if (auto missing = missingTools({"Xvfb", "dbus-daemon", "/usr/libexec/at-spi-bus-launcher", "/usr/bin/python3",
                                         "/usr/lib/python3/dist-packages/gi"}))
            GTEST_SKIP() << *missing;
        display_.emplace();
        // The accessibility bus puts its socket in the runtime directory: one each, so that tests
        // running side by side never meet on one bus.
        std::filesystem::create_directories(dir_ / "run");
        ::chmod((dir_ / "run").c_str(), 0700);
        environment_.set("XDG_RUNTIME_DIR", (dir_ / "run").string());
        bus_.emplace();
        environment_.set("DISPLAY", display_->name());
        environment_.set("DBUS_SESSION_BUS_ADDRESS", bus_->address());
        environment_.unset("AT_SPI_BUS_ADDRESS");
        environment_.unset("WAYLAND_DISPLAY");
        prepare("misread words");
    }
    // The newest tick names the GTK window's process as the front window's owner.
    void front(int64_t pid) { LiveWindowContent::front("Gtk_text_window.py", "Budget - Editor", pid); }
    // The window registers with the accessibility bus a moment after it is shown, and the bus, started
    // on demand, may still be settling after its first answer: wait for two answers in a row.
    bool published() {
        for (int i = 0, inRow = 0; i < 100; ++i) {
            inRow = std::holds_alternative<WindowText::Read>(WindowText::readActive(1000)) ? inRow + 1 : 0;
            if (inRow == 2) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }

    std::optional<XvfbDisplay> display_;
    std::optional<PrivateSessionBus> bus_;
};

class WindowContentOnSway : public LiveWindowContent {
protected:
    void SetUp() override {
        if (auto missing = SwayDisplay::missing()) GTEST_SKIP() << *missing;
        if (auto missing = missingTools({"grim"})) GTEST_SKIP() << *missing;
        sway_.emplace(dir_ / "sway.log");
        for (const auto& [key, value] : sway_->environment()) environment_.set(key, value);
        environment_.unset("DISPLAY");
        prepare("make -j2");
    }
    std::optional<SwayDisplay> sway_;
};

TEST_F(WindowContentOnSway, TheWholeScreenIsTakenWhenTheFrontWindowsPlaceIsUnknown) {
    const auto shell = sway_->terminal("alpha", "make -j2");
    front("alpha", "make -j2");
    const ProcessResult listing = runProcess(AIMWISE_BINARY_DIR "/bin/aimwise-desktop", {"windows"});
    EXPECT_EQ(listing.standardOutput, "-\t-\t-\t-\talpha\talpha\n") << listing.standardError;

    ASSERT_EQ(WindowContentReader::frontmostWindowBounds(reader()), std::nullopt);
    EXPECT_EQ(contentMustBeWithheldForDenylist(reader()), std::nullopt);
    const auto parts = capture();
    ASSERT_TRUE(parts);
    EXPECT_EQ(parts->ocrText, "make -j2\n");
    EXPECT_EQ(parts->textSource, WindowContentReader::TextSource::ocr);
    const std::string url = server_.requests("/v1/chat/completions").at(0).json()["messages"][0]["content"][1]["image_url"]["url"];
    // A PNG's signature and header, 1280 by 800: the whole output.
    EXPECT_EQ(url.substr(url.find(',') + 1, 32), "iVBORw0KGgoAAAANSUhEUgAABQAAAAMg");
    EXPECT_EQ(std::filesystem::directory_iterator(dir_ / "tmp"), std::filesystem::directory_iterator());
}

TEST_F(WindowContentOnSway, AnyOpenDenylistedWindowWithholdsAndAFrontOneIsNamedFirst) {
    const auto shell = sway_->terminal("alpha", "notes");
    front("alpha", "notes");
    {
        const auto vault = sway_->terminal("KeePassXC", "Passwords.kdbx");
        front("alpha", "notes");
        EXPECT_EQ(contentMustBeWithheldForDenylist(reader()), ContentWithheldReason::anotherDenylistedAppWindowVisible);
        front("KeePassXC", "Passwords.kdbx");
        EXPECT_EQ(contentMustBeWithheldForDenylist(reader()), ContentWithheldReason::frontmostAppDenylisted);
    }
    // Closed: nothing holds the picture back any more.
    front("alpha", "notes");
    for (int i = 0; i < 50 && contentMustBeWithheldForDenylist(reader()); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(contentMustBeWithheldForDenylist(reader()), std::nullopt);

    // A compositor that cannot be reached lists nothing, and then nothing can be ruled out.
    environment_.set("WAYLAND_DISPLAY", "wayland-absent");
    EXPECT_THROW(contentMustBeWithheldForDenylist(reader()), WindowListUnavailable);
}


TEST_F(WindowTextOnXvfb, TheFrontGtkWindowsTextComesFromTheAccessibilityBusAndTheOCRHelperNeverRuns) {
    GtkTextWindow window(display_->name(), bus_->address(), "Budget - Editor", "Quarterly budget review", body);
    ASSERT_TRUE(published());
    front(window.pid());

    const auto parts = capture();
    ASSERT_TRUE(parts);
    EXPECT_EQ(parts->ocrText, "Quarterly budget review\n" + body);
    EXPECT_EQ(parts->textSource, WindowContentReader::TextSource::accessibility);
    EXPECT_EQ(parts->description, "A budget in an editor.");
    EXPECT_FALSE(std::filesystem::exists(dir_ / "ocr-ran"));
    EXPECT_EQ(std::filesystem::directory_iterator(dir_ / "tmp"), std::filesystem::directory_iterator());

    // The helper's own answer: the window, its process, and never the password field.
    const auto read = std::get<WindowText::Read>(WindowText::readActive(5000));
    EXPECT_EQ(read, (WindowText::Read{"gtk_text_window.py", "Budget - Editor", window.pid(), true,
                                      "Quarterly budget review\n" + body}));
}

TEST_F(WindowTextOnXvfb, AnotherProcessesWindowIsNeverTakenForTheFrontOneAndOCRReadsInstead) {
    GtkTextWindow window(display_->name(), bus_->address(), "Budget - Editor", "Quarterly budget review", body);
    ASSERT_TRUE(published());
    front(window.pid() + 1);

    const auto parts = capture();
    ASSERT_TRUE(parts);
    EXPECT_EQ(parts->ocrText, "misread words\n");
    EXPECT_EQ(parts->textSource, WindowContentReader::TextSource::ocr);
    EXPECT_TRUE(std::filesystem::exists(dir_ / "ocr-ran"));
}

// --- Which accessible window may speak for the front one ------------------------------------------

TEST(AccessibleTextBelongsTo, TheProcessDecidesWhenBothAreKnownElseTheTitleOrTheName) {
    using WindowContentReader::Target;
    struct Case {
        WindowText::Read read;
        Target target;
        bool belongs;
    };
    const Target editor{{}, "Gedit", "gedit", "notes.md", 42};
    const Target unknownPid{{}, "org.gnome.TextEditor", "org.gnome.TextEditor", "notes.md", {}};
    const std::vector<Case> cases{
        {{"gedit", "other title", 42}, editor, true},
        {{"gedit", "notes.md", 43}, editor, false},
        {{"gnome-text-editor", "notes.md", 7}, unknownPid, true},
        {{"org.gnome.texteditor", "elsewhere", 7}, unknownPid, true},
        {{"firefox", "elsewhere", 7}, unknownPid, false},
        {{"", "", {}}, unknownPid, false},
        // A password manager's text never stands in, whoever is in front.
        {{"KeePassXC", "notes.md", 42}, editor, false},
    };
    for (const Case& c : cases)
        EXPECT_EQ(WindowContentReader::accessibleTextBelongsTo(c.read, c.target), c.belongs)
            << c.read.application << " / " << c.read.title;
}

// --- The helper's answer as text ------------------------------------------------------------------

TEST(WindowTextFormat, RoundTripsAndNoCutOrDamagedAnswerIsTakenForOne) {
    const WindowText::Read read{"gedit", "notes\tmd\nx", 42, false, "line one\n\nline\ttwo\n"};
    const std::string text = WindowText::format(read);
    WindowText::Read expected = read;
    expected.title = "notes md x";
    EXPECT_EQ(WindowText::parse(text), expected);
    // Every cut before the text begins is refused; a cut inside the text is a shorter text.
    const size_t header = text.find("\n\n") + 2;
    for (size_t n = 0; n < header; ++n) EXPECT_EQ(WindowText::parse(text.substr(0, n)), std::nullopt) << n;
    EXPECT_EQ(WindowText::parse("pid\t42\n"), std::nullopt);
    EXPECT_EQ(WindowText::parse(text.substr(0, header - 1) + "x"), std::nullopt);
    // A damaged pid refuses the answer; an absent one, or text that is not UTF-8, does not.
    for (const std::string pid : {"abc", "-3", "", "42"})
        EXPECT_EQ(WindowText::parse("application\ta\ntitle\tb\npid\t" + pid + "\ncomplete\t1\n\n\xff").has_value(),
                  pid.empty() || pid == "42") << pid;
}

}  // namespace
}  // namespace aimwise
