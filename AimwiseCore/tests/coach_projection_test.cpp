#include "AimwiseCore/coach/coach_projection.h"

#include <gtest/gtest.h>

#include <fstream>
#include <unicode/timezone.h>

#include "AimwiseCore/coach/coach_projection_source.h"
#include "AimwiseCore/coach/gate_message_source.h"
#include "AimwiseCore/coach/meds_checkins.h"
#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/coach/projection_time_text.h"
#include "AimwiseCore/coach/quiet_windows.h"
#include "AimwiseCore/coach/real_turn_fold.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using namespace CoachProjection;
using Object = JSONValue::Object;

struct NewYorkTime {
    NewYorkTime() {
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("America/New_York"));
        DateParseMemo::shared().clear();
        ProjectionTimeText::followDefaultZone();
    }
};

class CoachProjectionTest : public ::testing::Test {
protected:
    NewYorkTime zone;

    static int64_t at(const std::string& hm) { return *ProjectionDateParsing::parseLocalUncached("2026-03-10T" + hm + ":00"); }
    static EventLogEvent event(const std::string& hm, std::string type, Object detail = {}) {
        return {.tsMs = at(hm), .type = std::move(type), .detail = std::move(detail)};
    }
    static EventLogEvent chat(const std::string& hm, const char* role, JSONValue text, Object more = {}) {
        more["role"] = role;
        more["text"] = std::move(text);
        return event(hm, "app_chat_message", std::move(more));
    }
    static EventLogEvent decision(const std::string& hm, JSONValue::Array calls, Object more = {}) {
        more["move"] = "TALK";
        more["tool_calls"] = std::move(calls);
        return event(hm, "coach_decision", std::move(more));
    }
    static JSONValue call(const char* name, Object arguments) { return Object{{"name", name}, {"arguments", std::move(arguments)}}; }
    static ClassifierTick tick(const std::string& hm, const char* state, const char* app, const char* title,
                               const char* reason = "") {
        return {.at = "2026-03-10T" + hm + ":00", .state = state, .frontmostApp = app, .frontmostWindowTitle = title,
                .reason = *reason ? std::optional<std::string>(reason) : std::nullopt};
    }
    // One line per message: the role, then the text; tool calls and tool names in brackets.
    static std::string rendered(const std::vector<ChatMessage>& messages) {
        std::string out;
        for (const ChatMessage& message : messages) {
            out += std::string(rawValue(message.role));
            if (message.toolName) out += "(" + *message.toolName + ")";
            if (message.toolCalls)
                for (const ToolCall& c : *message.toolCalls) out += " [" + c.name + " " + c.arguments.serialized() + "]";
            out += ": " + message.content + "\n";
        }
        return out;
    }

    const std::vector<EventLogEvent> events{
        event("10:00", "task_declared", {{"notes", "old plan"}}),
        event("11:05", "task_declared", {{"notes", "write the grant report"}, {"horizon_minutes", 90}}),
        event("11:10", "coach_decision", {{"move", "SILENCE"}, {"reason", "empty_completion"}, {"judgment_state", "ON_TASK"}}),
        event("11:12", "ui_closed", {{"dismissed_by", "user"}}),
        event("11:15", "app_project_link_asserted", {{"app", "Zotero"}}),  // no project: no line
        chat("11:40", "user", "can you hold off until lunch?"),
        chat("11:41", "coach", "Sure — quiet till 12:30.<|im_end|>"),
        decision("11:41", {call("go_quiet", {{"minutes", 50}, {"message", "okay"}}), call("stay_silent", {})}),
        event("12:45", "no_reply_timeout", {{"since_ts_ms", at("11:41")}}),
        event("12:46", "tool_call_denied", {{"denials", JSONValue::Array{Object{{"tool", "summon_cat"}, {"reason", "unknown_tool"}}}}}),
        chat("12:46", "coach", "Still with the grant report?"),
        decision("12:46", {call("open_ui", {{"message", "Still with the grant report?"}}),
                           call("write_task", {{"notes", "grant report intro"}, {"horizon_minutes", "30"}})}),
        chat("13:00", "coach", "Taking a break from nudging."),
        decision("13:00", {call("back_off", {{"minutes", 20}})}),
        chat("13:05", "user", 42),  // mistyped: no line
        event("13:05", "coach_decision", {{"tool_calls", "not an array"}}),
        event("13:06", "checker_input_received", {{"text", "ok, back on it"}}),
    };
    const std::vector<ClassifierTick> ticks{
        tick("11:00", "ON_TASK", "Code", "report.md", "Editing the report"),
        tick("11:10", "ON_TASK", "Code", "report.md", "Editing the report"),
        tick("11:20", "ABSTAINED", "Veska", "Veska"),
        tick("11:25", "ON_TASK", "Code", "Statement — account number 12345678"),
        tick("14:00", "NOT_ALIGNED", "Firefox", "YouTube", "Watching videos"),
        tick("14:10", "NOT_ALIGNED", "Firefox", "YouTube", "Watching videos"),
        tick("14:20", "NOT_ALIGNED", "loginwindow", "", ""),
        tick("not a time", "NOT_ALIGNED", "Slack", "general"),
    };
    const std::string expected = R"(user: === MEMORY (older than 03-10 11:00) ===
They write best before noon.
user: === CONTEXT (since 03-10 11:00) ===
03-10 11:00–03-10 11:10 ON_TASK/Code/"report.md" (2 ticks) — "Editing the report"
03-10 11:05 declared: "write the grant report" (90 minutes)
03-10 11:10 the coach decided SILENCE while the classifier said ON_TASK — empty_completion
03-10 11:12 closed the UI (dismissed by user)
03-10 11:20–03-10 11:20 ABSTAINED/Veska/"Veska" (1 ticks) — Merl's own window was frontmost, which says nothing about your intention — not judged.
03-10 11:25–03-10 11:25 ON_TASK/Code/"[title withheld: contained an identifier]" (1 ticks)
user: [user time=03-10 11:40]
can you hold off until lunch?
[/user]
assistant [go_quiet {"message":"okay","minutes":50}]: Sure — quiet till 12:30.
tool(go_quiet): Quiet for 50 minutes.
user: [notice time=03-10 12:45]
(64 minutes have passed with no reply since your last message. Reassess given anything since then — say something only if it's actually warranted now.)
[/notice]
assistant [open_ui {"message":"Still with the grant report?"}] [write_current_intention {"horizon_minutes":"30","notes":"grant report intro"}]: Still with the grant report?
tool(open_ui): Opened, showing your message.
tool(write_current_intention): Set: "grant report intro" (30 min)
user: [notice time=03-10 12:46]
you called summon_cat last turn, but there is no such tool — nothing happened. Your tools are: write_current_intention, correct_judgment, do_not_disturb, open_ui, close_ui, check_ui_state, go_quiet, propose_options. If you meant to do something, use one of those.
[/notice]
assistant [back_off {"minutes":20}]: Taking a break from nudging.
tool(back_off): No such tool — nothing happened. Your tools are: write_current_intention, correct_judgment, do_not_disturb, open_ui, close_ui, check_ui_state, go_quiet, propose_options
user: [user time=03-10 13:06]
ok, back on it
[/user]
user: [classifier drift time=03-10 14:10]
off task since 14:00 across 2 checks; most recent: Firefox / "YouTube" — "Watching videos"
[/classifier drift]
)";
    const Window window{.highResSpan = 3.5 * 3600, .stepInterval = 3600, .onTaskCheckinEveryTicks = 3};
};

TEST_F(CoachProjectionTest, AFixtureDayProjectsToExactlyThisConversation) {
    const Result result = project(events, ticks, std::string("They write best before noon."), at("15:00"), window,
                                  DeadToolCallPolicy::replay);
    EXPECT_EQ(result.collapsedFarEdge, at("11:00"));
    EXPECT_EQ(result.highResBoundary, at("11:30"));
    EXPECT_EQ(rendered(result.messages), expected);

    // The retired tool's turn goes whole, its result with it, and nothing else moves.
    std::string withoutRetired = expected;
    const size_t from = withoutRetired.find("assistant [back_off");
    withoutRetired.erase(from, withoutRetired.find("user: [user time=03-10 13:06]") - from);
    EXPECT_EQ(rendered(project(events, ticks, std::string("They write best before noon."), at("15:00"), window,
                               DeadToolCallPolicy::dropTurn)
                           .messages),
              withoutRetired);
}

TEST_F(CoachProjectionTest, AnotherModelsWordsTheTurnsTriggerAndSetupAreToldAsTheSystemsOwn) {
    const std::vector<EventLogEvent> log{
        event("12:00", "onboarding_v3_setup_finished", {{"backend", "online"}, {"model_ready", true}, {"battery", "reduced"}}),
        chat("12:01", "coach", "Hi, I'm Merl.", {{"served_by_fallback", true}, {"served_by", "gemma"}, {"fallback_cause", "paced"}}),
        chat("12:30", "coach", "Back to the report?"),
        event("12:30", "turn_trigger", {{"text", "[classifier drift time=03-10 12:29]\noff task\n[/classifier drift]"}}),
    };
    const auto fold = RealTurnFold::run(log, {}, DeadToolCallPolicy::replay);
    EXPECT_EQ(rendered(fold.messages),
              "user: [notice time=03-10 12:00]\nthey haven't heard from you at all yet — this reply is the first thing "
              "they'll see from you since finishing setup, so say something to them here, not only a tool call.\n\nsetup "
              "just finished. you're talking over the internet — one sentence about the screen leaves per look, nothing "
              "else; screen recording is not verified working yet — there is nothing to see until it is; the model that "
              "reads the screen is ready. battery watching: watches less often on battery to save power. Introduce "
              "yourself briefly, say plainly what — if anything — isn't working yet, and ask what they mean to be doing "
              "right now. Don't recap the setup screens; they just finished them.\n[/notice]\n"
              "user: [fallback model time=03-10 12:01]\nto pace this license's online coaching, gemma on this Mac answered "
              "this turn on your behalf. it said:\n\nHi, I'm Merl.\n[/fallback model]\n"
              "user: [classifier drift time=03-10 12:29]\noff task\n[/classifier drift]\n"
              "assistant: Back to the report?\n");
    EXPECT_EQ(fold.lastRealTurnMs, at("12:30"));
}

TEST_F(CoachProjectionTest, OnlyJudgedNotAlignedLooksSinceTheLastQuietWindowAreDrift) {
    struct Case {
        const char* name;
        std::vector<ClassifierTick> ticks;
        std::vector<EventLogEvent> events;
        std::optional<std::string> driftAt;
    };
    const std::vector<Case> cases{
        {"plain drift", {tick("14:00", "NOT_ALIGNED", "Firefox", "YouTube")}, {}, "14:00"},
        {"a locked screen", {tick("14:00", "NOT_ALIGNED", "loginwindow", "")}, {}, std::nullopt},
        {"abstained", {tick("14:00", "ABSTAINED", "Firefox", "")}, {}, std::nullopt},
        {"own window", {tick("14:00", "NOT_ALIGNED", "Merl", "")}, {}, std::nullopt},
        {"held by a back-off", {tick("14:00", "NOT_ALIGNED", "Firefox", "")},
         {event("14:05", "backoff_set", {{"until_ts_ms", at("14:20")}})}, std::nullopt},
        {"after the back-off", {tick("14:00", "NOT_ALIGNED", "Firefox", ""), tick("14:10", "NOT_ALIGNED", "Firefox", "")},
         {event("14:05", "user_quiet_requested", {{"until_ts_ms", at("14:07")}})}, "14:10"},
        {"newer than asOf", {tick("15:30", "NOT_ALIGNED", "Firefox", "")}, {}, std::nullopt},
    };
    for (const Case& c : cases) {
        const auto timed = timedTicks(c.ticks);
        const auto signal = latestOffTaskDriftSignal(c.events, timed, at("15:00"));
        EXPECT_EQ(signal ? std::optional(signal->tsMs) : std::nullopt, c.driftAt ? std::optional(at(*c.driftAt)) : std::nullopt)
            << c.name;
    }
}

TEST_F(CoachProjectionTest, OnTaskCheckInsComeEveryNthLookAndOnReturnFromDrift) {
    const std::vector<ClassifierTick> looks{
        tick("12:00", "NOT_ALIGNED", "Firefox", ""), tick("12:01", "ON_TASK", "Code", ""),
        tick("12:02", "ON_TASK", "Code", ""),        tick("12:03", "ABSTAINED", "Code", ""),
        tick("12:04", "ON_TASK", "Code", ""),        tick("12:05", "ON_TASK", "Code", "")};
    const auto timed = timedTicks(looks);
    const auto at1203 = latestOnTaskCheckinSignal({}, timed, at("12:03"), 3);
    ASSERT_TRUE(at1203);
    EXPECT_EQ(at1203->tsMs, at("12:01"));
    EXPECT_TRUE(at1203->isReturnFromDrift);
    const auto at1205 = latestOnTaskCheckinSignal({}, timed, at("12:05"), 3);
    EXPECT_EQ(at1205->tsMs, at("12:04")) << "the third on-task look; the abstained one does not count";
    EXPECT_FALSE(at1205->isReturnFromDrift);
    const std::vector<EventLogEvent> decided{event("12:01", "coach_decision")};
    EXPECT_FALSE(latestOnTaskCheckinSignal(decided, timed, at("12:03"), 3))
        << "counting starts again after the coach's decision";
    EXPECT_EQ(renderClassifierOnTaskCheckinTurn(*at1203),
              "[classifier checkin time=03-10 12:01]\nback on task: Code\n[/classifier checkin]");
}

TEST(CoachProjectionWindow, TheFarEdgeMovesOnlyByWholeSteps) {
    const Window window{.highResSpan = 1800, .stepInterval = 3600};
    for (const auto& [asOf, edge] : std::vector<std::pair<int64_t, int64_t>>{
             {7'200'000, 3'600'000}, {9'000'000, 7'200'000}, {10'799'999, 7'200'000}, {0, -3'600'000}}) {
        EXPECT_EQ(window.collapsedFarEdge(asOf), edge) << asOf;
        EXPECT_EQ(window.highResBoundary(asOf), asOf - 1'800'000);
    }
    EXPECT_EQ((Window{.highResSpan = 60, .stepInterval = 0}).collapsedFarEdge(100'000), 40'000) << "no step, no rounding";
}

TEST_F(CoachProjectionTest, QuietWindowsAnswerWhetherAndUntilWhenTheCoachStaysQuiet) {
    const std::vector<EventLogEvent> log{
        event("12:00", "backoff_set", {{"until_ts_ms", at("12:30")}, {"expectation", "more YouTube"}}),
        event("12:10", "user_quiet_requested", {{"until_ts_ms", at("13:00")}}),
        event("12:20", "user_quiet_cleared"),
        event("13:00", "coach_decision", {{"backoff_until_ts_ms", at("13:15")}, {"dnd_expectation", "the same file"}}),
        event("14:00", "backoff_set", {{"until_ts_ms", "soon"}}),  // mistyped: starts nothing
        event("14:30", "memory_consolidation_deferred_power_started"),
    };
    using Kind = QuietWindow::Kind;
    struct Case {
        const char* hm;
        std::optional<Kind> kind;
        std::optional<const char*> until;
    };
    for (const Case& c : std::vector<Case>{{"11:59", {}, {}},
                                           {"12:15", Kind::userQuiet, "13:00"},
                                           {"12:25", Kind::doNotDisturb, "12:30"},
                                           {"12:30", {}, {}},
                                           {"13:05", Kind::doNotDisturb, "13:15"},
                                           {"14:10", {}, {}}}) {
        const auto quiet = QuietWindows::mustStayQuiet(log, at(c.hm));
        EXPECT_EQ(quiet ? std::optional(quiet->kind) : std::nullopt, c.kind) << c.hm;
        if (quiet && c.until) {
            EXPECT_EQ(quiet->untilMs, at(*c.until)) << c.hm;
        }
    }
    EXPECT_EQ(QuietWindows::latestUserQuietWindow(log, at("12:25"))->untilMs, at("12:20")) << "lifted by the person";
    EXPECT_EQ(QuietWindows::latestDoNotDisturbWindow(log, at("13:05"))->expectation, "the same file");
    EXPECT_EQ(QuietWindows::latestBackOffUntilMs(log, at("12:25")), at("12:30"));
    EXPECT_FALSE(QuietWindows::userQuietIsActive(log, at("12:25")));
    EXPECT_FALSE(QuietWindows::isConsolidationDeferredForPower(log, at("14:00")));
    EXPECT_TRUE(QuietWindows::isConsolidationDeferredForPower(log, at("15:00")));
}

TEST_F(CoachProjectionTest, MedicationCheckInsAreDueFromTheirTimeUntilMarkedAndOffUnlessTurnedOn) {
    const std::vector<EventLogEvent> log{
        event("07:00", "meds_schedule_set", {{"name", "Ritalin"}, {"times", JSONValue::Array{"08:00", "13:00", "25:99"}}}),
        event("07:05", "meds_schedule_set", {{"name", "vitamin D"}, {"times", JSONValue::Array{"09:00"}}}),
        event("07:06", "meds_schedule_set", {{"name", " Vitamin d "}, {"times", JSONValue::Array{}}}),
        event("08:30", "meds_taken", {{"name", "ritalin"}}),
        event("13:30", "meds_ask_offered", {{"names", JSONValue::Array{"Ritalin"}}}),
    };
    EXPECT_TRUE(MedsCheckins::outstanding(log, at("14:00"), false).empty()) << "off unless turned on";
    EXPECT_TRUE(MedsCheckins::outstanding(log, at("12:00"), true).empty()) << "the morning dose was taken";
    const auto due = MedsCheckins::outstanding(log, at("14:00"), true);
    ASSERT_EQ(due, (std::vector<MedsCheckin>{{"Ritalin", at("13:00"), at("13:30")}}));
    EXPECT_EQ(MedsCheckins::context(due),
              "Medication check-ins they asked for: \"Ritalin\" was due at 13:00 and is not marked taken (the coach asked "
              "about it at 13:30). A check-in is one short question inside a message that is going out anyway, asked "
              "once; it is never a reason to interrupt on its own.");
    EXPECT_TRUE(MedsCheckins::outstanding(log, at("17:01"), true).empty()) << "no longer due four hours on";

    // The gate hears of them once they are turned on, from a schedule set days before its window.
    testing::TempDir root;
    std::vector<EventLogEvent> lines = log;
    lines.front().tsMs -= 3 * 86'400'000;
    std::string text;
    for (const EventLogEvent& line : lines) text += line.encoded() + "\n";
    testing::writeFile(root.path() / "io-layer" / "events.jsonl", text);
    GateMessageSource source(root.path());
    EXPECT_EQ(source.build(at("14:00"), {}).message.find("Medication check-ins"), std::string::npos);
    CoachPreferencesStore::write({.medsRemindersEnabled = true}, root.path());
    EXPECT_NE(source.build(at("14:00"), {}).message.find("\n\nMedication check-ins they asked for: \"Ritalin\" was due at 13:00"),
              std::string::npos);
}

TEST_F(CoachProjectionTest, TheDriversSourceReadsOnlyNewLinesAndReportsLinesThatDoNotDecode) {
    testing::TempDir root;
    std::filesystem::create_directories(root.path() / "io-layer");
    std::vector<std::string> logged;
    CoachProjectionSource source(root.path(), [&](const std::string& line) { logged.push_back(line); });
    source.refresh();
    EXPECT_TRUE(source.events().empty()) << "missing logs are empty ones";
    {
        std::ofstream events(root.path() / "io-layer" / "events.jsonl");
        events << chat("11:40", "user", "hello").encoded() << "\n{\"ts_ms\": \"noon\"}\nnot json\n";
        std::ofstream checker(root.path() / "checker-log.jsonl");
        checker << "{\"at\": \"2026-03-10T14:00:00\", \"state\": \"NOT_ALIGNED\", \"frontmost_app\": \"Firefox\"}\n";
    }
    const auto first = source.project(at("15:00"), std::nullopt, window, DeadToolCallPolicy::replay);
    EXPECT_EQ(logged, std::vector<std::string>{"projection: events.jsonl: skipped 2 line(s) that did not decode; the rest "
                                               "of the log is used"});
    EXPECT_EQ(first.messages.size(), 2u);
    std::ofstream(root.path() / "io-layer" / "events.jsonl", std::ios::app) << chat("14:30", "coach", "Hi.").encoded() << "\n";
    const auto second = source.project(at("15:00"), std::nullopt, window, DeadToolCallPolicy::replay);
    EXPECT_EQ(source.events().size(), 2u);
    EXPECT_EQ(second.messages.back().role, ChatRole::assistant) << "the drift at 14:00 was answered at 14:30";

    source.project(at("15:00") + 3 * 86'400'000, std::nullopt, window, DeadToolCallPolicy::replay);
    ASSERT_EQ(source.events().size(), 1u) << "of what no projection shows, only the coach's newest words stay";
    EXPECT_EQ(*source.events()[0].detail.member("text")->stringIfAny(), "Hi.");
    EXPECT_TRUE(source.ticks().empty());
    source.project(at("15:00"), std::nullopt, window, DeadToolCallPolicy::replay);
    EXPECT_EQ(source.events().size(), 2u) << "a clock set back reads the logs whole again";
}

}  // namespace
}  // namespace aimwise
