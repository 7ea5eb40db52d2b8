// `ocr-selftest` run as the built binary: on a screenshot of a real window, with the OCR helper and
// the scripted model server, and on the ways it ends without one of them.
#include <gtest/gtest.h>

#include <memory>

#include "AimwiseCore/classifier/window_content.h"
#include "CaptureShared/common/utf8.h"
#include "platform/screenshot_capture.h"
#include "platform/vision_text_recognizer.h"
#include "tests/support/run_process.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/temp_dir.h"
#include "tests/support/x_display.h"

namespace aimwise {
namespace {

using testing::ScriptedModelServer;
using testing::TempDir;

const std::string chatPath = "/v1/chat/completions";

class OCRSelftestVerb : public ::testing::Test {
protected:
    // One screenshot of a window with known text, shared by the cases.
    static void SetUpTestSuite() {
        image_ = std::make_unique<TempDir>("ocr-selftest");
        testing::XvfbDisplay display;
        testing::ScopedEnvironment environment;
        environment.set("DISPLAY", display.name());
        const ScreenRect rect{50, 50, 700, 160};
        testing::TestWindow window(display, "Editor", rect, {"Weekly plan for Monday", "Call the dentist at 9"}, 22);
        const auto result = ScreenshotCapture::captureRect(rect, imagePath(), 10.0);
        if (!std::holds_alternative<ScreenshotCapture::Captured>(result))
            throw std::runtime_error("could not capture the test window");
    }
    static void TearDownTestSuite() { image_.reset(); }
    static std::filesystem::path imagePath() { return *image_ / "editor.png"; }

    testing::ProcessResult run(const std::vector<std::string>& arguments,
                               const std::string& helper = testing::ocrHelperProgram()) {
        testing::ProcessOptions options;
        options.environment = {{"AIMCAP_LOCAL_INFERENCE_ENDPOINT", server_.baseURLString()},
                               {"AIMCHECK_MODEL", "vision-model"},
                               {VisionTextRecognizer::helperEnvVar, helper},
                               {"HOME", (dir_ / "home").string()},
                               {"XDG_DATA_HOME", (dir_ / "xdg").string()},
                               {"XDG_STATE_HOME", (dir_ / "state").string()}};
        options.unset = {"AIMCAP_DATA_ROOT", "DISPLAY"};
        std::vector<std::string> all{"ocr-selftest"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return testing::runProcess(testing::verdictBenchPath(), all, options);
    }

    static std::unique_ptr<TempDir> image_;
    TempDir dir_;
    ScriptedModelServer server_{ScriptedModelServer::Transport::tcp};
};
std::unique_ptr<TempDir> OCRSelftestVerb::image_;

TEST_F(OCRSelftestVerb, ReadsDescribesAndPrintsTheDictTheClassifierWouldGet) {
    server_.enqueue(chatPath, ScriptedModelServer::Reply::json(
                                  200, ScriptedModelServer::completionBody("\n  Planning the week's errands.  \n")));
    const auto result = run({imagePath().string()});
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput,
              "vision OCR: helper process (Tesseract)\n"
              "=== OCR (first 300 chars) ===\n"
              "Weekly plan for Monday\nCall the dentist at 9\n"
              "=== DESCRIBE ===\n"
              "\n  Planning the week's errands.  \n\n"
              "=== DICT REPR (first 200 chars) ===\n"
              "{'ocr_text': 'Weekly plan for Monday\\nCall the dentist at 9', 'description': \"Planning the week's "
              "errands.\"}\n");

    const auto requests = server_.requests(chatPath);
    ASSERT_EQ(requests.size(), 1u);
    const auto body = requests[0].json();
    EXPECT_EQ(body["model"], "vision-model");
    EXPECT_EQ(body["max_tokens"], 150);
    EXPECT_EQ(body["messages"][0]["content"][0]["text"], WindowContentReader::defaultDescribePrompt);
    const std::string image = testing::readFile(imagePath());
    EXPECT_EQ(body["messages"][0]["content"][1]["image_url"]["url"],
              "data:image/png;base64," + WindowContentReader::base64(image));
}

TEST_F(OCRSelftestVerb, LongTextAndDictAreCutAtTheirLimitsInCharacters) {
    const std::string description(250, 'd');
    server_.enqueue(chatPath, ScriptedModelServer::Reply::json(200, ScriptedModelServer::completionBody(description)));
    const auto result = run({imagePath().string()});
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    const std::string marker = "=== DICT REPR (first 200 chars) ===\n";
    const std::string dict = result.standardOutput.substr(result.standardOutput.find(marker) + marker.size());
    EXPECT_EQ(utf8::scalarCount(dict), 201u);
    EXPECT_EQ(dict.substr(0, 14), "{'ocr_text': '");
}

TEST_F(OCRSelftestVerb, FailedRecognitionIsReportedAndTheDescriptionStillRuns) {
    server_.enqueue(chatPath, ScriptedModelServer::Reply::json(200, ScriptedModelServer::completionBody("Code.")));
    const auto result = run({imagePath().string()}, (dir_ / "missing-helper").string());
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_NE(result.standardOutput.find("=== OCR FAILED ===\nOCR helper unavailable ("), std::string::npos)
        << result.standardOutput;
    EXPECT_NE(result.standardOutput.find("=== OCR (first 300 chars) ===\n\n=== DESCRIBE ===\nCode.\n"),
              std::string::npos);
    EXPECT_NE(result.standardOutput.find("{'ocr_text': '', 'description': 'Code.'}"), std::string::npos);
}

TEST_F(OCRSelftestVerb, AnUnreadableImageOrAFailedDescriptionEndsWithAnError) {
    const auto missing = run({(dir_ / "absent.png").string()});
    EXPECT_NE(missing.exitStatus, 0);
    EXPECT_NE(missing.standardOutput.find("=== OCR FAILED ===\ncould not open image at "), std::string::npos);
    EXPECT_EQ(missing.standardOutput.find("=== DESCRIBE ==="), std::string::npos);
    EXPECT_NE(missing.standardError.find("absent.png"), std::string::npos) << missing.standardError;
    EXPECT_TRUE(server_.requests(chatPath).empty());

    server_.enqueue(chatPath, ScriptedModelServer::Reply::json(500, "{}"));
    const auto refused = run({imagePath().string()});
    EXPECT_NE(refused.exitStatus, 0);
    EXPECT_EQ(refused.standardOutput.find("=== DESCRIBE ==="), std::string::npos);
    EXPECT_NE(refused.standardError.find("500"), std::string::npos) << refused.standardError;
}

TEST_F(OCRSelftestVerb, WithoutAnImagePathItPrintsItsUsage) {
    const auto result = run({});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.standardError, "usage: ocr-selftest <image-path>\n");
    EXPECT_EQ(result.standardOutput, "");
}

}  // namespace
}  // namespace aimwise
