#include "CaptureShared/video/historical_frame.h"

#include <gtest/gtest.h>

#include "CaptureShared/video/sealed_recording.h"
#include "CaptureShared/video/video_container_bridge.h"
#include "CaptureShared/video/video_encryption_format.h"
#include "tests/support/run_process.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using namespace HistoricalFrame;
constexpr int64_t startMs = 1795000000000;

TEST(HistoricalFrame, GivesTheNearestRecordedFrameCutToTheAskedAreaOrSaysWhyNot) {
    testing::TempDir dir;
    const VideoArchiveKey key = VideoArchiveKey::random();
    const std::string ffmpeg = VideoContainerBridge::ffmpegPath(processEnvironment());
    // Frame n is uniformly as bright as 16 + 5n.
    SealedRecording::writeSynthetic(dir / "display-2", {.startMs = startMs, .frames = 40, .width = 320, .height = 180,
                                                        .source = "nullsrc", .filter = "geq=lum=16+5*N:cb=128:cr=128"},
                                    key, 4, ffmpeg);
    const auto keys = [&](uint32_t generation) {
        if (generation != 4) throw VideoEncryptionError(VideoEncryptionError::Kind::notEncrypted, "wrong generation");
        return key;
    };

    const Result result = nearest(dir.path(), {.atMs = startMs + 30400, .display = 2, .crop = PixelRect{300, 170, 100, 100}},
                                  keys, processEnvironment());
    ASSERT_TRUE(std::holds_alternative<Image>(result)) << std::get<ExtractionFailed>(result).reason;
    const Image& image = std::get<Image>(result);
    EXPECT_EQ(image.sourceRealMs, startMs + 30000);
    EXPECT_EQ(image.screenArea, (PixelRect{300, 170, 20, 10}));
    EXPECT_EQ(std::pair(image.widthPx, image.heightPx), std::pair(20, 10));
    testing::ProcessOptions input;
    input.standardInput = image.png;
    const auto pixels = testing::runProcess(ffmpeg, {"-v", "error", "-f", "png_pipe", "-i", "pipe:0", "-f", "rawvideo",
                                                     "-pix_fmt", "yuv420p", "pipe:1"}, input);
    ASSERT_EQ(pixels.standardOutput.size(), 300u);
    EXPECT_NEAR(static_cast<uint8_t>(pixels.standardOutput[0]), 16 + 5 * 30, 4);

    const Request wholeScreen{.atMs = startMs + 1000, .display = 2};
    const auto area = [&](const Result& r) { return std::get<Image>(r).screenArea; };
    EXPECT_EQ(area(nearest(dir.path(), wholeScreen, keys, processEnvironment())), (PixelRect{0, 0, 320, 180}));
    const struct {
        Request request;
        size_t expected;  // the Result's alternative
    } refusals[] = {
        {{.atMs = startMs + 45000, .display = 2}, 1},
        {{.atMs = startMs, .display = 3}, 1},
        {{.atMs = 1780000000000, .display = 2}, 2},
        {{.atMs = startMs, .display = 2, .crop = PixelRect{320, 0, 10, 10}}, 3},
    };
    for (const auto& refusal : refusals)
        EXPECT_EQ(nearest(dir.path(), refusal.request, keys, processEnvironment()).index(), refusal.expected);
    const auto noKey = nearest(dir.path(), wholeScreen, [](uint32_t) -> VideoArchiveKey { throw Error("no key file"); },
                               processEnvironment());
    EXPECT_EQ(std::get<ExtractionFailed>(noKey).reason, "video archive key unavailable: no key file");
}

}  // namespace
}  // namespace aimwise
