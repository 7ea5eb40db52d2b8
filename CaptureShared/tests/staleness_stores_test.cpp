// The small files around the freshness gate: the stale note, the capture-removal intent and
// the recording agents' pause file.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "CaptureShared/staleness/capture_removal_intent.h"
#include "CaptureShared/staleness/recording_pause.h"
#include "CaptureShared/staleness/signals_stale_note.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::readFile;
using testing::TempDir;
using testing::writeFile;
using SignalsStaleness::PauseActive;
using SignalsStaleness::PauseNone;
using Pause = SignalsStaleness::Pause;

constexpr int64_t noon = 1'795'348'800'000;  // 2026-11-22T12:00:00Z

// Garbage that none of the readers may take for a value.
const std::vector<std::string> garbage = {
    "", "{", "[]", "null", "\"text\"",
    "{\"lastGoodTickAtMs\": \"1\", \"updatedAt\": \"2026-11-22T12:00:00Z\"}",
    "{\"lastGoodTickAtMs\": 1.5, \"updatedAt\": \"2026-11-22T12:00:00Z\"}",
    "{\"lastGoodTickAtMs\": 1, \"updatedAt\": 1763812800}",
    "{\"removedAt\": \"yesterday\"}",
    "{\"requestedMs\": 1}",
    "{\"requestedMs\": 1, \"untilMs\": 2, \"reason\": 7}",
    "{\"requestedMs\": 1, \"untilMs\": 2, \"resumedAtMs\": true}",
    "{\"requestedMs\": 18446744073709551615, \"untilMs\": 2}",
    "{\"removedAt\": \"2026-11-22T12:00:00Z\", \"bad\": \"\xff\xfe\"}",
    std::string("{\"removedAt\": \"2026-11-22T12:00:00Z\"}\0trailing", 46),
    "{\"removedAt\": \"2026-11-22T12:00:00Z\", \"pad\": \"" + std::string(70'000, 'x') + "\"}"};

TEST(SignalsStaleNoteStore, WritesSortedKeysAndISODatesPrivatelyAndReadsThemBack) {
    TempDir dir;
    const auto support = dir / "support" / "AimCapture";
    SignalsStaleNoteStore::write({noon - 600'000, noon + 250}, support);
    SignalsStaleNoteStore::write({noon - 600'000, noon + 60'250}, support);

    EXPECT_EQ(readFile(support / "signals-stale-note.json"),
              "{\"lastGoodTickAtMs\":1795348200000,\"updatedAt\":\"2026-11-22T12:01:00Z\"}");
    struct stat info {};
    ASSERT_EQ(::stat((support / "signals-stale-note.json").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(support), {}), 1) << "no temporary left behind";
    EXPECT_EQ(SignalsStaleNoteStore::read(support), (SignalsStaleNote{noon - 600'000, noon + 60'000}));

    SignalsStaleNoteStore::clear(support);
    EXPECT_EQ(SignalsStaleNoteStore::read(support), std::nullopt);
    SignalsStaleNoteStore::clear(support);  // already gone: nothing to report

    writeFile(dir / "blocker", "a file where the directory should be");
    EXPECT_THROW(SignalsStaleNoteStore::write({1, noon}, dir / "blocker" / "x"), std::filesystem::filesystem_error);
}

TEST(SignalsStaleNoteStore, GarbageAndEveryTruncationReadAsNothing) {
    TempDir dir;
    for (const std::string& text : garbage) {
        writeFile(dir / SignalsStaleNoteStore::fileName, text);
        EXPECT_EQ(SignalsStaleNoteStore::read(dir.path()), std::nullopt) << text.substr(0, 80);
    }
    SignalsStaleNoteStore::write({noon - 1000, noon}, dir.path());
    const std::string whole = readFile(dir / SignalsStaleNoteStore::fileName);
    for (size_t length = 0; length < whole.size(); ++length) {
        writeFile(dir / SignalsStaleNoteStore::fileName, whole.substr(0, length));
        EXPECT_EQ(SignalsStaleNoteStore::read(dir.path()), std::nullopt) << length;
    }
}

TEST(SignalsStaleNoteStore, ANoteIsCurrentFromItsDateToFiveMinutesAfter) {
    const SignalsStaleNote note{1, noon};
    EXPECT_TRUE(SignalsStaleNoteStore::isCurrent(note, noon));
    EXPECT_TRUE(SignalsStaleNoteStore::isCurrent(note, noon + 300'000));
    EXPECT_FALSE(SignalsStaleNoteStore::isCurrent(note, noon + 300'001));
    EXPECT_FALSE(SignalsStaleNoteStore::isCurrent(note, noon - 1000));  // dated in the future
}

TEST(CaptureRemovalIntentStore, RoundTripsToleratesOtherDateFormsAndRejectsGarbage) {
    TempDir dir;
    CaptureRemovalIntentStore::write({noon}, dir / "nested");
    EXPECT_EQ(readFile(dir / "nested" / "capture-removal-intent.json"), "{\"removedAt\":\"2026-11-22T12:00:00Z\"}");
    EXPECT_EQ(CaptureRemovalIntentStore::read(dir / "nested"), CaptureRemovalIntent{noon});
    CaptureRemovalIntentStore::clear(dir / "nested");
    EXPECT_EQ(CaptureRemovalIntentStore::read(dir / "nested"), std::nullopt);

    for (const std::string& text : garbage) {
        writeFile(dir / CaptureRemovalIntentStore::fileName, text);
        EXPECT_EQ(CaptureRemovalIntentStore::read(dir.path()), std::nullopt) << text.substr(0, 80);
    }
    writeFile(dir / CaptureRemovalIntentStore::fileName, "{\"removedAt\":\"2026-11-22T13:00:00.500+01:00\"}");
    EXPECT_EQ(CaptureRemovalIntentStore::read(dir.path()), CaptureRemovalIntent{noon + 500});
}

TEST(CaptureRemovalIntentStore, OnlyActivityBeyondTheMarginSupersedesTheRemoval) {
    const CaptureRemovalIntent intent{noon};
    EXPECT_FALSE(CaptureRemovalIntentStore::isSuperseded(intent, std::nullopt, 0));
    EXPECT_FALSE(CaptureRemovalIntentStore::isSuperseded(intent, noon + 5000, 5000));
    EXPECT_TRUE(CaptureRemovalIntentStore::isSuperseded(intent, noon + 5001, 5000));
}

TEST(RecordingPauseStore, AMissingFileIsNoneAndABadOneUnreadable) {
    TempDir dir;
    const auto file = dir / "recording-pause.json";
    using Reading = RecordingPauseStore::Reading;
    EXPECT_EQ(RecordingPauseStore::read(file), Reading{RecordingPauseStore::None{}});

    writeFile(file, R"({"requestedMs": 100, "untilMs": 200, "reason": "meeting", "resumedAtMs": 150, "extra": 1})");
    EXPECT_EQ(RecordingPauseStore::read(file), Reading{(RecordingPause{100, 200, "meeting", 150})});
    writeFile(file, R"({"requestedMs": 100, "untilMs": 200, "reason": null, "resumedAtMs": null})");
    EXPECT_EQ(RecordingPauseStore::read(file), Reading{(RecordingPause{100, 200, {}, {}})});

    for (const std::string& text : garbage) {
        writeFile(file, text);
        EXPECT_EQ(RecordingPauseStore::read(file), Reading{RecordingPauseStore::Unreadable{}}) << text.substr(0, 80);
    }
}

TEST(CurrentRecordingPause, APauseHoldsUntilItsEndOrAnEarlierResume) {
    const RecordingPause pause{1000, 5000, "lunch", std::nullopt};
    EXPECT_EQ(pauseAt(pause, 4999), Pause{PauseActive{1000}});
    EXPECT_EQ(pauseAt(pause, 5000), Pause{PauseNone{}});
    EXPECT_EQ(pauseAt(RecordingPause{1000, 5000, {}, 3000}, 2999), Pause{PauseActive{1000}});
    EXPECT_EQ(pauseAt(RecordingPause{1000, 5000, {}, 3000}, 3000), Pause{PauseNone{}});
    EXPECT_EQ(pauseAt(RecordingPause{1000, 5000, {}, 9000}, 5000), Pause{PauseNone{}});
    EXPECT_EQ(pauseAt(RecordingPauseStore::None{}, 0), Pause{PauseNone{}});
    EXPECT_EQ(pauseAt(RecordingPauseStore::Unreadable{}, 0), Pause{PauseActive{std::nullopt}});
}

TEST(CurrentRecordingPause, ReadsThePauseFileInTheSupportDirectory) {
    TempDir dir;
    testing::ScopedEnvironment environment;
    environment.set("XDG_DATA_HOME", dir.path().string());
    EXPECT_EQ(currentRecordingPause(noon), Pause{PauseNone{}});
    writeFile(dir / "AimCapture" / "recording-pause.json", R"({"requestedMs": 5, "untilMs": 1795348800001})");
    EXPECT_EQ(currentRecordingPause(noon), Pause{PauseActive{5}});
    EXPECT_EQ(currentRecordingPause(noon + 1), Pause{PauseNone{}});
    writeFile(dir / "AimCapture" / "recording-pause.json", "{broken");
    EXPECT_EQ(currentRecordingPause(noon), Pause{PauseActive{std::nullopt}});
}

}  // namespace
}  // namespace aimwise
