// The capture agent recording a real X server (Xvfb): what it seals plays back, replay reads a window
// from it, denylisted windows never reach it, and a broken ffmpeg never stops the agent's sampling.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "AimwiseCore/classifier/historical_window_content.h"
#include "CaptureShared/common/iso_date.h"
#include "CaptureShared/signals/signals_reader.h"
#include "CaptureShared/video/sealed_recording.h"
#include "CaptureShared/video/video_container_bridge.h"
#include "CaptureShared/video/video_encryption_format.h"
#include "agents/capture/recording_setting.h"
#include "agents/tests/agent_test_support.h"
#include "platform/key_store.h"
#include "platform/vision_text_recognizer.h"
#include "tests/support/run_process.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/x_display.h"

namespace aimwise::testing {
namespace {

namespace fs = std::filesystem;

const std::string ffmpeg = "/usr/bin/ffmpeg";
constexpr int screenWidth = 1280, screenHeight = 800;  // XvfbDisplay's screen

struct Recording {
    AgentSandbox sandbox;
    fs::path display = sandbox.root / "video/display-1";
    fs::path log = sandbox.temp / "agent.log";
    std::unique_ptr<ChildProcess> agent;

    std::unique_ptr<ChildProcess> start(const XvfbDisplay& xvfb, std::map<std::string, std::string> extra = {}) {
        RecordingSetting::write(sandbox.home / ".local/share/AimCapture/recording.json", {.enabled = true});
        auto environment = sandbox.environment(xvfb.name());
        environment.merge(extra);
        return std::make_unique<ChildProcess>(std::vector<std::string>{capturePath(), "--interval-ms", "200"},
                                              ChildProcess::Options{.environment = environment, .standardError = log});
    }
    std::string messages() const { return readFile(log); }
    FrameTimestamps::Sidecar sidecar() const {
        return FrameTimestamps::readWindow(display / "frame_timestamps.csv", 0, INT64_MAX);
    }
    size_t frames() const {
        const auto rows = sidecar().rows;
        return std::count_if(rows.begin(), rows.end(), [](const auto& row) { return !row.file.empty(); });
    }
    VideoArchiveKeyLookup keys() const {
        return [dir = sandbox.home / ".local/share/AimCapture/video-archive-keys"](uint32_t generation) {
            return makeFileKeyStore(dir)->loadGeneration(generation);
        };
    }
    // Every frame of a sealed file, as 8-bit grey pixels of the whole screen.
    std::vector<std::string> decode(const fs::path& sealed) const {
        std::string plain;
        VideoContainerBridge::pumpPlaintext(sealed, keys(), [&](std::string_view bytes) {
            plain.append(bytes);
            return true;
        });
        ProcessOptions input;
        input.standardInput = plain;
        const auto raw = runProcess(ffmpeg, {"-v", "error", "-i", "pipe:0", "-f", "rawvideo", "-pix_fmt", "gray", "pipe:1"}, input);
        std::vector<std::string> frames;
        for (size_t at = 0; at + screenWidth * screenHeight <= raw.standardOutput.size(); at += screenWidth * screenHeight)
            frames.push_back(raw.standardOutput.substr(at, screenWidth * screenHeight));
        return frames;
    }
};

double meanInside(const std::string& grey, int width, ScreenRect rect) {
    double sum = 0;
    for (int y = int(rect.y); y < int(rect.y + rect.height); ++y)
        for (int x = int(rect.x); x < int(rect.x + rect.width); ++x) sum += uint8_t(grey[size_t(y * width + x)]);
    return sum / (rect.width * rect.height);
}
// Well inside a window's edges.
ScreenRect inset(ScreenRect r) { return {r.x + 10, r.y + 10, r.width - 20, r.height - 20}; }

TEST(Recorder, ARealRecordingPlaysAsARampClipAndReplayReadsTheWindowInIt) {
    Recording recording;
    XvfbDisplay xvfb;
    const ScreenRect editor{40, 40, 700, 300};
    TestWindow window(xvfb, "Editor", editor, {"Quarterly budget review"}, 40);
    recording.agent = recording.start(xvfb);
    ASSERT_TRUE(eventually([&] { return recording.frames() >= 6; }, 40000)) << recording.messages();
    EXPECT_EQ(recording.agent->stop(), 0);

    const auto rows = recording.sidecar().rows;
    ASSERT_FALSE(rows.empty());
    EXPECT_TRUE(rows.back().file.empty()) << "stopping leaves a pause row";
    for (size_t i = 1; i + 1 < rows.size(); ++i) {
        EXPECT_EQ(rows[i].frameIndex, rows[i - 1].frameIndex + 1);
        EXPECT_NEAR(rows[i].realMs - rows[i - 1].realMs, 1000, 150) << "frames keep their grab times";
        EXPECT_EQ(rows[i].area, (FrameTimestamps::CaptureArea{0, 0, screenWidth, screenHeight}));
    }
    EXPECT_NEAR(rows.front().realMs, wallClockMs(), 60000);
    const fs::path sealed = recording.display / rows.front().file;
    EXPECT_TRUE(VideoEncryptionFormat::isEncrypted(sealed));
    EXPECT_EQ(fs::status(sealed).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
    const auto frames = recording.decode(sealed);
    ASSERT_EQ(frames.size(), rows.size() - 1);
    EXPECT_GT(meanInside(frames.back(), screenWidth, inset(editor)), 200) << "the window shows in the recording";

    // An hour of dark lead-up before it, so that the ramp has its whole hour.
    const int64_t lastMs = rows[rows.size() - 2].realMs;
    const auto key = makeFileKeyStore(recording.sandbox.home / ".local/share/AimCapture/video-archive-keys")->loadOrRotate();
    SealedRecording::writeSynthetic(recording.display, {.fileName = "lead-up.ts.sealed", .startMs = rows.front().realMs - 3600000,
                                                         .frames = 1799, .fps = 0.5, .width = 320, .height = 180,
                                                         .source = "nullsrc", .filter = "geq=lum=16:cb=128:cr=128"},
                                    key.key, key.generation, ffmpeg);
    auto environment = recording.sandbox.environment();
    environment["TMPDIR"] = recording.sandbox.temp.path().string();
    const auto ramp = runProcess(verdictBenchPath(), {"ramp", ISODate::format(lastMs), "--bridge"}, {.environment = environment});
    ASSERT_EQ(ramp.exitStatus, 0) << ramp.standardError << ramp.standardOutput;
    std::smatch clip;
    ASSERT_TRUE(std::regex_search(ramp.standardOutput, clip, std::regex("\nclip: (.*)\n"))) << ramp.standardOutput;
    const auto played = runProcess(ffmpeg, {"-v", "error", "-i", clip[1].str(), "-vf", "scale=64:40", "-f", "rawvideo",
                                            "-pix_fmt", "gray", "pipe:1"});
    ASSERT_EQ(played.standardOutput.size(), 144u * 64 * 40) << played.standardError;
    const std::string last = played.standardOutput.substr(143 * 64 * 40), first = played.standardOutput.substr(0, 64 * 40);
    EXPECT_GT(meanInside(last, 64, {6, 6, 24, 8}) - meanInside(first, 64, {6, 6, 24, 8}), 100)
        << "the clip ends on the recorded screen, after the dark lead-up";

    ScopedEnvironment scoped;
    for (const auto& [name, value] : recording.sandbox.environment())
        if (name != "PATH") scoped.set(name, value);
    scoped.set(VisionTextRecognizer::helperEnvVar, ocrHelperProgram());
    const auto reader = SignalsReader::open(recording.sandbox.signals());
    const auto ticks = query(recording.sandbox.signals(), "SELECT ts_ms FROM ticks WHERE ts_ms <= " + std::to_string(lastMs) +
                                                              " ORDER BY ts_ms DESC LIMIT 1");
    ASSERT_EQ(ticks.size(), 1u);
    const auto outcome = HistoricalWindowContent::reconstructDetailed(reader, std::stoll(*ticks[0][0]), "Editor", 1, {},
                                                                      *FrameArchive::forDataRoot(recording.sandbox.root));
    const auto* sighted = std::get_if<HistoricalWindowContent::Sighted>(&outcome);
    ASSERT_TRUE(sighted) << std::get<HistoricalWindowContent::Blind>(outcome).detail;
    EXPECT_NE(sighted->ocrText.find("budget"), std::string::npos) << sighted->ocrText;
}

TEST(Recorder, ADenylistedWindowIsNeverRecordedAndTheSidecarShowsTheGap) {
    Recording recording;
    XvfbDisplay xvfb;
    const ScreenRect editor{20, 20, 500, 300}, vault{700, 400, 500, 300};
    TestWindow window(xvfb, "Editor", editor, {"notes"});
    recording.agent = recording.start(xvfb);
    ASSERT_TRUE(eventually([&] { return recording.frames() >= 3; }, 40000)) << recording.messages();
    int64_t shownMs = 0, goneMs = 0;
    {
        TestWindow secret(xvfb, "KeePassXC", vault, {"hunter2"});
        shownMs = wallClockMs();
        ASSERT_TRUE(eventually([&] { return recording.messages().find("KeePassXC is on screen") != std::string::npos; }))
            << recording.messages();
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    }
    goneMs = wallClockMs();
    const size_t before = recording.frames();
    ASSERT_TRUE(eventually([&] { return recording.frames() >= before + 3; }, 40000)) << recording.messages();
    EXPECT_EQ(recording.agent->stop(), 0);

    std::set<std::string> files;
    bool pausedInGap = false;
    for (const auto& row : recording.sidecar().rows) {
        if (!row.file.empty()) files.insert(row.file);
        EXPECT_FALSE(!row.file.empty() && row.realMs >= shownMs && row.realMs <= goneMs) << "a frame while it was shown";
        pausedInGap = pausedInGap || (row.file.empty() && row.realMs >= shownMs - 2000 && row.realMs <= goneMs);
    }
    EXPECT_TRUE(pausedInGap);
    ASSERT_EQ(files.size(), 2u) << "recording stopped and started again";
    size_t decoded = 0;
    for (const auto& file : files)
        for (const auto& frame : recording.decode(recording.display / file)) {
            ++decoded;
            EXPECT_GT(meanInside(frame, screenWidth, inset(editor)), 200);
            EXPECT_LT(meanInside(frame, screenWidth, inset(vault)), 200) << "the denylisted window was recorded";
        }
    EXPECT_GE(decoded, before + 3);
}

TEST(Recorder, AMissingDyingOrSilentFfmpegIsToldOnceRetriedAndSamplingGoesOn) {
    XvfbDisplay xvfb;
    TestWindow window(xvfb, "Editor", {0, 0, 300, 200});
    struct Case {
        std::string name, script, told;
    } cases[] = {
        {"missing", "", "ffmpeg was not found"},
        {"dying", "echo run >>\"$0.runs\"; echo 'cannot open display' >&2; exit 1", "ffmpeg stopped (cannot open display)"},
        // Two good frames, then nothing while the pipe stays open.
        {"silent", "echo run >>\"$0.runs\"; " + ffmpeg + " -v error -f lavfi -i testsrc=size=64x64:rate=1 -frames:v 2 " +
                       "-c:v libx264 -f mpegts pipe:1; exec /bin/sleep 600",
         "ffmpeg sent no frame for"},
    };
    std::vector<std::unique_ptr<Recording>> recordings;
    for (const auto& c : cases) {
        auto& recording = *recordings.emplace_back(std::make_unique<Recording>());
        const fs::path script = recording.sandbox.temp / "ffmpeg";
        if (!c.script.empty()) {
            writeFile(script, "#!/bin/sh\n" + c.script + "\n");
            fs::permissions(script, fs::perms::owner_all);
        }
        recording.agent = recording.start(xvfb, {{"AIMCAP_FFMPEG", script.string()}});
    }
    for (size_t i = 0; i < recordings.size(); ++i) {
        auto& recording = *recordings[i];
        const auto told = [&] { return recording.messages().find(cases[i].told) != std::string::npos; };
        ASSERT_TRUE(eventually(told, 20000)) << cases[i].name << ": " << recording.messages();
    }
    std::this_thread::sleep_for(std::chrono::seconds(5));
    for (size_t i = 0; i < recordings.size(); ++i) {
        auto& recording = *recordings[i];
        const std::string messages = recording.messages();
        const std::regex fault("recording stopped: [^\n]*; trying again in 2 s\\. The capture agent goes on sampling\\.\n");
        EXPECT_EQ(std::distance(std::sregex_iterator(messages.begin(), messages.end(), fault), std::sregex_iterator()), 1)
            << cases[i].name << ": " << messages;
        const int64_t ticks = count(recording.sandbox.signals(), "ticks");
        EXPECT_TRUE(eventually([&] { return count(recording.sandbox.signals(), "ticks") > ticks + 3; })) << cases[i].name;
        if (cases[i].name == "dying") {
            EXPECT_GE(readFile(recording.sandbox.temp / "ffmpeg.runs").size(), 2 * 4u) << "retried";
        }
        EXPECT_EQ(recording.agent->stop(), 0);
    }
}

}  // namespace
}  // namespace aimwise::testing
