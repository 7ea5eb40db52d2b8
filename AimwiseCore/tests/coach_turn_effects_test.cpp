#include "AimwiseCore/coach/coach_turn_effects.h"

#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include "AimwiseCore/coach/coach_chat.h"
#include "AimwiseCore/coach/coach_tools.h"
#include "AimwiseCore/coach/projection_date_parsing.h"
#include "CaptureShared/common/local_time.h"

namespace aimwise {
namespace {

using Object = JSONValue::Object;
using Channel = CoachChannel;

constexpr int64_t asOf = 1'773'150'300'000;  // 2026-03-10 13:45 UTC
const std::string silence = CoachTools::silenceSentinel;

// Each event as its type and detail; a decision without its thinking.
std::string summary(const std::vector<EventLogEvent>& events) {
    std::string out;
    for (const EventLogEvent& event : events) {
        JSONValue detail = event.detail;
        if (auto* object = std::get_if<Object>(&detail.value)) object->erase("thinking");
        out += event.type + " " + detail.serialized() + "\n";
        EXPECT_EQ(event.tsMs, asOf);
    }
    return out;
}

ToolCall call(const char* name, Object arguments) { return {name, std::move(arguments)}; }

struct EffectsTest : ::testing::Test {
    EffectsTest() {
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC"));
        DateParseMemo::shared().clear();
    }
};

TEST_F(EffectsTest, EachReplyBecomesTheEventsThatRecordWhatItDid) {
    struct Case {
        const char* name;
        ChatResponse response;
        Channel channel;
        std::string events;
        CorrectJudgmentGuard::Verdict verdict = CorrectJudgmentGuard::Verdict::allowed;
    };
    const std::vector<Case> cases{
        {"the silence character alone", {.text = " " + silence + "\n"}, Channel::checker,
         R"(coach_decision {"move":"SILENCE","reason":"silence_sentinel","silence_signal":true}
)"},
        {"nothing at all", {.text = ""}, Channel::appChat,
         R"(coach_decision {"move":"SILENCE","reason":"empty_completion"}
)"},
        {"open_ui with nothing to show", {.text = "", .toolCalls = {call("open_ui", {{"message", " "}})}}, Channel::checker,
         R"(empty_open_ui {}
coach_decision {"move":"SILENCE","reason":"open_ui called with nothing to show — suppressed, not opened","tool_calls":[{"arguments":{"message":" "},"name":"open_ui"}]}
)"},
        {"words on the checker channel without open_ui", {.text = "Still on the report?"}, Channel::checker,
         R"(coach_reply_not_surfaced {"reason":"spoke on the checker channel without open_ui"}
app_chat_message {"role":"coach","text":"Still on the report?"}
coach_decision {"move":"TALK","reason":"spoke"}
)"},
        {"a refused link, a repeated write, an unknown tool",
         {.text = "Noted.", .toolCalls = {call("correct_judgment", {{"app", "Fruit Ninja"}, {"project", "IMGD 3"}}),
                                          call("write_task", {{"notes", "intro"}, {"horizon_minutes", "20"}}),
                                          call("write_current_intention", {{"notes", "again"}}),
                                          {"summon_cat", JSONValue("{not json")}}},
         Channel::appChat,
         R"(tool_call_denied {"denials":[{"reason":"duplicate_call","tool":"write_current_intention"},{"reason":"unknown_tool","tool":"summon_cat"}]}
task_declared {"horizon_minutes":20,"notes":"intro"}
app_chat_message {"role":"coach","text":"Noted."}
coach_decision {"correct_judgment_refused":"bare_answer_to_own_question","dropped_duplicate_tool_calls":["write_current_intention"],"move":"WRITE_TASK","reason":"write_task","tool_calls":[{"arguments":{"app":"Fruit Ninja","project":"IMGD 3"},"name":"correct_judgment"},{"arguments":{"horizon_minutes":"20","notes":"intro"},"name":"write_task"}],"unrecognized_tool_calls":["summon_cat"]}
)",
         CorrectJudgmentGuard::Verdict::bareAnswerToOwnQuestion},
        {"go_quiet clamped, its message spoken",
         {.text = "", .toolCalls = {call("go_quiet", {{"minutes", 2}, {"message", "okay, quiet"}})}}, Channel::appChat,
         R"(user_quiet_requested {"reason":"go_quiet minutes=5","until_ts_ms":1773150600000}
app_chat_message {"role":"coach","text":"okay, quiet"}
coach_decision {"move":"USER_QUIET","reason":"user_quiet","tool_calls":[{"arguments":{"message":"okay, quiet","minutes":2},"name":"go_quiet"}],"user_quiet_applied_minutes":5,"user_quiet_requested_minutes":2,"user_quiet_until_ts_ms":1773150600000}
)"},
        {"do_not_disturb beyond its bound, then open_ui",
         {.text = "Got it.", .toolCalls = {call("do_not_disturb", {{"minutes", 90}, {"message", "Got it."}, {"expectation", "more Figma"}}),
                                           call("open_ui", {{"message", "Got it. Back in an hour."}})}},
         Channel::checker,
         R"(backoff_set {"expectation":"more Figma","minutes":60,"until_ts_ms":1773153900000}
ui_opened {"by":"coach"}
app_chat_message {"role":"coach","text":"Got it. Back in an hour."}
coach_decision {"backoff_until_ts_ms":1773153900000,"dnd_expectation":"more Figma","move":"BACK_OFF","reason":"backoff_minutes=60","tool_calls":[{"arguments":{"expectation":"more Figma","message":"Got it.","minutes":90},"name":"do_not_disturb"},{"arguments":{"message":"Got it. Back in an hour."},"name":"open_ui"}]}
)"},
        {"a call written into the text", {.text = "On it. write_task(notes=\"x\") " + silence}, Channel::appChat,
         R"(coach_output_rejected {"raw_text":"On it. write_task(notes=\"x\") )" + silence + R"(","reason":"leaked tool-call syntax stripped"}
app_chat_message {"role":"coach","text":"On it."}
coach_decision {"move":"TALK","reason":"spoke","silence_signal":true}
)"},
        {"cut off at the token limit",
         {.text = "Half a thou", .toolCalls = {call("close_ui", {})}, .truncated = true,
          .usage = ChatUsage{.completionTokens = 512, .reasoningTokens = 400}},
         Channel::appChat,
         R"(turn_truncated {"completion_tokens":512,"reasoning_tokens":400}
turn_failed {"reason":"reply cut off at the token limit (finish_reason=length) after 512 tokens (400 reasoning) — discarded, not shown, not retried","user_reason":"The coach's reply got cut off, so it wasn't shown."}
coach_decision {"discarded_tool_calls":[{"arguments":{},"name":"close_ui"}],"move":"TRUNCATED","reason":"reply cut off at the token limit (finish_reason=length) after 512 tokens (400 reasoning) — discarded, not shown, not retried"}
)"},
        {"degenerate words", {.text = "ok ok ok ok ok ok ok ok ok", .provenance = ChatProvenance{.servedModel = "m1"}},
         Channel::appChat,
         R"(coach_output_degenerate {"raw_text":"ok ok ok ok ok ok ok ok ok","reason":"a 1-word phrase repeated 9 times in a row","served_model":"m1"}
coach_decision {"move":"TALK","output_degenerate":"a 1-word phrase repeated 9 times in a row","reason":"spoke"}
)"},
        {"options that cannot be shown",
         {.text = "", .toolCalls = {call("propose_options", {{"setting", "cadence"}, {"options", JSONValue::Array{Object{{"id", "a"}, {"label", "A"}}}}})}},
         Channel::appChat,
         R"(coach_decision {"move":"SILENCE","propose_options_malformed":true,"reason":"setting=present title=missing usable_options=1","tool_calls":[{"arguments":{"options":[{"id":"a","label":"A"}],"setting":"cadence"},"name":"propose_options"}]}
)"},
    };
    for (const Case& c : cases) {
        const auto events = CoachTurnEffects::events(c.response, {ChatMessage::user("[user time=x]\nhi\n[/user]")}, asOf,
                                                     c.channel, {}, {.verdict = c.verdict});
        EXPECT_EQ(summary(events), c.events) << c.name;
    }
}

TEST_F(EffectsTest, TheTriggerTheMedsAndTheLayer3ToolSetAreRecorded) {
    const std::vector<ChatMessage> woken{ChatMessage::user("[classifier drift time=03-10 13:44]\noff task\n[/classifier drift]")};
    const std::vector<MedsCheckin> due{{"Ritalin", asOf - 600'000, std::nullopt}};
    const ChatResponse response{.text = "Back to the report?", .toolCalls = {call("open_ui", {{"message", "Back to the report?"}})},
                                .servedBy = "gemma", .servedByFallback = true, .fallbackCause = FallbackCause::paced};
    EXPECT_EQ(summary(CoachTurnEffects::events(response, woken, asOf, Channel::checker, due, {})),
              R"(ui_opened {"by":"coach"}
app_chat_message {"fallback_cause":"paced","role":"coach","served_by":"gemma","served_by_fallback":true,"text":"Back to the report?"}
meds_ask_offered {"due_at_ms":[1773149700000],"names":["Ritalin"]}
turn_trigger {"text":"[classifier drift time=03-10 13:44]\noff task\n[/classifier drift]"}
coach_decision {"move":"OPEN_UI","reason":"open_ui","tool_calls":[{"arguments":{"message":"Back to the report?"},"name":"open_ui"}]}
)");
    const ChatResponse layer3{.text = "Saved.", .toolCalls = {call("remember_correction", {{"correction", "don't ask about steps"}}),
                                                              call("open_ui", {{"message", "x"}})}};
    EXPECT_EQ(summary(Layer3TurnEffects::events(layer3, {}, asOf, {}, {})),
              R"(tool_call_denied {"denials":[{"reason":"unknown_tool","tool":"open_ui"}]}
coach_correction_recorded {"lasts":null,"text":"don't ask about steps"}
app_chat_message {"role":"coach","text":"Saved."}
coach_decision {"move":"REMEMBER_CORRECTION","reason":"remember_correction","remember_correction_lasts_missing":true,"tool_calls":[{"arguments":{"correction":"don't ask about steps"},"name":"remember_correction"}],"unrecognized_tool_calls":["open_ui"]}
)");
    const auto recorded = CoachCorrectionRecordedEvent::make("quieter tonight", CoachCorrection::Scope::whetherToSpeak,
                                                             "rest_of_today", asOf);
    EXPECT_EQ(CoachCorrectionRecordedEvent::correctionLine(*CoachCorrectionRecordedEvent::correction(recorded)),
              R"({"at_ms":1773150300000,"ends_at_ms":1773208800000,"scope":"whether_to_speak","text":"quieter tonight"})")
        << "ends at 06:00 the next morning";
}

TEST_F(EffectsTest, TheTrailingSignalIsTheNewestThingSinceTheLastDecision) {
    const auto ev = [](int64_t minute, const char* type, Object detail = {}) {
        return EventLogEvent{.tsMs = asOf + minute * 60'000, .type = type, .detail = std::move(detail)};
    };
    const std::string drift = LocalTime::format(asOf + 4 * 60'000);
    const std::vector<ClassifierTick> ticks{{.at = drift, .state = "NOT_ALIGNED", .frontmostApp = "Firefox"}};
    using Signal = CoachTurnEffects::TrailingSignal;
    const auto signal = [&](std::vector<EventLogEvent> events, int minute) {
        return CoachTurnEffects::latestTrailingSignal(events, ticks, asOf + minute * 60'000, 40);
    };
    EXPECT_EQ(signal({ev(0, "coach_decision"), ev(1, "app_chat_message", {{"role", "user"}})}, 2),
              (Signal{Channel::appChat, asOf + 60'000}));
    EXPECT_EQ(signal({ev(0, "coach_decision"), ev(1, "app_chat_message", {{"role", "user"}})}, 5),
              (Signal{Channel::checker, asOf + 4 * 60'000}))
        << "the drift is newer";
    EXPECT_EQ(signal({ev(0, "no_reply_timeout"), ev(5, "coach_decision"), ev(6, "turn_trigger")}, 7), std::nullopt);
}

class ScriptedBackend : public ModelBackend {
public:
    std::vector<ChatResponse> replies;
    std::vector<std::vector<ChatMessage>> requests;
    ChatResponse chat(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>&,
                      const ChatOptions&) override {
        requests.push_back(messages);
        ChatResponse reply = replies.front();
        replies.erase(replies.begin());
        return reply;
    }
};

TEST_F(EffectsTest, CoachChatProposesAWriteAndAsksForWordsWhenTheReplyWasOnlyTheCall) {
    ScriptedBackend backend;
    backend.replies = {{.text = "", .toolCalls = {call("write_task", {{"notes", "laundry"}, {"horizon_minutes", 20}})}},
                       {.text = "Written down: laundry, 20 minutes. Right?"}};
    CoachChat chat(backend, {.declaredTask = "the report", .estimateMinutes = 45}, {}, "SYSTEM");
    const CoachTurn turn = chat.send("brb laundry for 20 min");
    EXPECT_EQ(turn.proposedWrite, (ProposedWrite{"laundry", 20}));
    EXPECT_EQ(turn.assistantText, "Written down: laundry, 20 minutes. Right?");
    ASSERT_EQ(backend.requests.size(), 2u);
    EXPECT_EQ(backend.requests[0][1].content, "COACH CONTEXT\ndeclared_task: \"the report\"\nestimate_minutes: 45");
    EXPECT_EQ(backend.requests[1].back().content, "Noted.");
    EXPECT_EQ(chat.messages().size(), 4u) << "their words, the call, its result and the reply";
}

}  // namespace
}  // namespace aimwise
