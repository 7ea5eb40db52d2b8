// Screenshots, text recognition and the window list on a private Xvfb display with real windows.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <memory>

#include "platform/on_screen_windows.h"
#include "platform/screenshot_capture.h"
#include "platform/vision_text_recognizer.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/temp_dir.h"
#include "tests/support/x_display.h"

namespace aimwise {
namespace {

using testing::ScopedEnvironment;
using testing::TempDir;
using testing::TestWindow;
using testing::XvfbDisplay;

class OnXvfb : public ::testing::Test {
protected:
    static void SetUpTestSuite() { display_ = std::make_unique<XvfbDisplay>(); }
    static void TearDownTestSuite() { display_.reset(); }

    void SetUp() override {
        environment_.set("DISPLAY", display_->name());
        environment_.set(VisionTextRecognizer::helperEnvVar, testing::ocrHelperProgram());
    }

    static std::unique_ptr<XvfbDisplay> display_;
    ScopedEnvironment environment_;
    TempDir dir_;
};
std::unique_ptr<XvfbDisplay> OnXvfb::display_;

std::string readText(const std::filesystem::path& image) {
    const auto result = VisionTextRecognizer::recognizeText(image, 10.0);
    if (const auto* failed = std::get_if<VisionTextRecognizer::Failed>(&result)) return "FAILED: " + failed->reason;
    return std::get<VisionTextRecognizer::Read>(result).text;
}

// Glyphs about 8 px high: read as "sake instal fiche" at 1x, correctly once enlarged.
TEST_F(OnXvfb, SmallScreenTextIsReadThanksToUpscaling) {
    const ScreenRect rect{40, 500, 420, 60};
    TestWindow window(*display_, "Terminal", rect, {"make install finished"}, 6);
    const auto image = dir_ / "small.png";
    ASSERT_TRUE(std::holds_alternative<ScreenshotCapture::Captured>(ScreenshotCapture::captureRect(rect, image, 10.0)));
    EXPECT_EQ(readText(image), "make install finished");
}

// Read as two bands at once, a page gives the same lines in the same order as read whole: the cut
// falls between lines, and the upper band's lines come first.
TEST_F(OnXvfb, TwoBandsReadThePageAsReadingItWholeDoes) {
    std::vector<std::string> lines;
    for (const char* word : {"alpha", "bravo", "charlie", "delta", "echo", "foxtrot", "golf", "hotel", "india", "juliet"})
        lines.push_back(std::string(word) + " line of the report");
    const ScreenRect rect{20, 20, 520, 420};
    TestWindow window(*display_, "Editor", rect, lines, 16);
    const auto image = dir_ / "page.png";
    ASSERT_TRUE(std::holds_alternative<ScreenshotCapture::Captured>(ScreenshotCapture::captureRect(rect, image, 10.0)));
    std::string expected;
    for (const auto& line : lines) expected += (expected.empty() ? "" : "\n") + line;
    EXPECT_EQ(readText(image), expected);
    environment_.set("AIMCAP_OCR_BANDS", "2");
    EXPECT_EQ(readText(image), expected);
}

TEST_F(OnXvfb, OnlyTheRequestedRectangleIsCaptured) {
    TestWindow left(*display_, "Left", {0, 0, 300, 120}, {"LEFT"}, 30);
    TestWindow right(*display_, "Right", {300, 0, 300, 120}, {"RIGHT"}, 30);
    const auto image = dir_ / "right.png";
    ASSERT_TRUE(
        std::holds_alternative<ScreenshotCapture::Captured>(ScreenshotCapture::captureRect({300, 0, 300, 120}, image, 10.0)));
    EXPECT_EQ(readText(image), "RIGHT");
}

TEST_F(OnXvfb, ACaptureThatOverrunsItsDeadlineIsKilledAndReportedLate) {
    const auto started = std::chrono::steady_clock::now();
    const auto result = ScreenshotCapture::captureRect({0, 0, 100, 100}, dir_ / "late.png", 0.0);
    EXPECT_TRUE(std::holds_alternative<ScreenshotCapture::TimedOut>(result));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
}

TEST_F(OnXvfb, WithoutADisplayNothingIsCaptured) {
    environment_.unset("DISPLAY");
    const auto result = ScreenshotCapture::captureRect({0, 0, 100, 100}, dir_ / "none.png", 10.0);
    ASSERT_TRUE(std::holds_alternative<ScreenshotCapture::Failed>(result));
    EXPECT_NE(std::get<ScreenshotCapture::Failed>(result).reason.find("DISPLAY"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(dir_ / "none.png"));
    EXPECT_TRUE(OnScreenWindows::live().empty());
}

TEST_F(OnXvfb, AnEmptyRectangleIsRefusedBeforeAnyToolRuns) {
    const auto result = ScreenshotCapture::captureRect({-50, 10, 40, 100}, dir_ / "off.png", 10.0);
    ASSERT_TRUE(std::holds_alternative<ScreenshotCapture::Failed>(result));
    EXPECT_FALSE(std::filesystem::exists(dir_ / "off.png"));
}

TEST_F(OnXvfb, TheWindowListIsFrontToBackWithClassAndRectangle) {
    TestWindow back(*display_, "Firefox", {10, 20, 500, 400});
    TestWindow front(*display_, "KeePassXC", {200, 150, 300, 200});
    std::vector<OnScreenWindowRecord> windows = OnScreenWindows::live();
    ASSERT_EQ(windows.size(), 2u);
    EXPECT_EQ(windows[0], (OnScreenWindowRecord{"KeePassXC", "KeePassXC", {200, 150, 300, 200}}));
    EXPECT_EQ(windows[1], (OnScreenWindowRecord{"Firefox", "Firefox", {10, 20, 500, 400}}));
}

class TextRecognizerFailures : public ::testing::Test {
protected:
    void SetUp() override { environment_.set(VisionTextRecognizer::helperEnvVar, testing::ocrHelperProgram()); }
    ScopedEnvironment environment_;
    TempDir dir_;
};

TEST_F(TextRecognizerFailures, AMissingFileCannotBeOpened) {
    EXPECT_EQ(readText(dir_ / "absent.png"), "FAILED: could not open image at " + (dir_ / "absent.png").string());
}

TEST_F(TextRecognizerFailures, AFileThatIsNoImageCannotBeDecoded) {
    testing::writeFile(dir_ / "notes.png", "these are not pixels");
    EXPECT_EQ(readText(dir_ / "notes.png"), "FAILED: could not decode image at " + (dir_ / "notes.png").string());
}

TEST_F(TextRecognizerFailures, AMissingHelperSaysWhereItWasLookedFor) {
    testing::writeFile(dir_ / "image.png", "x");
    environment_.set(VisionTextRecognizer::helperEnvVar, "/nonexistent/aimwise-ocr");
    const std::string said = readText(dir_ / "image.png");
    EXPECT_NE(said.find("/nonexistent/aimwise-ocr"), std::string::npos) << said;
    EXPECT_NE(said.find(VisionTextRecognizer::helperEnvVar), std::string::npos) << said;
}

TEST_F(TextRecognizerFailures, AHelperThatHangsIsKilledAtTheDeadline) {
    testing::writeFile(dir_ / "image.png", "x");
    testing::writeFile(dir_ / "hang.sh", "#!/bin/sh\necho $$ > \"$0.pid\"\nexec sleep 30\n");
    ::chmod((dir_ / "hang.sh").c_str(), 0700);
    environment_.set(VisionTextRecognizer::helperEnvVar, (dir_ / "hang.sh").string());
    ::testing::internal::CaptureStderr();
    const auto started = std::chrono::steady_clock::now();
    const auto result = VisionTextRecognizer::recognizeText(dir_ / "image.png", 0.5);
    const auto elapsed = std::chrono::steady_clock::now() - started;
    const std::string stderrText = ::testing::internal::GetCapturedStderr();
    ASSERT_TRUE(std::holds_alternative<VisionTextRecognizer::Failed>(result));
    const std::string words = "Tesseract OCR timed out after 0.5s — killing the OCR helper and judging without OCR text";
    EXPECT_EQ(std::get<VisionTextRecognizer::Failed>(result).reason, words);
    EXPECT_EQ(stderrText, words + "\n");
    EXPECT_LT(elapsed, std::chrono::seconds(3));
    const pid_t pid = std::stoi(testing::readFile(dir_ / "hang.sh.pid"));
    EXPECT_NE(::kill(pid, 0), 0);
}

}  // namespace
}  // namespace aimwise
