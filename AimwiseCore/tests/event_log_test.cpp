#include "AimwiseCore/events/event_log.h"

#include <gtest/gtest.h>
#include <unicode/timezone.h>
#include <unistd.h>

#include <fstream>

#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::TempDir;

// 2026-11-22 14:05 in New York.
constexpr int64_t declaredAt = 1'795'374'300'000;

std::string event(int64_t ts, const std::string& type, const std::string& detail) {
    return R"({"ts_ms":)" + std::to_string(ts) + R"(,"kind":"event","type":")" + type + R"(","detail":)" + detail +
           R"(,"source":"coach-core"})" + "\n";
}

std::string declared(const std::string& task, int64_t ts = declaredAt) {
    return event(ts, "task_declared", R"({"task":")" + task + R"("})");
}

std::string chatter(size_t bytes) {
    std::string out;
    int64_t ts = 1;
    while (out.size() < bytes) out += event(ts++, "app_chat_message", R"({"role":"user","text":"just working here"})");
    return out;
}

void append(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out << bytes;
}

class EventLogRead : public ::testing::Test {
protected:
    void SetUp() override {
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("America/New_York"));
        EventLog::resetForTesting();
    }
    void TearDown() override { icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC")); }
    TempDir dir;
    std::filesystem::path path = dir / "io-layer" / "events.jsonl";
};

TEST_F(EventLogRead, RendersTheDeclaredTaskWithItsEstimateAndWhy) {
    const JSONValue detail = JSONValue::Object{{"task", "draft"}, {"notes", "write the report"}, {"horizon_minutes", 45}, {"why", "due today"}};
    EXPECT_EQ(EventLog::taskFileBody("task_declared", &detail, declaredAt),
              "Task: write the report\nDeclared: 2026-11-22 2:05PM ET\nEstimate: until 2:50pm\nWhy: due today\n");
    const JSONValue until = JSONValue::Object{{"task", "read"}, {"until", "lunch"}, {"why", 3}};
    EXPECT_EQ(EventLog::taskFileBody("task_declared", &until, declaredAt),
              "Task: read\nDeclared: 2026-11-22 2:05PM ET\nEstimate: until lunch\n");
    const JSONValue nothing = JSONValue::Object{{"why", "x"}};
    EXPECT_FALSE(EventLog::taskFileBody("task_declared", &nothing, declaredAt));
    EXPECT_FALSE(EventLog::taskFileBody("task_declared", nullptr, declaredAt));
    const JSONValue endless = JSONValue::Object{{"task", "read"}, {"horizon_minutes", 1e300}};
    EXPECT_EQ(EventLog::taskFileBody("task_declared", &endless, declaredAt), "Task: read\nDeclared: 2026-11-22 2:05PM ET\n");
    EXPECT_EQ(EventLog::taskFileBody("task_cleared", nullptr, declaredAt), "");
    EXPECT_FALSE(EventLog::taskFileBody("coach_checkin", &detail, declaredAt));
}

TEST_F(EventLogRead, TheNewestTaskEventWinsAndMentionsInChatDoNot) {
    EXPECT_FALSE(EventLog::read(path)) << "no log";
    testing::writeFile(path, declared("first") + event(2, "app_chat_message", R"({"text":"I said task_declared, not really"})") +
                                 "{\"type\":\"task_declared\", broken\n");
    EXPECT_EQ(EventLog::read(path), "Task: first\nDeclared: 2026-11-22 2:05PM ET\n");

    append(path, event(3, "task_cleared", "{}"));
    EXPECT_EQ(EventLog::read(path), "") << "cleared is the empty text, not nothing";
    append(path, event(4, "coach_checkin", R"({"note":"task_cleared in passing"})"));
    EXPECT_EQ(EventLog::read(path), "");
    append(path, declared("second"));
    EXPECT_EQ(EventLog::read(path), "Task: second\nDeclared: 2026-11-22 2:05PM ET\n");

    append(path, event(5, "task_declared", R"({"why":"no task text"})"));
    EXPECT_FALSE(EventLog::read(path)) << "an accepted line that renders nothing wins too";

    EventLog::resetForTesting();
    append(path, R"({"ts_ms":6,"type":"task_cleared"} )");
    EXPECT_EQ(EventLog::read(path), "") << "a torn last line that parses counts";
    append(path, "then garbage\n");
    EXPECT_FALSE(EventLog::read(path)) << "until it is finished as something else";
}

TEST_F(EventLogRead, ARecentTaskCostsOneWindowAndAnAppendOnlyItsNewBytes) {
    testing::writeFile(path, chatter(3 << 20) + declared("deep work") + chatter(20'000));
    EXPECT_EQ(EventLog::read(path), "Task: deep work\nDeclared: 2026-11-22 2:05PM ET\n");
    EXPECT_EQ(EventLog::statistics().windowReads, 1);

    EXPECT_EQ(EventLog::read(path), "Task: deep work\nDeclared: 2026-11-22 2:05PM ET\n");
    EXPECT_EQ(EventLog::statistics().bytesRead, 65536) << "an unchanged file is answered from the cache";

    append(path, chatter(500));
    EXPECT_EQ(EventLog::read(path), "Task: deep work\nDeclared: 2026-11-22 2:05PM ET\n") << "no task in the new bytes";
    EXPECT_EQ(EventLog::statistics().windowReads, 1);
    EXPECT_EQ(EventLog::statistics().appendedScans, 1);
    EXPECT_LT(EventLog::statistics().bytesRead, 65536 + 2000);

    const std::string later = declared("after lunch");
    append(path, later.substr(0, 40));
    EXPECT_EQ(EventLog::read(path), "Task: deep work\nDeclared: 2026-11-22 2:05PM ET\n") << "half a line is not yet a task";
    append(path, later.substr(40));
    EXPECT_EQ(EventLog::read(path), "Task: after lunch\nDeclared: 2026-11-22 2:05PM ET\n");
}

TEST_F(EventLogRead, AnOldTaskIsFoundAcrossWindowsAndLongLines) {
    const std::string longLine = event(9, "app_chat_message", R"({"text":")" + std::string(200'000, 'y') + R"("})");
    testing::writeFile(path, declared("old") + longLine + chatter(300'000) + longLine);
    EXPECT_EQ(EventLog::read(path), "Task: old\nDeclared: 2026-11-22 2:05PM ET\n");
    EXPECT_GT(EventLog::statistics().windowReads, 5);
}

TEST_F(EventLogRead, AReplacedOrTruncatedFileIsScannedAfresh) {
    testing::writeFile(path, declared("one") + chatter(1000));
    EXPECT_EQ(EventLog::read(path), "Task: one\nDeclared: 2026-11-22 2:05PM ET\n");
    testing::writeFile(dir / "next", chatter(1000));
    std::filesystem::rename(dir / "next", path);
    EXPECT_FALSE(EventLog::read(path));
    ASSERT_EQ(::truncate(path.c_str(), 0), 0);
    append(path, declared("two"));
    EXPECT_EQ(EventLog::read(path), "Task: two\nDeclared: 2026-11-22 2:05PM ET\n");
    std::filesystem::remove(path);
    EXPECT_FALSE(EventLog::read(path));
}

TEST_F(EventLogRead, EveryTruncationOfALogAnswersAsTheLinesBeforeTheCutSay) {
    const std::string first = declared("first");
    const std::string cleared = event(3, "task_cleared", "{}");
    const std::string log = first + "\xff\xfe garbage\n" + event(2, "x", "[]") + cleared + "[\"task_declared\"]\n";
    for (size_t n = 0; n <= log.size(); ++n) {
        EventLog::resetForTesting();
        testing::writeFile(path, log.substr(0, n));
        const auto text = EventLog::read(path);
        // A cut line that still parses is a whole line, so a prefix answers like its complete lines, or
        // like the cut line when the cut fell just before its newline.
        if (n >= log.find(cleared) + cleared.size() - 1)
            EXPECT_EQ(text, "") << n;
        else if (n >= first.size() - 1)
            EXPECT_EQ(text, "Task: first\nDeclared: 2026-11-22 2:05PM ET\n") << n;
        else
            EXPECT_FALSE(text) << n;
        // And the cached answer follows the file as it grows back to whole.
        append(path, log.substr(n));
        EXPECT_EQ(EventLog::read(path), "") << n;
    }
}

}  // namespace
}  // namespace aimwise
