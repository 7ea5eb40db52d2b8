// The front window's exact text from the accessibility bus before any OCR: against a real GTK window
// on a private Xvfb, with a private session bus that starts the accessibility bus on demand.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "AimwiseCore/classifier/window_content.h"
#include "AimwiseCore/models/http_session.h"
#include "CaptureShared/signals/signals_reader.h"
#include "platform/desktop_helper.h"
#include "platform/vision_text_recognizer.h"
#include "platform/window_text.h"
#include "tests/support/required_tools.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/session_bus.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using namespace testing;

const std::string body = "Invoice 4471 due Friday\nCall the dentist";

class WindowTextOnXvfb : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto missing = missingTools({"Xvfb", "dbus-daemon", "/usr/libexec/at-spi-bus-launcher", "/usr/bin/python3",
                                         "/usr/lib/python3/dist-packages/gi"}))
            GTEST_SKIP() << *missing;
        display_.emplace();
        bus_.emplace();
        environment_.set("DISPLAY", display_->name());
        environment_.set("DBUS_SESSION_BUS_ADDRESS", bus_->address());
        environment_.unset("AT_SPI_BUS_ADDRESS");
        environment_.unset("WAYLAND_DISPLAY");
        environment_.set(DesktopHelper::helperEnvVar, AIMWISE_BINARY_DIR "/bin/aimwise-desktop");
        environment_.set("TMPDIR", (dir_ / "tmp").string());
        std::filesystem::create_directories(dir_ / "tmp");
        // An OCR helper that says when it runs.
        writeFile(dir_ / "ocr", "#!/bin/sh\ntouch " + (dir_ / "ocr-ran").string() + "\necho 'misread words'\n");
        ::chmod((dir_ / "ocr").c_str(), 0755);
        environment_.set(VisionTextRecognizer::helperEnvVar, (dir_ / "ocr").string());
        server_.setHandler("/v1/chat/completions", [](const ScriptedModelServer::Request&) {
            return ScriptedModelServer::Reply::json(200, ScriptedModelServer::completionBody("A budget in an editor."));
        });
    }
    // The newest tick names the GTK window's process as the front window's owner.
    void front(int64_t pid) {
        signals_.tick(FixtureTick{.tsMs = ++ts_, .frontmostApp = "Gtk_text_window.py", .frontmostBundleId = "Gtk_text_window.py"});
        signals_.window(FixtureWindow{.tsMs = ts_, .ownerName = "Gtk_text_window.py", .title = "Budget - Editor",
                                      .x = 100, .y = 100, .width = 640, .height = 300});
        signals_.db().exec("UPDATE windows SET owner_pid = " + std::to_string(pid) + " WHERE ts_ms = " + std::to_string(ts_));
    }
    // The window registers with the accessibility bus a moment after it is shown.
    bool published() {
        for (int i = 0; i < 100; ++i) {
            if (std::holds_alternative<WindowText::Read>(WindowText::readActive(1000))) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }
    std::optional<WindowContentReader::Parts> capture() {
        return captureLiveWindowContentParts(SignalsReader::open(signals_.path()), std::nullopt,
                                             {"describe-model", "Describe.", server_.chatURL(), 150}, session_);
    }

    ScopedEnvironment environment_;
    std::optional<XvfbDisplay> display_;
    std::optional<PrivateSessionBus> bus_;
    TempDir dir_;
    SignalsFixture signals_{dir_ / "signals.sqlite"};
    ScriptedModelServer server_{ScriptedModelServer::Transport::tcp};
    HTTPSession session_;
    int64_t ts_ = 1000;
};

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
    const auto read = std::get<WindowText::Read>(WindowText::readActive());
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

TEST_F(WindowTextOnXvfb, WithoutAnAccessibleWindowTheHelperSaysSoAndOCRReads) {
    EXPECT_EQ(std::get<WindowText::Nothing>(WindowText::readActive()).reason, "no accessible window is active");
    environment_.set("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (dir_ / "no-bus").string());
    EXPECT_EQ(std::get<WindowText::Nothing>(WindowText::readActive()).reason, "the accessibility bus is not running");
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
    for (const std::string& damaged : std::vector<std::string>{
             "pid\t42\n", text.substr(0, header - 1) + "x", "application\ta\ntitle\tb\npid\tabc\ncomplete\t1\n\n",
             "application\ta\ntitle\tb\npid\t-3\ncomplete\t1\n\n",
             "application\ta\ntitle\tb\npid\t\ncomplete\t1\n\n\xff\xfe"})
        EXPECT_EQ(WindowText::parse(damaged).has_value(), damaged.ends_with("\xff\xfe")) << damaged;
}

}  // namespace
}  // namespace aimwise
