// The small files around the freshness gate: the stale note, the capture-removal intent and
// the recording agents' pause file.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "CaptureShared/staleness/capture_removal_intent.h"
#include "CaptureShared/staleness/iso_date.h"
#include "CaptureShared/staleness/recording_pause.h"
#include "CaptureShared/staleness/signals_stale_note.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::readFile;
using testing::TempDir;
using testing::writeFile;

constexpr int64_t noon = 1'795'348'800'000;  // 2026-11-22T12:00:00Z

// Garbage that none of the readers may take for a value.
std::vector<std::string> garbageDocuments() {
    return {"",
            "{",
            "[]",
            "[{\"lastGoodTickAtMs\": 1}]",
            "null",
            "42",
            "\"text\"",
            "{\"lastGoodTickAtMs\": \"1\", \"updatedAt\": \"2026-11-22T12:00:00Z\"}",
            "{\"lastGoodTickAtMs\": 1.5, \"updatedAt\": \"2026-11-22T12:00:00Z\"}",
            "{\"lastGoodTickAtMs\": 1, \"updatedAt\": 1763812800}",
            "{\"removedAt\": \"yesterday\"}",
            "{\"requestedMs\": 1}",
            "{\"requestedMs\": \"1\", \"untilMs\": 2}",
            "{\"requestedMs\": 1, \"untilMs\": 2, \"reason\": 7}",
            "{\"requestedMs\": 1, \"untilMs\": 2, \"resumedAtMs\": true}",
            "{\"requestedMs\": 18446744073709551615, \"untilMs\": 2}",
            "{\"removedAt\": \"2026-11-22T12:00:00Z\", \"bad\": \"\xff\xfe\"}",
            std::string("{\"removedAt\": \"2026-11-22T12:00:00Z\"}\0trailing", 46),
            "{\"removedAt\": \"2026-11-22T12:00:00Z\", \"pad\": \"" + std::string(70'000, 'x') + "\"}"};
}

// ---------------------------------------------------------------------------------------------
// SignalsStaleNoteStore

TEST(SignalsStaleNoteStore, WritesSortedKeysAndISODatesAndReadsThemBack) {
    TempDir dir;
    const auto support = dir / "support" / "AimCapture";
    SignalsStaleNoteStore::write({noon - 600'000, noon + 250}, support);

    EXPECT_EQ(readFile(support / "signals-stale-note.json"),
              "{\"lastGoodTickAtMs\":1795348200000,\"updatedAt\":\"2026-11-22T12:00:00Z\"}");
    struct stat info {};
    ASSERT_EQ(::stat((support / "signals-stale-note.json").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(SignalsStaleNoteStore::read(support), (SignalsStaleNote{noon - 600'000, noon}));
}

TEST(SignalsStaleNoteStore, AFurtherWriteReplacesTheNoteAndClearRemovesIt) {
    TempDir dir;
    SignalsStaleNoteStore::write({1000, noon}, dir.path());
    SignalsStaleNoteStore::write({1000, noon + 60'000}, dir.path());
    EXPECT_EQ(SignalsStaleNoteStore::read(dir.path())->updatedAtMs, noon + 60'000);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1) << "no temporary left behind";

    SignalsStaleNoteStore::clear(dir.path());
    EXPECT_EQ(SignalsStaleNoteStore::read(dir.path()), std::nullopt);
    SignalsStaleNoteStore::clear(dir.path());  // already gone: nothing to report
}

TEST(SignalsStaleNoteStore, AWriteThatCannotCreateItsDirectoryThrows) {
    TempDir dir;
    writeFile(dir / "blocker", "a file where the directory should be");
    EXPECT_THROW(SignalsStaleNoteStore::write({1, noon}, dir / "blocker" / "support"),
                 std::filesystem::filesystem_error);
}

TEST(SignalsStaleNoteStore, MissingOrUndecodableNotesReadAsNothing) {
    TempDir dir;
    EXPECT_EQ(SignalsStaleNoteStore::read(dir.path()), std::nullopt);
    for (const std::string& text : garbageDocuments()) {
        writeFile(dir / SignalsStaleNoteStore::fileName, text);
        EXPECT_EQ(SignalsStaleNoteStore::read(dir.path()), std::nullopt) << text.substr(0, 80);
    }
    std::filesystem::remove(dir / SignalsStaleNoteStore::fileName);
    std::filesystem::create_directory(dir / SignalsStaleNoteStore::fileName);
    EXPECT_EQ(SignalsStaleNoteStore::read(dir.path()), std::nullopt);
}

TEST(SignalsStaleNoteStore, EveryTruncationReadsAsNothingOrTheWholeNote) {
    TempDir dir;
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

// ---------------------------------------------------------------------------------------------
// CaptureRemovalIntentStore

TEST(CaptureRemovalIntentStore, RoundTripsAndClears) {
    TempDir dir;
    CaptureRemovalIntentStore::write({noon}, dir / "nested");
    EXPECT_EQ(readFile(dir / "nested" / "capture-removal-intent.json"), "{\"removedAt\":\"2026-11-22T12:00:00Z\"}");
    EXPECT_EQ(CaptureRemovalIntentStore::read(dir / "nested"), CaptureRemovalIntent{noon});
    CaptureRemovalIntentStore::clear(dir / "nested");
    EXPECT_EQ(CaptureRemovalIntentStore::read(dir / "nested"), std::nullopt);
}

TEST(CaptureRemovalIntentStore, UndecodableIntentsReadAsNothing) {
    TempDir dir;
    for (const std::string& text : garbageDocuments()) {
        writeFile(dir / CaptureRemovalIntentStore::fileName, text);
        EXPECT_EQ(CaptureRemovalIntentStore::read(dir.path()), std::nullopt) << text.substr(0, 80);
    }
    // Dates written by other encoders, with fractions or offsets, are still dates.
    writeFile(dir / CaptureRemovalIntentStore::fileName, "{\"removedAt\":\"2026-11-22T13:00:00.500+01:00\"}");
    EXPECT_EQ(CaptureRemovalIntentStore::read(dir.path()), CaptureRemovalIntent{noon + 500});
}

TEST(CaptureRemovalIntentStore, OnlyActivityBeyondTheMarginSupersedesTheRemoval) {
    const CaptureRemovalIntent intent{noon};
    EXPECT_FALSE(CaptureRemovalIntentStore::isSuperseded(intent, std::nullopt, 0));
    EXPECT_FALSE(CaptureRemovalIntentStore::isSuperseded(intent, noon + 5000, 5000));
    EXPECT_TRUE(CaptureRemovalIntentStore::isSuperseded(intent, noon + 5001, 5000));
    EXPECT_FALSE(CaptureRemovalIntentStore::isSuperseded(intent, noon - 1, 0));
}

// ---------------------------------------------------------------------------------------------
// RecordingPauseStore and the pause in force

TEST(RecordingPauseStore, ReadsThePauseWithItsOptionalFields) {
    TempDir dir;
    const auto file = dir / "recording-pause.json";
    EXPECT_EQ(RecordingPauseStore::read(file), RecordingPauseStore::Reading{RecordingPauseStore::None{}});

    writeFile(file, R"({"requestedMs": 100, "untilMs": 200, "reason": "meeting", "resumedAtMs": 150, "extra": 1})");
    EXPECT_EQ(RecordingPauseStore::read(file), RecordingPauseStore::Reading{(RecordingPause{100, 200, "meeting", 150})});

    writeFile(file, R"({"requestedMs": 100, "untilMs": 200, "reason": null, "resumedAtMs": null})");
    EXPECT_EQ(RecordingPauseStore::read(file),
              RecordingPauseStore::Reading{(RecordingPause{100, 200, std::nullopt, std::nullopt})});
}

TEST(RecordingPauseStore, AFileThatDoesNotDecodeIsUnreadableNotAbsent) {
    TempDir dir;
    const auto file = dir / "recording-pause.json";
    for (const std::string& text : garbageDocuments()) {
        writeFile(file, text);
        EXPECT_EQ(RecordingPauseStore::read(file), RecordingPauseStore::Reading{RecordingPauseStore::Unreadable{}})
            << text.substr(0, 80);
    }
}

TEST(RecordingPauseStore, ThePauseFileLivesInTheSupportDirectory) {
    TempDir dir;
    testing::ScopedEnvironment environment;
    environment.set("XDG_DATA_HOME", dir.path().string());
    EXPECT_EQ(RecordingPauseStore::path(), dir / "AimCapture" / "recording-pause.json");

    EXPECT_EQ(currentRecordingPause(noon), SignalsStaleness::Pause{SignalsStaleness::PauseNone{}});
    writeFile(dir / "AimCapture" / "recording-pause.json", R"({"requestedMs": 5, "untilMs": 1795348800001})");
    EXPECT_EQ(currentRecordingPause(noon), SignalsStaleness::Pause{SignalsStaleness::PauseActive{5}});
    EXPECT_EQ(currentRecordingPause(noon + 1), SignalsStaleness::Pause{SignalsStaleness::PauseNone{}});
    writeFile(dir / "AimCapture" / "recording-pause.json", "{broken");
    EXPECT_EQ(currentRecordingPause(noon), SignalsStaleness::Pause{SignalsStaleness::PauseActive{std::nullopt}});
}

TEST(CurrentRecordingPause, APauseHoldsUntilItsEndOrAnEarlierResume) {
    using SignalsStaleness::PauseActive;
    using SignalsStaleness::PauseNone;
    using Pause = SignalsStaleness::Pause;
    const RecordingPause pause{1000, 5000, "lunch", std::nullopt};
    EXPECT_EQ(pauseAt(pause, 4999), Pause{PauseActive{1000}});
    EXPECT_EQ(pauseAt(pause, 5000), Pause{PauseNone{}});
    // Before it was requested it is already in force: the file says nothing of a start later than now.
    EXPECT_EQ(pauseAt(pause, 0), Pause{PauseActive{1000}});

    EXPECT_EQ(pauseAt(RecordingPause{1000, 5000, {}, 3000}, 2999), Pause{PauseActive{1000}});
    EXPECT_EQ(pauseAt(RecordingPause{1000, 5000, {}, 3000}, 3000), Pause{PauseNone{}});
    EXPECT_EQ(pauseAt(RecordingPause{1000, 5000, {}, 9000}, 4999), Pause{PauseActive{1000}});
    EXPECT_EQ(pauseAt(RecordingPause{1000, 5000, {}, 9000}, 5000), Pause{PauseNone{}});

    EXPECT_EQ(pauseAt(RecordingPauseStore::None{}, 0), Pause{PauseNone{}});
    EXPECT_EQ(pauseAt(RecordingPauseStore::Unreadable{}, 0), Pause{PauseActive{std::nullopt}});
}

}  // namespace
}  // namespace aimwise
