// The `ramp` verb as the built binary, over sealed recordings that ffmpeg made for the test.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>

#include "CaptureShared/common/iso_date.h"
#include "CaptureShared/video/sealed_recording.h"
#include "CaptureShared/video/video_container_bridge.h"
#include "platform/key_store.h"
#include "tests/support/run_process.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;

constexpr int64_t judgedMs = 1795000000000;  // 2026-11-18T11:06:40Z
const std::string brightness = "16+mod(N*7\\,220)";
int brightnessOf(int64_t frameIndex) { return 16 + int(frameIndex * 7 % 220); }

// Twenty minutes recorded an hour before the instant, then nothing for half an hour, then the last
// ten minutes up to the instant.
class RampVerb : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = new testing::TempDir("aimwise-ramp");
        const auto key = makeFileKeyStore(dir_->path() / "xdg/AimCapture/video-archive-keys")->loadOrRotate();
        const std::string ffmpeg = VideoContainerBridge::ffmpegPath(processEnvironment());
        const fs::path display = dir_->path() / "root/video/display-1";
        // Each frame's brightness tells its index, so the clip can be checked frame by frame.
        for (const auto& [name, startMs, frames] : {std::tuple{"a.ts.sealed", judgedMs - 3600000, 1200},
                                                    std::tuple{"b.ts.sealed", judgedMs - 600000, 601}})
            SealedRecording::writeSynthetic(display,
                                            {.fileName = name, .startMs = startMs, .frames = frames, .width = 320,
                                             .height = 180, .source = "nullsrc", .filter = "geq=lum=" + brightness + ":cb=128:cr=128"},
                                            key.key, key.generation, ffmpeg);
    }
    static void TearDownTestSuite() { delete dir_; }

    testing::ProcessResult ramp(std::vector<std::string> arguments, const std::string& ffmpeg = "") {
        testing::ProcessOptions options;
        options.environment = {{"AIMCAP_DATA_ROOT", (dir_->path() / "root").string()},
                               {"XDG_DATA_HOME", (dir_->path() / "xdg").string()},
                               {"XDG_STATE_HOME", (dir_->path() / "state").string()},
                               {"HOME", (dir_->path() / "home").string()},
                               {"TMPDIR", temporary_.path().string()},
                               {"AIMCAP_FFMPEG", ffmpeg}};
        arguments.insert(arguments.begin(), "ramp");
        return testing::runProcess(testing::verdictBenchPath(), arguments, options);
    }

    static testing::TempDir* dir_;
    testing::TempDir temporary_;
};
testing::TempDir* RampVerb::dir_ = nullptr;

TEST_F(RampVerb, PrintsThePlanWithItsGapAndEndsOnTheJudgedFrame) {
    const auto result = ramp({ISODate::format(judgedMs)});
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    const std::string& out = result.standardOutput;
    EXPECT_TRUE(out.starts_with("ramp to 2026-11-18T11:06:40Z: ")) << out;
    EXPECT_TRUE(out.find("from 2 recording(s), 144 output frames, 12.0 s at 12 fps\n") != std::string::npos) << out;
    EXPECT_TRUE(std::regex_search(out, std::regex("\n  +[0-9]+  +12  2026-11-18T10:2[0-9]:[0-9]{2}Z   +[34][0-9]:[0-9.]+  \\(no capture\\)\n")))
        << out;
    EXPECT_TRUE(out.ends_with("  2026-11-18T11:06:40Z    0:00.0  b.ts.sealed #600\n")) << out;
    EXPECT_TRUE(out.find("(0s in the last 5 minutes)") != std::string::npos) << out;
}

TEST_F(RampVerb, BridgedItWritesAPlayablePrivateClipAndNothingElse) {
    const auto result = ramp({ISODate::format(judgedMs), "--bridge"});
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    std::smatch match;
    ASSERT_TRUE(std::regex_search(result.standardOutput, match, std::regex("\nclip: (.*)\n"))) << result.standardOutput;
    const fs::path clip = match[1].str();
    EXPECT_EQ(clip.parent_path().parent_path(), temporary_.path());
    struct stat info {};
    ASSERT_EQ(::stat(clip.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    ASSERT_EQ(::stat(clip.parent_path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_EQ(std::distance(fs::recursive_directory_iterator(temporary_.path()), fs::recursive_directory_iterator()), 2);

    const fs::path ffprobe = fs::path(VideoContainerBridge::ffmpegPath(processEnvironment())).parent_path() / "ffprobe";
    const auto probe = testing::runProcess(ffprobe.string(), {"-v", "error", "-count_frames", "-select_streams", "v:0",
                                                       "-show_entries", "stream=codec_name,width,height,nb_read_frames",
                                                       "-of", "csv=p=0", clip.string()});
    EXPECT_EQ(probe.standardOutput, "h264,320,180,144\n") << probe.standardError;

    // Every output frame shows the recorded frame the plan put there, for as long as it says.
    std::vector<int> expected;
    const std::regex row("\n +[0-9]+ +([0-9]+)  \\S+ +\\S+  (?:\\(no capture\\)|\\S+ #([0-9]+))");
    for (std::sregex_iterator it(result.standardOutput.begin(), result.standardOutput.end(), row), end; it != end; ++it)
        expected.insert(expected.end(), std::stoi((*it)[1]), (*it)[2].matched ? brightnessOf(std::stoll((*it)[2])) : 40);
    const auto gray = testing::runProcess((ffprobe.parent_path() / "ffmpeg").string(),
                                          {"-v", "error", "-i", clip.string(), "-vf", "scale=8:8", "-f", "rawvideo",
                                           "-pix_fmt", "yuv420p", "pipe:1"});
    ASSERT_EQ(gray.standardOutput.size(), 144u * 96) << gray.standardError;
    ASSERT_EQ(expected.size(), 144u);
    for (size_t frame = 0; frame < 144; ++frame)
        EXPECT_NEAR(static_cast<uint8_t>(gray.standardOutput[frame * 96 + 27]), expected[frame], 4) << frame;
}

TEST_F(RampVerb, FailsPlainlyWithoutCaptureOrKey) {
    const struct {
        std::vector<std::string> arguments;
        std::string error;
    } cases[] = {
        {{ISODate::format(judgedMs - 1800000)}, "FAIL: No capture frame near the judged instant — capture wasn't running then.\n"},
        {{"2026-07-01T10:00:00Z"},
         "FAIL: This moment predates the frame-index sidecar columns (2026-07-07), so no frame can be resolved for it.\n"},
        {{}, "usage: bench run VerdictBench ramp <ISO-8601 timestamp> [fps] [--display <n>] [--bridge]\n"},
        {{"yesterday"}, "could not parse timestamp: yesterday\n"},
    };
    for (const auto& c : cases) {
        const auto result = ramp(c.arguments);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_EQ(result.standardError, c.error);
    }
    const fs::path keys = dir_->path() / "xdg/AimCapture/video-archive-keys";
    fs::rename(keys, dir_->path() / "keys-aside");
    const auto result = ramp({ISODate::format(judgedMs), "--bridge"});
    fs::rename(dir_->path() / "keys-aside", keys);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.standardError, "FAIL: video archive key unavailable: no video archive key of generation 1 in " +
                                        keys.string() +
                                        " — the recordings sealed with it stay unreadable until that key file is restored\n");
    // An ffmpeg that fails leaves no partial clip behind.
    const struct {
        std::string ffmpeg, error;
    } broken[] = {
        {"/nonexistent/ffmpeg", "FAIL: couldn't launch ffmpeg: no ffmpeg executable found; install the ffmpeg package or "
                                "set AIMCAP_FFMPEG to one\n"},
        {"/bin/false", "FAIL: ffmpeg couldn't turn the decrypted frames into a playable container: ffmpeg exited with "
                       "status 1\n"},
    };
    for (const auto& c : broken) {
        const auto failed = ramp({ISODate::format(judgedMs), "--bridge"}, c.ffmpeg);
        EXPECT_EQ(failed.exitStatus, 1);
        EXPECT_EQ(failed.standardError, c.error);
    }
    EXPECT_TRUE(fs::is_empty(temporary_.path()));
}

}  // namespace
}  // namespace aimwise
