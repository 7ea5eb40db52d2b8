// The recorder's decisions without a screen: when it may record, what retention deletes, and what
// the setting file may say.
#include <gtest/gtest.h>

#include <utime.h>

#include "CaptureShared/video/video_stream_decryptor.h"
#include "CaptureShared/video/video_stream_encryptor.h"
#include "agents/capture/recording_file.h"
#include "agents/capture/recording_gate.h"
#include "agents/capture/recording_retention.h"
#include "agents/capture/recording_setting.h"
#include "tests/support/run_process.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;
using RecordingGate::Reason;

TEST(RecordingGate, TheFirstReasonToHoldWinsAndTheDiskHasTwoMarks) {
    const RecordingGate::Inputs ready{.enabled = true, .rootPrepared = true, .displayReachable = true,
                                      .freeBytes = 2'100'000'000};
    const struct {
        std::function<void(RecordingGate::Inputs&)> change;
        std::optional<Reason> expected;
    } cases[] = {
        {[](auto&) {}, std::nullopt},
        {[](auto& in) { in.enabled = false, in.wayland = true; }, Reason::off},
        {[](auto& in) { in.wayland = true, in.locked = true; }, Reason::wayland},
        {[](auto& in) { in.dataRootUnavailable = "configured data root (/x) isn't mounted", in.rootPrepared = false; },
         Reason::noDataRoot},
        {[](auto& in) { in.rootPrepared = false, in.pauseInForce = true; }, Reason::rootNotPrepared},
        {[](auto& in) { in.pauseInForce = true, in.displayReachable = false; }, Reason::pauseInForce},
        {[](auto& in) { in.displayReachable = false, in.locked = true; }, Reason::noDisplay},
        {[](auto& in) { in.locked = true, in.deniedApp = "KeePassXC"; }, Reason::locked},
        {[](auto& in) { in.deniedApp = "KeePassXC", in.freeBytes = 1; }, Reason::deniedWindow},
        {[](auto& in) { in.freeBytes = 1'999'999'999; }, Reason::lowDisk},
        {[](auto& in) { in.heldForDisk = true; }, Reason::lowDisk},
        {[](auto& in) { in.heldForDisk = true, in.freeBytes = 2'500'000'000; }, std::nullopt},
        {[](auto& in) { in.freeBytes.reset(); }, std::nullopt},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        auto in = ready;
        cases[i].change(in);
        const auto decision = RecordingGate::decide(in);
        const auto* held = std::get_if<RecordingGate::Held>(&decision);
        EXPECT_EQ(held ? std::optional(held->reason) : std::nullopt, cases[i].expected) << "case " << i;
    }
    auto low = ready;
    low.freeBytes = 1'850'000'000;
    EXPECT_EQ(std::get<RecordingGate::Held>(RecordingGate::decide(low)).words,
              "only 1.9 GB is free on the data root's disk, and recording stops below 2.0 GB so that the disk never fills");
}

TEST(RecordingGate, ADenylistedWindowAnywhereOnTheScreenHoldsIt) {
    const ScreenRect screen{0, 0, 1920, 1080};
    const auto window = [](std::string owner, double x, double width = 400) {
        return DesktopWindow{.ownerName = owner, .bundleId = owner, .x = x, .y = 0, .width = width, .height = 300};
    };
    const struct {
        DesktopSnapshot snapshot;
        std::optional<std::string> denied;
    } cases[] = {
        {{.front = window("Code", 0), .windows = {window("Code", 0), window("firefox", 500)}}, std::nullopt},
        {{.front = window("Code", 0), .windows = {window("Code", 0), window("KeePassXC", 1500)}}, "KeePassXC"},
        {{.front = window("keepassxc", 0, 0)}, "keepassxc"},
        {{.windows = {window("Bitwarden", 1920)}}, std::nullopt},  // beside the screen, not on it
        {{.windows = {window("Diary", 10)}}, "Diary"},           // the person's own addition
        {{.windows = {window("Gcr-prompter", 10)}}, "Gcr-prompter"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(RecordingGate::deniedAppOnScreen(c.snapshot, screen, {"diary"}), c.denied);
}

TEST(RecordingRetention, DeletesOnlyItsOwnOldSealedFilesAndTheirRows) {
    testing::TempDir dir;
    const fs::path display = dir / "display-1", other = dir / "elsewhere";
    const int64_t nowMs = 1'795'000'000'000, dayMs = 86'400'000;
    const auto key = VideoArchiveKey::random();
    const auto make = [&](const fs::path& path, bool sealed, int64_t writtenMs) {
        fs::create_directories(path.parent_path());
        if (sealed) VideoStreamEncryptor::create(path, key, 1)->close();
        else testing::writeFile(path, "plain video");
        const utimbuf times{writtenMs / 1000, writtenMs / 1000};
        ::utime(path.c_str(), &times);
    };
    const std::string old = RecordingRetention::fileName(nowMs - 9 * dayMs), fresh = RecordingRetention::fileName(nowMs - dayMs);
    make(display / old, true, nowMs - 8 * dayMs);
    make(display / RecordingRetention::fileName(nowMs - 9 * dayMs, 2), true, nowMs - 7 * dayMs - 1000);
    make(display / fresh, true, nowMs - dayMs);
    const std::vector<fs::path> kept{display / fresh, display / "holiday.ts.sealed", display / "rec-20260101T000000Z.mp4",
                                     display / RecordingRetention::fileName(nowMs - 20 * dayMs, 3),
                                     other / RecordingRetention::fileName(nowMs - 20 * dayMs)};
    make(kept[1], true, nowMs - 30 * dayMs);
    make(kept[2], true, nowMs - 30 * dayMs);
    make(kept[3], false, nowMs - 30 * dayMs);
    make(kept[4], true, nowMs - 30 * dayMs);
    const std::string header = "real_ms,file,frame_index,x,y,width,height\n";
    const auto row = [](int64_t ms, const std::string& file) {
        return std::to_string(ms) + "," + file + (file.empty() ? ",,,,," : ",0,0,0,640,480") + "\n";
    };
    testing::writeFile(display / "frame_timestamps.csv", header + row(nowMs - 9 * dayMs, old) + row(nowMs - 8 * dayMs, "") +
                                                              row(nowMs - 2 * dayMs, "") + row(nowMs - dayMs, fresh));

    const auto swept = RecordingRetention::sweep(dir.path(), nowMs, 7);
    EXPECT_EQ(swept.filesDeleted, 2);
    EXPECT_TRUE(swept.failures.empty());
    for (const auto& path : kept) EXPECT_TRUE(fs::exists(path)) << path;
    EXPECT_FALSE(fs::exists(display / old));
    EXPECT_EQ(testing::readFile(display / "frame_timestamps.csv"), header + row(nowMs - 2 * dayMs, "") + row(nowMs - dayMs, fresh));
}

TEST(RecordingFile, OnlyFramesALaterLookClearedReachTheDiskAndTheirRows) {
    testing::TempDir dir;
    const auto stream = testing::runProcess("/usr/bin/ffmpeg", {"-v", "error", "-f", "lavfi", "-i", "testsrc=size=64x64:rate=1",
                                                                "-frames:v", "3", "-c:v", "libx264", "-f", "mpegts", "pipe:1"});
    ASSERT_EQ(stream.exitStatus, 0) << stream.standardError;
    const auto key = VideoArchiveKey::random();
    const int64_t wallMs = 1'795'000'000'000, arrivedMono = 1000, clearAt = arrivedMono + RecordingFile::clearanceMarginMs;
    const std::string plain[] = {stream.standardOutput, ""};
    for (const bool looked : {true, false}) {
        const std::string name = looked ? "cleared.ts.sealed" : "dropped.ts.sealed";
        RecordingFile file(dir.path(), name, key, 3, {0, 0, 64, 64});
        ASSERT_TRUE(file.feed(stream.standardOutput, wallMs, arrivedMono));
        EXPECT_EQ(file.framesHeld(), 3u);
        EXPECT_EQ(file.clearThrough(clearAt - 1), 0) << "a look begun before the frames were safely grabbed";
        if (looked) {
            EXPECT_EQ(file.clearThrough(clearAt), 3);
        }
        file.close();
        EXPECT_EQ(VideoStreamDecryptor::open(dir / name, [&](uint32_t) { return key; }).readAll(), plain[looked ? 0 : 1]);
    }
    // The grabber's stamps are far from the arrival here, so the rows fall back on it.
    const std::string row = std::to_string(wallMs) + ",cleared.ts.sealed,";
    EXPECT_EQ(testing::readFile(dir / "frame_timestamps.csv"), std::string(FrameTimestamps::header) + "\n" + row +
                                                                    "0,0,0,64,64\n" + row + "1,0,0,64,64\n" + row + "2,0,0,64,64\n");
    RecordingFile garbage(dir.path(), "garbage.ts.sealed", key, 3, {0, 0, 64, 64});
    EXPECT_FALSE(garbage.feed(std::string(400, 'x'), wallMs, arrivedMono));

    // Grab stamps are 33-bit 90 kHz ticks; near the wrap they still land on the right millisecond.
    const int64_t wrapMs = (int64_t{1} << 33) / 90;
    for (const int64_t ms : {wallMs, wallMs + 123, (wallMs / wrapMs + 1) * wrapMs - 3, (wallMs / wrapMs + 1) * wrapMs + 4})
        for (const int64_t offset : {-900, 0, 900})
            EXPECT_NEAR(RecordingFile::unwrapPresentationTime(ms * 90 % (int64_t{1} << 33), ms + offset), ms, 1) << ms;
}

TEST(RecordingSetting, OnlyAReadableRequestTurnsRecordingOn) {
    using RecordingSetting::Setting;
    const struct {
        std::string text;
        std::optional<Setting> expected;
    } cases[] = {
        {R"({"enabled": true})", Setting{.enabled = true}},
        {R"({"enabled": true, "fps": 0.5, "keep_days": 3, "note": "kept"})", Setting{true, 0.5, 3}},
        {R"({"enabled": false, "fps": 2})", Setting{false, 2, 7}},
        {R"({"enabled": "yes"})", std::nullopt},
        {R"({"fps": 1})", std::nullopt},
        {R"({"enabled": true, "fps": 30})", std::nullopt},
        {R"({"enabled": true, "keep_days": 0})", std::nullopt},
        {R"({"enabled": true, "keep_days": 2.5})", std::nullopt},
        {std::string("{\"enabled\": true}\0", 18), std::nullopt},
        {"[true]", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(RecordingSetting::decode(c.text), c.expected) << c.text;
    const Setting setting{true, 0.5, 3};
    EXPECT_EQ(RecordingSetting::decode(RecordingSetting::encode(setting)), setting);
}

}  // namespace
}  // namespace aimwise
