#include "AimwiseCore/events/event_log_reader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "AimwiseCore/events/event_log_cursor.h"
#include "AimwiseCore/events/log_file_read.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

std::string eventLine(int64_t ts, const std::string& type, const std::string& note = "") {
    return R"({"ts_ms":)" + std::to_string(ts) + R"(,"kind":"event","type":")" + type + R"(","detail":{"note":")" + note +
           R"("},"source":"coach-core"})" + "\n";
}

const std::string smallLog = eventLine(30, "coach_checkin", "c") + "\n" + eventLine(10, "task_declared", "a") +
                             "[1,2,3]\n" + eventLine(20, "task_cleared", "b") + "{\"ts_ms\":5}\n" +
                             eventLine(10, "backoff_set", "a2") + "not json at all\n" + eventLine(40, "ui_opened", "d");

TEST(EventLogParsing, SkipsBadLinesAndSortsStablyByTime) {
    const auto events = EventLogReader::parse(smallLog);
    ASSERT_EQ(events.size(), 5u);
    std::vector<std::string> notes;
    for (const auto& event : events) notes.push_back(*event.detail.member("note")->stringValue());
    EXPECT_EQ(notes, (std::vector<std::string>{"a", "a2", "b", "c", "d"})) << "equal times keep their file order";

    std::string unterminated = smallLog;
    unterminated.pop_back();
    EXPECT_EQ(EventLogReader::parse(unterminated).size(), 5u) << "a last line without newline still decodes";
    EXPECT_TRUE(EventLogReader::parse("").empty());
    EXPECT_TRUE(EventLogReader::parse("\n\n\n").empty());
    EXPECT_EQ(EventLogReader::parse("\xff\xfe\n" + eventLine(1, "x") + "\x80\n").size(), 1u);
}

TEST(EventLogParsing, EveryTruncationOfALogParsesWithoutCrashingAndKeepsItsCompleteLines) {
    size_t previous = 0;
    for (size_t n = 0; n <= smallLog.size(); ++n) {
        const std::string_view prefix(smallLog.data(), n);
        const auto events = EventLogReader::parse(prefix);
        EXPECT_GE(events.size() + 1, previous) << "at most the line being cut is lost, at " << n;
        previous = events.size();
        // Every complete line in the prefix is there.
        size_t complete = 0;
        forEachLine(prefix.substr(0, prefix.rfind('\n') == std::string_view::npos ? 0 : prefix.rfind('\n') + 1),
                    [&](std::string_view line) { complete += EventLogEvent::decode(line) ? 1 : 0; });
        EXPECT_GE(events.size(), complete) << n;
    }
}

TEST(ClassifierLogParsing, SortsByTheTextOfAtNotByParsedTime) {
    const std::string log = R"({"at":"2026-01-02T00:00:00","state":"B"})" "\n"
                            R"({"at":"2026-01-01T23:00:00","state":"A"})" "\n"
                            R"({"at":"2026-01-02T00:00:00","state":"C"})" "\n"
                            R"({"state":"no time"})" "\n"
                            R"(["at"])" "\n"
                            R"({"at":"2026-01-01T9:00:00","state":"Z"})";
    const auto ticks = ClassifierLogReader::parse(log);
    std::string order;
    for (const auto& tick : ticks) order += *tick.state;
    EXPECT_EQ(order, "AZBC") << "byte order of the text (9 o'clock after 23), stable for equal texts";
    for (size_t n = 0; n <= log.size(); ++n) ClassifierLogReader::parse(std::string_view(log.data(), n));
}

TEST(LogFileReads, TellAMissingFileFromAnUnreadableOne) {
    testing::TempDir dir;
    const auto missing = LogFileRead::attempt(dir / "events.jsonl", EventLogReader::read);
    EXPECT_TRUE(std::holds_alternative<LogFileRead::Absent>(missing));

    testing::writeFile(dir / "events.jsonl", eventLine(1, "x"));
    const auto present = LogFileRead::attempt(dir / "events.jsonl", EventLogReader::read);
    ASSERT_TRUE(std::holds_alternative<std::vector<EventLogEvent>>(present));
    EXPECT_EQ(std::get<0>(present).size(), 1u);

    std::filesystem::create_directories(dir / "dir.jsonl");
    const auto unreadable = LogFileRead::attempt(dir / "dir.jsonl", EventLogReader::read);
    ASSERT_TRUE(std::holds_alternative<LogFileRead::Unreadable>(unreadable));
    EXPECT_FALSE(std::get<LogFileRead::Unreadable>(unreadable).description.empty());
    EXPECT_TRUE(std::get<LogFileRead::Unreadable>(unreadable).error);
}

TEST(EventLogCursorAdvance, NeverMovesBackAndNeverPassesNowLessTheMargin) {
    EXPECT_EQ(EventLogCursor::advance(100, {}, 1000, 50), 100);
    EXPECT_EQ(EventLogCursor::advance(100, {300, 200}, 1000, 50), 300);
    EXPECT_EQ(EventLogCursor::advance(100, {5000, 6000}, 1000, 50), 950) << "future stamps stop at now less the margin";
    EXPECT_EQ(EventLogCursor::advance(980, {5000}, 1000, 50), 980) << "and never behind where it was";
    EXPECT_EQ(EventLogCursor::advance(100, {50}, 1000, 50), 100);
}

}  // namespace
}  // namespace aimwise
