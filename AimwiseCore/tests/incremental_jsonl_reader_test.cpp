#include "AimwiseCore/events/incremental_jsonl_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <random>

#include "AimwiseCore/events/delta_fold.h"
#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/events/retained_coach_events.h"
#include "AimwiseCore/events/retained_driver_log.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::TempDir;
using Result = IncrementalReadResult<EventLogEvent>;

std::string line(int64_t ts, const std::string& type = "coach_checkin", const std::string& detail = "{}") {
    return R"({"ts_ms":)" + std::to_string(ts) + R"(,"kind":"event","type":")" + type + R"(","detail":)" + detail +
           R"(,"source":"coach-core"})" + "\n";
}

void append(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out << bytes;
}

// Moves the modification time without touching the bytes.
void touchMtime(const std::filesystem::path& path, int64_t seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

std::vector<int64_t> times(const std::vector<EventLogEvent>& events) {
    std::vector<int64_t> out;
    for (const auto& event : events) out.push_back(event.tsMs);
    return out;
}

TEST(IncrementalReads, AnUnchangedFileCostsOneStatAndAGrownOneOnlyItsNewBytes) {
    TempDir dir;
    const auto path = dir / "events.jsonl";
    testing::writeFile(path, line(1) + line(2));
    auto reader = IncrementalJSONLReaders::events(path);

    auto first = reader.read();
    EXPECT_EQ(first.kind, Result::Kind::reset);
    EXPECT_EQ(times(first.rows), (std::vector<int64_t>{1, 2}));
    EXPECT_EQ(reader.watermark()->completeUpTo, static_cast<int64_t>(std::filesystem::file_size(path)));
    EXPECT_EQ(reader.decodeCallCount(), 2);

    auto same = reader.read();
    EXPECT_EQ(same.kind, Result::Kind::appended);
    EXPECT_TRUE(same.rows.empty());
    EXPECT_EQ(reader.decodeCallCount(), 2);
    EXPECT_EQ(reader.appendedRangeReadCount(), 0) << "an unchanged file is not opened";

    append(path, line(3));
    auto grown = reader.read();
    EXPECT_EQ(grown.kind, Result::Kind::appended);
    EXPECT_EQ(times(grown.rows), (std::vector<int64_t>{3}));
    EXPECT_EQ(reader.decodeCallCount(), 3) << "only the new line is decoded";
    EXPECT_EQ(reader.appendedRangeReadCount(), 1);
}

TEST(IncrementalReads, AHalfWrittenLastLineWaitsUntilItIsFinished) {
    TempDir dir;
    const auto path = dir / "events.jsonl";
    const std::string third = line(3);
    testing::writeFile(path, line(1) + third.substr(0, 20));
    auto reader = IncrementalJSONLReaders::events(path);
    EXPECT_EQ(times(reader.read().rows), (std::vector<int64_t>{1}));
    EXPECT_EQ(reader.watermark()->completeUpTo, static_cast<int64_t>(line(1).size()));
    EXPECT_EQ(reader.decodeCallCount(), 1) << "the fragment is not decoded, so not counted as bad";

    append(path, third.substr(20, 10));
    EXPECT_TRUE(reader.read().rows.empty());
    append(path, third.substr(30));
    const auto finished = reader.read();
    EXPECT_EQ(finished.kind, Result::Kind::appended);
    EXPECT_EQ(times(finished.rows), (std::vector<int64_t>{3}));

    std::string noNewline = line(4);
    noNewline.pop_back();
    append(path, noNewline);
    EXPECT_TRUE(reader.read().rows.empty());
    EXPECT_EQ(times(reader.readFull()), (std::vector<int64_t>{1, 3, 4})) << "readFull decodes a valid last line at once";
}

TEST(IncrementalReads, SameSizeWithANewerMtimeIsAnEmptyAppend) {
    TempDir dir;
    const auto path = dir / "events.jsonl";
    testing::writeFile(path, line(1));
    auto reader = IncrementalJSONLReaders::events(path);
    reader.read();
    const auto before = *reader.watermark();
    touchMtime(path, 2'000'000'000);
    const auto result = reader.read();
    EXPECT_EQ(result.kind, Result::Kind::appended);
    EXPECT_TRUE(result.rows.empty());
    EXPECT_EQ(reader.watermark()->mtime, 2'000'000'000.0);
    EXPECT_EQ(reader.watermark()->completeUpTo, before.completeUpTo);
}

TEST(IncrementalReads, ReplacedOrTruncatedFilesAreReadAgainInFull) {
    TempDir dir;
    const auto path = dir / "events.jsonl";
    testing::writeFile(path, line(1) + line(2));
    auto reader = IncrementalJSONLReaders::events(path);
    reader.read();

    testing::writeFile(dir / "new.jsonl", line(7) + line(8) + line(9));
    std::filesystem::rename(dir / "new.jsonl", path);
    const auto replaced = reader.read();
    EXPECT_EQ(replaced.kind, Result::Kind::reset) << "a new inode, even larger";
    EXPECT_EQ(times(replaced.rows), (std::vector<int64_t>{7, 8, 9}));

    ASSERT_EQ(::truncate(path.c_str(), static_cast<off_t>(line(7).size())), 0);
    const auto truncated = reader.read();
    EXPECT_EQ(truncated.kind, Result::Kind::reset);
    EXPECT_EQ(times(truncated.rows), (std::vector<int64_t>{7}));

    const auto held = *reader.watermark();
    std::filesystem::remove(path);
    EXPECT_THROW(reader.read(), std::filesystem::filesystem_error);
    EXPECT_EQ(reader.watermark(), held) << "a failed read leaves the watermark";
    EXPECT_THROW(reader.readFull(), std::filesystem::filesystem_error);
}

TEST(IncrementalReads, GarbageLinesAreSkippedAndAHugeLineIsSurvived) {
    TempDir dir;
    const auto path = dir / "events.jsonl";
    std::string huge = R"({"ts_ms":2,"kind":"event","type":"big","detail":{"text":")" + std::string(50 << 20, 'x') +
                       R"("},"source":"s"})" + "\n";
    testing::writeFile(path, line(1) + "[" + line(9).substr(0, line(9).size() - 1) + "]\n\xff\xfe\n\n" +
                                 std::string(1 << 20, '[') + "\n" + huge + line(3).substr(0, 30) + "\n");
    auto reader = IncrementalJSONLReaders::events(path);
    const auto rows = reader.read().rows;
    EXPECT_EQ(times(rows), (std::vector<int64_t>{1, 2}));
    EXPECT_EQ(reader.decodeCallCount(), 6) << "the empty line is passed over, not decoded";
    append(path, line(4));
    EXPECT_EQ(times(reader.read().rows), (std::vector<int64_t>{4}));
}

// Whatever byte a reader stops at, reading again after the rest arrives gives every line exactly
// once.
TEST(IncrementalReads, EverySplitPointOfALogYieldsEachLineOnce) {
    const std::string log = line(1) + "garbage\n" + line(2, "task_declared", R"({"task":"a\nb"})") + "\n" +
                            line(3, "x", R"([1,{"k":null}])") + "{\"ts_ms\":4}\n" + line(5);
    const auto expected = times(EventLogReader::parse(log));
    TempDir dir;
    const auto path = dir / "events.jsonl";
    for (size_t n = 0; n <= log.size(); ++n) {
        testing::writeFile(path, log.substr(0, n));
        auto reader = IncrementalJSONLReaders::events(path);
        auto rows = reader.read().rows;
        append(path, log.substr(n));
        const auto rest = reader.read();
        ASSERT_EQ(rest.kind, Result::Kind::appended) << n;
        rows.insert(rows.end(), rest.rows.begin(), rest.rows.end());
        EXPECT_EQ(times(rows), expected) << "split at " << n;
    }
}

TEST(IncrementalReads, RandomGrowthInRandomPiecesMatchesAFullRead) {
    TempDir dir;
    const auto path = dir / "events.jsonl";
    std::mt19937 random(7);
    std::string pending;
    for (int i = 0; i < 300; ++i) pending += (random() % 7 == 0) ? "{\"broken\n" : line(i);
    testing::writeFile(path, "");
    auto reader = IncrementalJSONLReaders::events(path);
    DeltaFold<EventLogEvent> fold([](const EventLogEvent& a, const EventLogEvent& b) { return a.tsMs < b.tsMs; });
    size_t at = 0;
    while (at < pending.size()) {
        const size_t piece = std::min(pending.size() - at, static_cast<size_t>(random() % 200));
        append(path, pending.substr(at, piece));
        at += piece;
        fold.apply(reader.read());
    }
    EXPECT_EQ(times(fold.sorted()), times(reader.readFull()));
}

TEST(DeltaFolds, ResetReplacesAppendedFollowsAndSortingIsStable) {
    DeltaFold<std::pair<int, char>> fold([](const auto& a, const auto& b) { return a.first < b.first; });
    using R = IncrementalReadResult<std::pair<int, char>>;
    fold.apply(R::reset({{2, 'a'}, {1, 'b'}}));
    fold.apply(R::appended({{1, 'c'}, {0, 'd'}}), [](auto rows) {
        rows.push_back({5, 't'});
        return rows;
    });
    EXPECT_EQ(fold.sorted(), (std::vector<std::pair<int, char>>{{0, 'd'}, {1, 'b'}, {1, 'c'}, {2, 'a'}, {5, 't'}}));
    fold.apply(R::reset({{9, 'z'}}));
    EXPECT_EQ(fold.committed.size(), 1u);
}

TEST(RetainedCoachEventsFold, KeepsChatRolesNotTextsAndOnlyListedTypes) {
    RetainedCoachEvents retained;
    const auto chat = *EventLogEvent::decode(line(1, "app_chat_message", R"({"role":"user","text":"secret plans"})"));
    const auto roleless = *EventLogEvent::decode(line(2, "app_chat_message", R"({"text":"hi"})"));
    const auto textDetail = *EventLogEvent::decode(line(3, "app_chat_message", R"("just text")"));
    const auto declared = *EventLogEvent::decode(line(4, "task_declared", R"({"task":"write","why":"deadline"})"));
    const auto dropped = *EventLogEvent::decode(line(5, "ui_opened"));
    retained.apply(Result::reset({chat, roleless, textDetail, declared, dropped}));
    ASSERT_EQ(retained.events().size(), 4u);
    EXPECT_EQ(retained.events()[0].detail, JSONValue(JSONValue::Object{{"role", "user"}}));
    EXPECT_EQ(retained.events()[1].detail, JSONValue(JSONValue::Object{{"role", nullptr}}));
    EXPECT_EQ(retained.events()[2].detail, JSONValue(JSONValue::Object{{"role", nullptr}}));
    EXPECT_EQ(retained.events()[3], declared);

    retained.apply(Result::appended({*EventLogEvent::decode(line(6, "meds_ask_offered"))}));
    EXPECT_EQ(retained.events().size(), 5u);
    retained.apply(Result::reset({dropped}));
    EXPECT_TRUE(retained.events().empty());
    EXPECT_EQ(RetainedCoachEvents::retainedTypesWithFullDetail().size(), 27u);
}

class DriverLog : public ::testing::Test {
protected:
    TempDir dir;
    std::filesystem::path events = dir / "io-layer" / "events.jsonl";
    std::filesystem::path ticks = dir / "checker-log.jsonl";
    std::vector<std::string> logged;
    RetainedDriverLog log{events, ticks, [this](const std::string& text) { logged.push_back(text); }};

    RetainedDriverLog::Ready ready() {
        auto outcome = log.refresh();
        EXPECT_TRUE(std::holds_alternative<RetainedDriverLog::Ready>(outcome));
        if (auto* r = std::get_if<RetainedDriverLog::Ready>(&outcome)) return *r;
        return {};
    }
};

TEST_F(DriverLog, AMissingEventLogIsUnreadableButAMissingClassifierLogIsNormal) {
    EXPECT_TRUE(std::holds_alternative<RetainedDriverLog::EventsUnreadable>(log.refresh()));
    testing::writeFile(events, line(2) + line(1));
    const auto first = ready();
    EXPECT_EQ(times(first.events), (std::vector<int64_t>{1, 2}));
    EXPECT_TRUE(first.ticks.empty());
    EXPECT_TRUE(logged.empty());

    testing::writeFile(ticks, R"({"at":"2026-01-01T10:00:01"})" "\n" R"({"at":"2026-01-01T10:00:00"})" "\n");
    const auto both = ready();
    ASSERT_EQ(both.ticks.size(), 2u);
    EXPECT_EQ(both.ticks[0].at, "2026-01-01T10:00:00");

    std::filesystem::remove(ticks);
    EXPECT_TRUE(ready().ticks.empty());
    EXPECT_EQ(logged, (std::vector<std::string>{"checker-log.jsonl: the file is gone -- dropped 2 retained records"}));

    std::filesystem::create_directories(ticks);
    EXPECT_TRUE(std::holds_alternative<RetainedDriverLog::TicksUnreadable>(log.refresh()));
}

TEST_F(DriverLog, ReReadsInFullWithTheCauseAndCountsBadLines) {
    testing::writeFile(events, line(1) + line(2) + line(3));
    ready();
    append(events, line(4) + "oops\n[]\n");
    EXPECT_EQ(times(ready().events), (std::vector<int64_t>{1, 2, 3, 4}));
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0],
              "events.jsonl: skipped 2 complete line(s) that did not decode (same as the full reader; counted here so it is "
              "not silent)");

    ASSERT_EQ(::truncate(events.c_str(), static_cast<off_t>(line(1).size())), 0);
    EXPECT_EQ(times(ready().events), (std::vector<int64_t>{1}));
    EXPECT_EQ(logged.back(),
              "events.jsonl: re-read in full -- the file was rotated, truncated or replaced; was holding 4 records, now 1");
}

TEST_F(DriverLog, AFailedReadKeepsWhatWasHeldAndSaysSoOnTheNextFullRead) {
    testing::writeFile(events, line(1) + line(2));
    ready();
    std::filesystem::rename(events, dir / "aside.jsonl");
    EXPECT_TRUE(std::holds_alternative<RetainedDriverLog::EventsUnreadable>(log.refresh()));
    EXPECT_EQ(times(log.events().sorted), (std::vector<int64_t>{1, 2})) << "the rows held stay";
    EXPECT_TRUE(log.events().invalidatedByFailure);
    EXPECT_FALSE(log.events().reader.watermark());

    std::filesystem::rename(dir / "aside.jsonl", events);
    EXPECT_EQ(times(ready().events), (std::vector<int64_t>{1, 2}));
    EXPECT_EQ(logged.back(), "events.jsonl: re-read in full -- after a failed read; was holding 2 records, now 2");
    EXPECT_FALSE(log.events().invalidatedByFailure);

    log.invalidate();
    EXPECT_FALSE(log.events().hasRead);
    EXPECT_TRUE(log.events().sorted.empty());
    const size_t before = logged.size();
    ready();
    EXPECT_EQ(logged.size(), before) << "the first read after invalidate is not a re-read";
}

}  // namespace
}  // namespace aimwise
