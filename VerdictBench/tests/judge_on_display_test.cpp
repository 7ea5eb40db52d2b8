// `judge` and `tick` on a real X display: the front window is captured, read with Tesseract,
// described by the (scripted) local model and sent in the prompt, and no picture is left behind.
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>

#include "AimwiseCore/events/classifier_tick.h"
#include "tests/support/run_process.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/temp_dir.h"
#include "tests/support/x_display.h"

namespace aimwise {
namespace {

using testing::ScriptedModelServer;
using testing::TestWindow;
using testing::XvfbDisplay;
using Reply = ScriptedModelServer::Reply;
using json = nlohmann::json;

constexpr const char* chatPath = "/v1/chat/completions";
constexpr ScreenRect editorRect{100, 100, 640, 200};

int64_t wallClockMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// The describe request carries an image; the judgment does not.
bool isDescribeRequest(const ScriptedModelServer::Request& request) {
    const json body = request.json();
    return body["messages"][0]["content"].is_array();
}

class ClassifierOnDisplay : public ::testing::Test {
protected:
    static void SetUpTestSuite() { display_ = std::make_unique<XvfbDisplay>(); }
    static void TearDownTestSuite() { display_.reset(); }

    ClassifierOnDisplay() {
        std::filesystem::create_directories(tmp());
        const int64_t ts = wallClockMs() - 2'000;
        signals.tick({.tsMs = ts, .frontmostApp = "Editor", .frontmostBundleId = "Editor", .idleAnySec = 1.0});
        signals.window({.tsMs = ts, .ownerName = "Editor", .title = "plan.txt", .x = editorRect.x, .y = editorRect.y,
                        .width = editorRect.width, .height = editorRect.height});
        server.setHandler(chatPath, [](const ScriptedModelServer::Request& request) {
            const std::string content = isDescribeRequest(request)
                                            ? "A text editor with a plan."
                                            : R"({"state": "ON_TASK", "confidence": 0.9, "reason": "Planning."})";
            return Reply::json(200, ScriptedModelServer::completionBody(content));
        });
    }

    testing::ProcessResult run(const std::vector<std::string>& arguments) {
        testing::ProcessOptions options;
        options.environment = testing::verdictBenchEnvironment(dir.path(), server.baseURLString());
        options.environment.insert({{"TMPDIR", tmp().string()},
                                    {"DISPLAY", display_->name()},
                                    {"AIMCAP_OCR_HELPER", testing::ocrHelperProgram()},
                                    {"AIMCAP_CALL_PAUSE", "0"}});
        options.unset = {"AIMCAP_DENYLIST"};
        return testing::runProcess(testing::verdictBenchPath(), arguments, options);
    }

    std::string judgmentUserMessage() {
        for (const auto& request : server.requests(chatPath))
            if (!isDescribeRequest(request)) return request.json()["messages"][1]["content"];
        ADD_FAILURE() << "no judgment was requested";
        return "";
    }

    std::filesystem::path root() const { return dir / "root"; }
    std::filesystem::path tmp() const { return dir / "tmp"; }
    bool tmpIsEmpty() const { return std::filesystem::is_empty(tmp()); }

    static std::unique_ptr<XvfbDisplay> display_;
    testing::TempDir dir;
    testing::SignalsFixture signals{root() / "signals.sqlite"};
    ScriptedModelServer server{ScriptedModelServer::Transport::tcp};
};
std::unique_ptr<XvfbDisplay> ClassifierOnDisplay::display_;

TEST_F(ClassifierOnDisplay, JudgeReadsTheFrontWindowSendsItsTextAndKeepsNoPicture) {
    TestWindow editor(*display_, "Editor", editorRect, {"Quarterly plan draft", "Ship the beta on Monday"}, 20);
    const auto result = run({"judge"});
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_NE(result.standardOutput.find("\nwindow_content: {'ocr_text': 'Quarterly plan draft Ship the beta on Monday', "
                                         "'description': 'A text editor with a plan.'}\n\n"),
              std::string::npos)
        << result.standardOutput;
    const std::string message = judgmentUserMessage();
    EXPECT_NE(message.find("Quarterly plan draft"), std::string::npos) << message;
    EXPECT_NE(message.find("A text editor with a plan."), std::string::npos) << message;
    EXPECT_TRUE(tmpIsEmpty());
}

TEST_F(ClassifierOnDisplay, JudgeAtAGivenInstantCapturesNothingEvenWithAScreen) {
    TestWindow editor(*display_, "Editor", editorRect, {"Quarterly plan draft"}, 20);
    const std::time_t inAMinute = std::time(nullptr) + 60;
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&inAMinute));
    const auto result = run({"judge", stamp});
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_NE(result.standardOutput.find("\nwindow_content: nil\n\n"), std::string::npos) << result.standardOutput;
    EXPECT_EQ(judgmentUserMessage().find("Quarterly plan draft"), std::string::npos);
    for (const auto& request : server.requests(chatPath)) EXPECT_FALSE(isDescribeRequest(request));
    EXPECT_TRUE(tmpIsEmpty());
}

TEST_F(ClassifierOnDisplay, ATickLogsTheDescriptionBesideTheVerdict) {
    TestWindow editor(*display_, "Editor", editorRect, {"Quarterly plan draft"}, 20);
    const int64_t before = wallClockMs();
    const auto result = run({"tick"});
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    const auto tick = ClassifierTick::decode(testing::readFile(root() / "checker-log.jsonl"));
    ASSERT_TRUE(tick);
    ASSERT_TRUE(tick->screenshotAtMs);
    EXPECT_GE(*tick->screenshotAtMs, before);
    const json describe = json::parse(testing::readFile(root() / "classifier-describe.jsonl"));
    EXPECT_EQ(describe["describe"], "A text editor with a plan.");
    EXPECT_EQ(describe["ocrChars"], std::string("Quarterly plan draft").size());
    EXPECT_EQ(describe["screenshotAtMs"], *tick->screenshotAtMs);
    EXPECT_EQ(describe["model"], "judge-model");
    EXPECT_TRUE(tmpIsEmpty());
}

TEST_F(ClassifierOnDisplay, APasswordManagerOverTheWindowWithholdsTheContentAndTheLogSaysSo) {
    TestWindow editor(*display_, "Editor", editorRect, {"Quarterly plan draft"}, 20);
    TestWindow vault(*display_, "KeePassXC", {700, 250, 300, 200}, {"Vault"}, 20);
    const auto result = run({"tick"});
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_NE(result.standardError.find("content withheld for the capture denylist (denylisted_window_visible)"),
              std::string::npos)
        << result.standardError;
    const auto tick = ClassifierTick::decode(testing::readFile(root() / "checker-log.jsonl"));
    EXPECT_EQ(tick->contentWithheldForDenylist, "denylisted_window_visible");
    EXPECT_FALSE(tick->screenshotAtMs);
    EXPECT_FALSE(std::filesystem::exists(root() / "classifier-describe.jsonl"));
    EXPECT_EQ(judgmentUserMessage().find("Quarterly plan draft"), std::string::npos);
    for (const auto& request : server.requests(chatPath)) EXPECT_FALSE(isDescribeRequest(request));
}

}  // namespace
}  // namespace aimwise
