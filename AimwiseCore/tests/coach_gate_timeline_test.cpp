#include "AimwiseCore/coach/coach_gate_timeline.h"

#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <random>

#include "AimwiseCore/coach/coach_gate_message.h"
#include "AimwiseCore/coach/coach_gate_rules.h"
#include "AimwiseCore/coach/gate_message_source.h"
#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/memory/memory_store.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using namespace CoachGateTimeline;

// First among the fixture's members, so the fixture's times are read in this zone too.
struct NewYorkTime {
    NewYorkTime() { adopt("America/New_York"); }
    ~NewYorkTime() { adopt("UTC"); }
    static void adopt(const char* zone) {
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone(zone));
        DateParseMemo::shared().clear();
    }
};

class CoachGateTimelineTest : public ::testing::Test {
protected:
    NewYorkTime zone;

    static int64_t at(const std::string& local) { return *ProjectionDateParsing::parseLocalUncached(local); }
    static EventLogEvent event(const std::string& local, std::string type, JSONValue::Object detail = {}) {
        return {.tsMs = at(local), .type = std::move(type), .detail = std::move(detail)};
    }
    static EventLogEvent chat(const std::string& local, const char* role, const char* text) {
        return event(local, "app_chat_message", {{"role", role}, {"text", text}});
    }
    static ClassifierTick tick(std::string local, const char* state, const char* app, const char* title,
                               const char* reason, const char* task = "write the grant report") {
        return {.at = std::move(local), .state = state, .frontmostApp = app, .frontmostWindowTitle = title,
                .reason = reason, .declaredTask = task};
    }

    const std::vector<EventLogEvent> events{
        event("2026-03-09T08:00:00", "task_declared", {{"task", "old plan"}}),
        event("2026-03-10T07:50:00", "task_declared",
              {{"notes", "write the grant report"}, {"task", "ignored"}, {"horizon_minutes", 90}}),
        chat("2026-03-10T09:30:00", "coach", "That looks like YouTube."),
        event("2026-03-10T09:30:00", "coach_checkin"),
        chat("2026-03-10T09:32:00", "user", "yeah taking a break, back at 10"),
        chat("2026-03-10T09:40:00", "user", "actually let me finish the intro first"),
        chat("2026-03-10T09:41:00", "coach", "Sounds good."),
        chat("2026-03-10T09:50:00", "user", " "),
    };
    const char* editing = "They are \"editing\" the report";
    const char* numbered = "Statement — account number 12345678";
    const std::vector<ClassifierTick> ticks{
        tick("2026-03-10T09:00:00", "ON_TASK", "Code", "report.md", editing),
        tick("2026-03-10T09:10:00", "ON_TASK", "Code", "report.md", editing),
        tick("2026-03-10T09:19:00", "ON_TASK", "Code", "report.md", editing),
        tick("2026-03-10T09:20:00", "NOT_ALIGNED", "Firefox", "YouTube", "Watching videos"),
        tick("2026-03-10T09:31:00", "NOT_ALIGNED", "Firefox", "YouTube", "Watching videos"),
        tick("2026-03-10T09:35:00", "ABSTAINED", "Veska", "Veska", "Merl's own window was frontmost"),
        tick("2026-03-10T09:44:00", "NOT_ALIGNED", "Firefox", "YouTube", "Watching videos"),
        tick("2026-03-10T09:45:00", "ON_TASK", "Code", numbered, "Back in the editor",
             "write the grant report, intro first"),
        tick("not a time", "NOT_ALIGNED", "Slack", "general", "chatting"),
        tick("2026-03-10T10:00:00", "ON_TASK", "Code", numbered, "Back in the editor",
             "write the grant report, intro first"),
    };
    const int64_t now = at("2026-03-10T10:00:30");
};

TEST_F(CoachGateTimelineTest, AFixtureDayGivesExactlyThisGateMessage) {
    StandingMemory memory{.lessons = {"Ask about the first step once."},
                          .facts = {{"They write best before noon.", MemoryFactProvenance::asserted, {}}}};
    using Scope = CoachCorrection::Scope;
    const std::vector<CoachCorrection> corrections{{2, "don't interrupt calls", Scope::whetherToSpeak},
                                                   {1, "keep it short"},
                                                   {0, "already in memory", std::nullopt, std::nullopt, 5},
                                                   {0, "about wording only", Scope::whatToSay}};
    const CaptureWindowSummary capture{now, 10, {{"Code", 7.5}, {"Firefox", 2}}, " Code "};
    const std::string message = CoachGateMessage::build(
        events, ticks, 0, now, defaultBoundHours, capture, defaultStartStep, false,
        GateStandingNotes::render(memory, corrections, Scope::whetherToSpeak), "A standing note: \"only when it matters\"",
        std::nullopt);
    EXPECT_EQ(message,
              CoachGateRules::text() +
                  "\n\nA standing note: \"only when it matters\""
                  "\n\nWhat you have been told before, and still applies:\n- They write best before noon.\n"
                  "- Ask about the first step once.\n- keep it short (they told you this directly)\n"
                  "- don't interrupt calls (they told you this directly)"
                  "\n\nTimeline:\n"
                  "at 7:50 they declared: \"write the grant report\", giving themselves 90 minutes — until 9:20\n"
                  "at 9:00 the classifier moved to ON_TASK, saying: \"They are ʺeditingʺ the report\" — that held "
                  "19 minutes (3 samples)\n"
                  "at 9:00 their declared task became: \"write the grant report\"\n"
                  "at 9:20 the classifier moved to NOT_ALIGNED, saying: \"Watching videos\" — that held 24 minutes "
                  "(3 samples)\n"
                  "at 9:20 the 90 minutes they gave themselves at 7:50 for \"write the grant report\" ran out\n"
                  "the coach checked in at 9:30 because the classifier had said: \"Watching videos\"; they replied: "
                  "\"yeah taking a break, back at 10\"\n"
                  "at 9:40 they said: \"actually let me finish the intro first\"\n"
                  "at 9:41 the coach answered them\n"
                  "at 9:45 the classifier moved to ON_TASK, saying: \"Back in the editor\"\n"
                  "at 9:45 their declared task became: \"write the grant report, intro first\"\n"
                  "the classifier's latest observation is from 10:00: ON_TASK, unchanged since 9:45 (15 minutes), Code "
                  "frontmost (window title \"[title withheld: contained an identifier]\"), saying: \"Back in the "
                  "editor\"\n"
                  "raw capture (a sample every 1.5s, independent of the classifier), top 6 apps over the 10 minutes "
                  "to 10:00: Code 7.5 min, Firefox 2 min; frontmost at 10:00 is Code\n"
                  "it is now 10:00.\n\n" +
                  CoachGateQuestion::text());
    EXPECT_EQ(CoachGateMessage::build({}, {}, 0, now, 24, std::nullopt, 3600, true, std::nullopt, std::nullopt, "meds"),
              CoachGateRules::prefix(true) + "\n\nTimeline:\n(nothing has happened yet)\nit is now 10:00.\n\nmeds\n\n" +
                  CoachGateQuestion::text());
}

TEST_F(CoachGateTimelineTest, HeldSuffixCountsWholeMinutesFromTheFirstToTheLastSample) {
    const std::vector<std::pair<int64_t, std::string>> spans{
        {-1, " — that was a single classifier sample"},     {59'999, " — that held under a minute (2 samples)"},
        {60'000, " — that held 1 minute (2 samples)"},      {119'999, " — that held 1 minute (2 samples)"},
        {120'000, " — that held 2 minutes (2 samples)"},
    };
    const int64_t start = at("2026-03-10T09:00:00");
    for (const auto& [span, suffix] : spans) {
        std::vector<ClassifierTick> held{tick("", "ON_TASK", "Code", "", ""), tick("", "ON_TASK", "Code", "", ""),
                                         tick("", "IDLE", "Code", "", "")};
        std::vector<TimedTick> timed{{start, &held[0]}, {start + span, &held[1]}, {start + 180'000, &held[2]}};
        if (span < 0) timed.erase(timed.begin() + 1);
        const auto out = lines(std::span<const EventLogEvent>{}, timed, {start, start + 180'000});
        ASSERT_EQ(out.size(), 3u);
        EXPECT_EQ(out[0].text, "at 9:00 the classifier moved to ON_TASK" + suffix);
    }
}

TEST_F(CoachGateTimelineTest, DeclarationsStandWithTheirDateUntilSomethingReplacesThem) {
    const int64_t windowStart = at("2026-03-10T09:00:00");
    const auto declared = event("2026-03-08T22:15:00", "task_declared", {{"task", "sleep"}, {"until", "7am"}});
    EXPECT_EQ(declarationLines(std::vector{declared}, windowStart, now),
              (std::vector<Line>{{declared.tsMs, "at Mar 8, 22:15 they declared: \"sleep\", until 7am"}}));
    for (const char* replacing : {"task_declared", "task_cleared"}) {
        const auto later = event("2026-03-10T08:00:00", replacing, {{"task", "read"}});
        const auto found = declarationLines(std::vector{declared, later}, windowStart, now);
        EXPECT_TRUE(std::none_of(found.begin(), found.end(), [](const Line& l) { return l.text.find("sleep") != std::string::npos; }))
            << replacing;
    }
    const auto cleared = event("2026-03-10T09:05:00", "task_cleared");
    const auto open = event("2026-03-10T09:01:00", "task_declared", {{"task", "x"}, {"horizon_minutes", " 30 "}});
    EXPECT_EQ(declarationLines(std::vector{open, cleared}, windowStart, now),
              (std::vector<Line>{{open.tsMs, "at 9:01 they declared: \"x\", giving themselves 30 minutes — until 9:31"},
                                 {cleared.tsMs, "at 9:05 they cleared their declared task"}}));
}

TEST_F(CoachGateTimelineTest, TitlesAreWithheldIdentifierFirstThenFinancialThenMedical) {
    const std::vector<std::pair<const char*, const char*>> cases{
        {"Online Banking — account number 12345678", "\"[title withheld: contained an identifier]\""},
        {"Online Banking — Checking", "\"[banking or other financial site]\""},
        {"MyChart - Test Results", "\"[medical or health site]\""},
        {"notes “draft” \u200Bfinal", "\"notes ʺdraftʺ final\""},
    };
    for (const auto& [title, shown] : cases) {
        const ClassifierTick only = tick("", "ON_TASK", "Firefox", title, "");
        const std::vector<TimedTick> timed{{now, &only}};
        EXPECT_EQ(currentObservationLine(timed),
                  "the classifier's latest observation is from 10:00: ON_TASK, Firefox frontmost (window title " +
                      std::string(shown) + ")");
    }
}

TEST_F(CoachGateTimelineTest, TheSystemsOwnWindowIsNoObservation) {
    const std::vector<ClassifierTick> own{tick("2026-03-10T09:40:00", "NOT_ALIGNED", "Firefox", "", ""),
                                          tick("2026-03-10T09:48:00", "ABSTAINED", "Veska", "", "x"),
                                          tick("2026-03-10T10:00:00", "ON_TASK", "merl", "", "")};
    EXPECT_EQ(currentObservationSummary(own, now, 3'600'000),
              "the classifier has no observation as of 10:00: Merl's own window was frontmost, which says nothing "
              "about what they are doing, so it did not judge (since 9:48, 12 minutes)");
    EXPECT_EQ(currentObservationSummary(own, now, 60'000),
              "the classifier has no observation as of 10:00: Merl's own window was frontmost, which says nothing "
              "about what they are doing, so it did not judge");
    EXPECT_EQ(captureWindowLine({now, 5, {}, std::nullopt}), std::nullopt);
    EXPECT_EQ(captureWindowLine({now, 5, {}, "Code"}),
              "raw capture (a sample every 1.5s, independent of the classifier), top 6 apps over the 5 minutes to "
              "10:00: no app recorded; frontmost at 10:00 is Code");
}

TEST_F(CoachGateTimelineTest, WindowStartsMoveByWholeHoursAndNeverBeforeTheFloor) {
    const int64_t hour = at("2026-03-10T09:00:00");
    EXPECT_EQ(stableStart(0, hour + 60'000, 1, 3600), stableStart(0, hour + 3'599'000, 1, 3600));
    EXPECT_EQ(stableStart(0, hour + 3'599'000, 1, 3600), hour - 3'600'000);
    EXPECT_EQ(stableStart(hour - 10, hour + 60'000, 1, 3600), hour - 10);
    EXPECT_EQ(stableStart(0, hour + 60'000, 1, 0), hour - 3'540'000);
    EXPECT_EQ(effectiveStart(0, hour, 0.5), hour - 1'800'000);
}

// The driver polls: whatever arrives in whatever pieces, a source that kept what did not change says
// exactly what a fresh one says, and what the whole files say once every line is complete.
TEST_F(CoachGateTimelineTest, AnIncrementalSourceAgreesWithAFreshOneAfterEveryPoll) {
    testing::TempDir root;
    testing::writeFile(CoachPreferencesStore::path(root.path()), "{not json");
    testing::writeFile(MemoryStore::standingMemoryPath(root.path()), "{\"regeneratedAtTsMs\": \"soon\"}");
    std::vector<std::string> logLines;
    GateMessageSource kept(root.path(), [&](const std::string& line) { logLines.push_back(line); });

    std::string eventsText, ticksText;
    for (const auto& e : events) eventsText += e.encoded() + "\n";
    eventsText.insert(eventsText.size() / 2, "{\"ts_ms\": broken\n");
    for (const auto& t : ticks) ticksText += t.encoded() + "\n";
    std::mt19937 random(7);
    size_t eventsAt = 0, ticksAt = 0;
    int64_t pollMs = at("2026-03-10T09:00:00");
    while (eventsAt < eventsText.size() || ticksAt < ticksText.size()) {
        eventsAt = std::min(eventsText.size(), eventsAt + random() % 300);
        ticksAt = std::min(ticksText.size(), ticksAt + random() % 300);
        testing::writeFile(root / "io-layer/events.jsonl", eventsText.substr(0, eventsAt));
        testing::writeFile(root / "checker-log.jsonl", ticksText.substr(0, ticksAt));
        pollMs += 2 * 3'600'000;  // windows move on, so rows are let go on the way
        const auto incremental = kept.build(pollMs, {});
        EXPECT_EQ(incremental.message, GateMessageSource(root.path()).build(pollMs, {}).message) << pollMs;
    }
    const auto whole = [&](int64_t atMs) {
        return CoachGateMessage::build(EventLogReader::read(root / "io-layer/events.jsonl"),
                                       ClassifierLogReader::read(root / "checker-log.jsonl"), 0, atMs, 24,
                                       std::nullopt, 3600, false, std::nullopt, std::nullopt, std::nullopt);
    };
    EXPECT_EQ(kept.build(pollMs, {}).message, whole(pollMs));  // the standing declaration outlives its window
    EXPECT_LT(kept.ticksHeld(), ticks.size());
    EXPECT_EQ(kept.build(now, {}).message, whole(now));  // a clock set back reads the logs whole again
    EXPECT_EQ(logLines.size(), 1u);  // the damaged memory, once
}

}  // namespace
}  // namespace aimwise
