// Window content: the denylist and its overlap rule, the description request against the scripted
// model server, and the whole capture path on a private Xvfb display with real windows.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <memory>

#include <fmt/format.h>

#include "AimwiseCore/classifier/window_content.h"
#include "AimwiseCore/models/http_session.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "CaptureShared/signals/signals_reader.h"
#include "platform/vision_text_recognizer.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/temp_dir.h"
#include "tests/support/x_display.h"

namespace aimwise {
namespace {

using testing::FixtureTick;
using testing::FixtureWindow;
using testing::ScopedEnvironment;
using testing::ScriptedModelServer;
using testing::SignalsFixture;
using testing::TempDir;
using testing::TestWindow;
using testing::XvfbDisplay;

const std::string chatPath = "/v1/chat/completions";

int64_t wallClockMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// --- The denylist -------------------------------------------------------------------------------

TEST(Denylist, BuiltInNamesAndIdentifiersMatchExactly) {
    EXPECT_TRUE(Denylist::excludes("1Password", "", {}));
    EXPECT_TRUE(Denylist::excludes("Keychain Access", "", {}));
    EXPECT_TRUE(Denylist::excludes("Vault", "com.apple.SecurityAgent", {}));
    EXPECT_FALSE(Denylist::excludes("keychain access", "", {}));
    EXPECT_FALSE(Denylist::excludes("Vault", "com.apple.securityagent", {}));
    EXPECT_FALSE(Denylist::excludes("Firefox", "firefox", {}));
    EXPECT_FALSE(Denylist::excludes("", "", {}));
}

TEST(Denylist, LinuxWindowClassesMatchInEitherFieldInAnyCase) {
    EXPECT_TRUE(Denylist::excludes("keepassxc", "keepassxc", {}));
    EXPECT_TRUE(Denylist::excludes("Firefox", "KeePass2", {}));
    EXPECT_TRUE(Denylist::excludes("Gcr-prompter", "", {}));
    EXPECT_TRUE(Denylist::excludes("Polkit-gnome-authentication-agent-1", "x", {}));
    EXPECT_FALSE(Denylist::excludes("keepassxc-browser-helper", "", {}));
}

TEST(Denylist, TheEnvironmentCanOnlyAddEntries) {
    const Environment environment{{Denylist::extensionEnvVar, " Signal , ,ZOOM,,"}};
    const std::vector<std::string> extension = Denylist::extension(environment);
    EXPECT_EQ(extension, (std::vector<std::string>{"signal", "zoom"}));
    EXPECT_TRUE(Denylist::excludes("Signal", "signal", extension));
    EXPECT_TRUE(Denylist::excludes("", "Zoom", extension));
    EXPECT_FALSE(Denylist::excludes("Signal", "signal", {}));
    EXPECT_TRUE(Denylist::excludes("Bitwarden", "", extension));
    EXPECT_TRUE(Denylist::extension({}).empty());
}

// --- Visibility over the captured rectangle -----------------------------------------------------

const ScreenRect captured{100, 100, 400, 300};

std::optional<Denylist::AppIdentity> visible(const std::vector<OnScreenWindowRecord>& windows,
                                             const std::string& frontName = "Notes",
                                             const std::string& frontId = "Notes") {
    return OnScreenWindowVisibility::deniedAppVisibleOverCapturedBounds(windows, captured, frontName, frontId, {});
}

TEST(OnScreenWindowVisibility, OneOverlappingPointCountsAndASharedEdgeDoesNot) {
    EXPECT_EQ(visible({{"Bitwarden", "bitwarden", {499, 100, 100, 100}}}),
              (Denylist::AppIdentity{"Bitwarden", "bitwarden"}));
    EXPECT_EQ(visible({{"Bitwarden", "bitwarden", {0, 0, 101, 101}}}), (Denylist::AppIdentity{"Bitwarden", "bitwarden"}));
    for (ScreenRect touching : {ScreenRect{500, 100, 100, 100}, ScreenRect{0, 100, 100, 100},
                                ScreenRect{100, 0, 100, 100}, ScreenRect{100, 400, 100, 100}})
        EXPECT_FALSE(visible({{"Bitwarden", "bitwarden", touching}})) << touching.x << "," << touching.y;
}

TEST(OnScreenWindowVisibility, TheFrontmostAppsOwnWindowsNeverCountAsAnother) {
    const std::vector<OnScreenWindowRecord> windows{{"KeePassXC", "KeePassXC", {150, 150, 50, 50}}};
    EXPECT_FALSE(visible(windows, "KeePassXC", "KeePassXC"));
    // Same name under another identifier is another app.
    EXPECT_TRUE(visible(windows, "KeePassXC", "org.keepassxc.keepassxc"));
}

TEST(OnScreenWindowVisibility, TheFirstDeniedOverlappingWindowInOrderIsTheAnswer) {
    const std::vector<OnScreenWindowRecord> windows{
        {"Firefox", "Firefox", {120, 120, 100, 100}},
        {"1Password", "1password", {900, 900, 100, 100}},
        {"Bitwarden", "Bitwarden", {120, 120, 100, 100}},
        {"KeePassXC", "KeePassXC", {120, 120, 100, 100}},
    };
    EXPECT_EQ(visible(windows), (Denylist::AppIdentity{"Bitwarden", "Bitwarden"}));
}

// --- The description request --------------------------------------------------------------------

class DescribeImage : public ::testing::Test {
protected:
    WindowContentReader::Config config() const {
        return {"describe-model", "Describe this.", server_.chatURL(), 150};
    }
    ScriptedModelServer server_{ScriptedModelServer::Transport::tcp};
    HTTPSession session_;
};

TEST_F(DescribeImage, SendsOneUserMessageWithThePromptAndThePNGAndReturnsTheText) {
    server_.enqueue(chatPath, ScriptedModelServer::Reply::json(200, ScriptedModelServer::completionBody(
                                                                         " Editing a spreadsheet. ")));
    EXPECT_EQ(WindowContentReader::describeImage("iVBORw0KGgo=", config(), session_), " Editing a spreadsheet. ");

    const auto requests = server_.requests(chatPath);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    ASSERT_NE(requests[0].header("Content-Type"), nullptr);
    EXPECT_EQ(*requests[0].header("Content-Type"), "application/json");
    const auto body = requests[0].json();
    EXPECT_EQ(body.dump(), R"({"model":"describe-model","messages":[{"role":"user","content":[)"
                           R"({"type":"text","text":"Describe this."},)"
                           R"({"type":"image_url","image_url":{"url":"data:image/png;base64,iVBORw0KGgo="}}]}],)"
                           R"("stream":false,"max_tokens":150,"chat_template_kwargs":{"enable_thinking":false}})");
}

TEST_F(DescribeImage, AReplyWithoutAssistantTextIsAResponseShapeError) {
    const std::string noContent = R"({"choices":[{"message":{"role":"assistant"}}]})";
    for (const std::string& reply : {noContent, std::string("not json at all"), std::string(R"({"choices":[]})")}) {
        server_.enqueue(chatPath, ScriptedModelServer::Reply::json(200, reply));
        try {
            WindowContentReader::describeImage("AAAA", config(), session_);
            ADD_FAILURE() << "no error for " << reply;
        } catch (const WindowContentReader::ReaderError& error) {
            EXPECT_EQ(error.kind(), WindowContentReader::ReaderError::Kind::responseShape);
            EXPECT_EQ(error.description(), "describe response: " + reply);
        }
    }
    server_.enqueue(chatPath, ScriptedModelServer::Reply::json(200, ScriptedModelServer::completionBody("")));
    EXPECT_EQ(WindowContentReader::describeImage("AAAA", config(), session_), "");
}

TEST(WindowContentBase64, EncodesWithPadding) {
    EXPECT_EQ(WindowContentReader::base64(""), "");
    EXPECT_EQ(WindowContentReader::base64("f"), "Zg==");
    EXPECT_EQ(WindowContentReader::base64("fo"), "Zm8=");
    EXPECT_EQ(WindowContentReader::base64("foo"), "Zm9v");
    EXPECT_EQ(WindowContentReader::base64(std::string("\x89PNG\r\n\x1a\n", 8)), "iVBORw0KGgo=");
}

// --- The capture path on a real display ---------------------------------------------------------

// A display, a scripted model server, a private TMPDIR to see every screenshot file, and a signals
// file whose newest tick has "Notes" in front at `notesRect`.
class WindowContentOnXvfb : public ::testing::Test {
protected:
    static void SetUpTestSuite() { display_ = std::make_unique<XvfbDisplay>(); }
    static void TearDownTestSuite() { display_.reset(); }

    void SetUp() override {
        std::filesystem::create_directories(tmp());
        environment_.set("DISPLAY", display_->name());
        environment_.set("TMPDIR", tmp().string());
        environment_.set(VisionTextRecognizer::helperEnvVar, testing::ocrHelperProgram());
        environment_.unset(Denylist::extensionEnvVar);
        signals_.tick(FixtureTick{.tsMs = 5000, .frontmostApp = "Notes", .frontmostBundleId = "Notes"});
        signals_.window(FixtureWindow{.tsMs = 5000, .ownerName = "Notes", .title = "Budget", .x = notesRect.x,
                                      .y = notesRect.y, .width = notesRect.width, .height = notesRect.height});
    }

    std::filesystem::path tmp() const { return dir_ / "tmp"; }
    std::vector<std::filesystem::path> leftovers() const {
        std::vector<std::filesystem::path> found;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(tmp())) found.push_back(entry.path());
        return found;
    }
    WindowContentReader::Config config() const { return {"describe-model", "Describe.", server_.chatURL(), 150}; }
    SignalsReader reader() const { return SignalsReader::open(signals_.path()); }
    void answer(const std::string& description) {
        server_.enqueue(chatPath,
                        ScriptedModelServer::Reply::json(200, ScriptedModelServer::completionBody(description)));
    }

    static constexpr ScreenRect notesRect{100, 100, 640, 200};
    static std::unique_ptr<XvfbDisplay> display_;
    ScopedEnvironment environment_;
    TempDir dir_;
    SignalsFixture signals_{dir_ / "signals.sqlite"};
    ScriptedModelServer server_{ScriptedModelServer::Transport::tcp};
    HTTPSession session_;
};
std::unique_ptr<XvfbDisplay> WindowContentOnXvfb::display_;

TEST_F(WindowContentOnXvfb, ReadsTheTextDescribesThePictureAndDeletesIt) {
    TestWindow notes(*display_, "Notes", notesRect, {"Quarterly budget review", "Invoice 4471 due Friday"}, 20);
    // While the model is asked, the picture exists, private to this account; afterwards it is gone.
    std::vector<std::string> seenModes;
    server_.setHandler(chatPath, [&](const ScriptedModelServer::Request&) {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(tmp())) {
            struct stat st {};
            ::stat(entry.path().c_str(), &st);
            seenModes.push_back(fmt::format("{} {:o}", entry.path().filename().string().substr(0, 15), st.st_mode & 0777));
        }
        return ScriptedModelServer::Reply::json(200, ScriptedModelServer::completionBody("Reviewing a budget."));
    });

    ASSERT_EQ(WindowContentReader::frontmostWindowBounds(reader()), notesRect);
    const int64_t before = wallClockMs();
    const auto parts = captureLiveWindowContentParts(reader(), std::nullopt, config(), session_);
    ASSERT_TRUE(parts);
    EXPECT_EQ(parts->ocrText, "Quarterly budget review\nInvoice 4471 due Friday");
    EXPECT_EQ(parts->description, "Reviewing a budget.");
    EXPECT_GE(parts->screenshotAtMs, before);
    EXPECT_LE(parts->screenshotAtMs, wallClockMs());

    ASSERT_EQ(seenModes.size(), 2u);
    EXPECT_EQ(seenModes[0], "aimwise-capture 700");
    EXPECT_EQ(seenModes[1], "window_capture_ 600");
    const std::string url = server_.requests(chatPath).at(0).json()["messages"][0]["content"][1]["image_url"]["url"];
    EXPECT_EQ(url.rfind("data:image/png;base64,iVBORw0KGgo", 0), 0u);
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(WindowContentOnXvfb, AFailedDescriptionStillDeletesTheScreenshot) {
    TestWindow notes(*display_, "Notes", notesRect, {"Anything"});
    server_.enqueue(chatPath, ScriptedModelServer::Reply::json(500, "{}"));
    try {
        WindowContentReader::readWindowContent(notesRect, config(), session_);
        ADD_FAILURE() << "no error";
    } catch (const ModelBackendError& error) {
        ASSERT_NE(error.asHTTPError(), nullptr);
        EXPECT_EQ(error.asHTTPError()->status, 500);
    }
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(WindowContentOnXvfb, FailedRecognitionLeavesADescriptionWithEmptyText) {
    TestWindow notes(*display_, "Notes", notesRect, {"Anything"});
    environment_.set(VisionTextRecognizer::helperEnvVar, (dir_ / "no-helper").string());
    answer("A notes app.");
    ::testing::internal::CaptureStderr();
    const auto parts = WindowContentReader::readWindowContent(notesRect, config(), session_);
    const std::string said = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(parts.ocrText, "");
    EXPECT_EQ(parts.description, "A notes app.");
    EXPECT_EQ(said.rfind("vision OCR failed (OCR helper unavailable (", 0), 0u) << said;
    EXPECT_NE(said.find(") — judging without on-screen text\n"), std::string::npos) << said;
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(WindowContentOnXvfb, AScreenshotThatTimesOutLeavesNoFile) {
    ::testing::internal::CaptureStderr();
    EXPECT_THROW(WindowContentReader::captureWindowStamped(notesRect, 0.0), WindowContentReader::CaptureError);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "screenshot timed out after 0s — killing it and judging without a screenshot\n");
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(WindowContentOnXvfb, ADeniedWindowOverlappingTheFrontWindowWithholdsAndOneTouchingItsEdgeDoesNot) {
    {
        TestWindow vault(*display_, "Bitwarden", {739, 150, 200, 100});
        EXPECT_EQ(contentMustBeWithheldForDenylist(reader()), ContentWithheldReason::anotherDenylistedAppWindowVisible);
    }
    TestWindow beside(*display_, "Bitwarden", {740, 150, 200, 100});
    TestWindow above(*display_, "KeePassXC", {100, 0, 300, 100});
    EXPECT_EQ(contentMustBeWithheldForDenylist(reader()), std::nullopt);
}

TEST_F(WindowContentOnXvfb, TheEnvironmentExtensionWithholdsTooAndTheFrontAppIsCheckedFirst) {
    TestWindow chat(*display_, "Signal", {200, 200, 200, 100});
    EXPECT_EQ(contentMustBeWithheldForDenylist(reader()), std::nullopt);
    environment_.set(Denylist::extensionEnvVar, "signal");
    EXPECT_EQ(contentMustBeWithheldForDenylist(reader()), ContentWithheldReason::anotherDenylistedAppWindowVisible);

    signals_.tick(FixtureTick{.tsMs = 6000, .frontmostApp = "1Password", .frontmostBundleId = "com.1password.1password"});
    EXPECT_EQ(contentMustBeWithheldForDenylist(reader()), ContentWithheldReason::frontmostAppDenylisted);
}

TEST_F(WindowContentOnXvfb, LiveCaptureDegradesToNothingWithTheReasonOnStandardError) {
    struct Case {
        std::string name;
        std::function<void()> arrange;
        std::optional<ContentWithheldReason> withheld;
        std::string expected;  // a prefix of standard error; empty means silence
    };
    const std::vector<Case> cases{
        {"withheld", [] {}, ContentWithheldReason::anotherDenylistedAppWindowVisible,
         "content withheld for the capture denylist (denylisted_window_visible), judging without window content\n"},
        {"model down", [&] { server_.enqueue(chatPath, ScriptedModelServer::Reply::json(503, "{}")); }, std::nullopt,
         "window_content: could not reach the local model to describe the window content (continuing without it): "},
        {"model answers nonsense", [&] { server_.enqueue(chatPath, ScriptedModelServer::Reply::json(200, "[]")); },
         std::nullopt,
         "window_content: could not reach the local model to describe the window content (continuing without it): "
         "describe response: []\n"},
        {"no display", [&] { environment_.unset("DISPLAY"); }, std::nullopt,
         "window_content: could not read the captured screenshot (continuing without it): no X display to capture "
         "(DISPLAY is not set)\n"},
        // Last: from here on the newest tick has no window to capture.
        {"no front window", [&] { signals_.tick(FixtureTick{.tsMs = 7000, .frontmostApp = "Terminal"}); },
         std::nullopt, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        c.arrange();
        const size_t requestsBefore = server_.requests(chatPath).size();
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(captureLiveWindowContentParts(reader(), c.withheld, config(), session_), std::nullopt);
        const std::string said = ::testing::internal::GetCapturedStderr();
        if (c.expected.empty())
            EXPECT_EQ(said, "");
        else
            EXPECT_EQ(said.rfind(c.expected, 0), 0u) << said;
        if (c.withheld) {
            EXPECT_EQ(server_.requests(chatPath).size(), requestsBefore);
        }
        EXPECT_TRUE(leftovers().empty());
    }
}

}  // namespace
}  // namespace aimwise
