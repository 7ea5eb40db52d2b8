#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <deque>
#include <thread>

#include "AimwiseCore/coach/coach_loop.h"
#include "AimwiseCore/coach/coach_tools.h"
#include "AimwiseCore/coach/layer3_conversation.h"
#include "AimwiseCore/coach/layer3_flag.h"
#include "AimwiseCore/coach/layer3_floor.h"
#include "AimwiseCore/coach/synthetic_user_markers.h"
#include "AimwiseCore/coach/turn_failure_backoff.h"
#include "AimwiseCore/coach/turn_timeout.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using Object = JSONValue::Object;
constexpr int64_t minute = 60'000;
constexpr int64_t t0 = 1'773'100'800'000;  // 2026-03-10 00:00 UTC

// Answers from a script, streaming each reply in two pieces; remembers what it was sent.
struct ScriptedBackend : ModelBackend {
    std::deque<ChatResponse> replies;
    std::vector<std::vector<ChatMessage>> sent;
    std::vector<bool> offeredTools;
    ChatResponse chat(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                      const ChatOptions&) override {
        sent.push_back(messages);
        offeredTools.push_back(tools.has_value());
        ChatResponse next = replies.front();
        replies.pop_front();
        return next;
    }
    ChatResponse chatStream(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                            const ChatOptions& options, const StreamDeltaHandler& onDelta) override {
        ChatResponse reply = chat(messages, tools, options);
        const size_t half = reply.text.size() / 2;
        onDelta({.text = reply.text.substr(0, half)});
        onDelta({.text = reply.text.substr(half)});
        return reply;
    }
};

EventLogEvent event(int64_t ts, std::string type, Object detail) {
    return {.tsMs = ts, .type = std::move(type), .detail = std::move(detail)};
}

struct TurnLoopTest : ::testing::Test {
    TurnLoopTest() { icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC")); }
};

TEST_F(TurnLoopTest, OnlyTheExactValueArmsTheConversationPath) {
    for (const auto& [value, armed] : std::vector<std::pair<std::string, bool>>{
             {"1", true}, {"true", false}, {" 1", false}, {"0", false}, {"", false}})
        EXPECT_EQ(Layer3Flag::isArmed({{"AIMCAP_LAYER3", value}}), armed) << value;
    EXPECT_FALSE(Layer3Flag::isArmed({}));
}

TEST_F(TurnLoopTest, TheFloorIsPinnedOnceAndNeverRepinnedOverADamagedFile) {
    testing::TempDir dir;
    std::vector<std::string> logged;
    const auto log = [&](const std::string& line) { logged.push_back(line); };
    const std::vector<EventLogEvent> onboarding{event(t0, "onboarding_started", {}), event(t0 + 5, "onboarding_reset", {}),
                                                event(t0 + 9, "onboarding_started", {})};
    EXPECT_EQ(Layer3Floor::resolve(dir.path(), t0 + 100, onboarding, log), t0 + 9);
    EXPECT_EQ(Layer3Floor::resolve(dir.path(), t0 + 200, {}, log), t0 + 9);
    EXPECT_EQ(Layer3Floor::onboardingStartFloor(std::vector{event(t0, "onboarding_started", {}),
                                                            event(t0 + 1, "onboarding_reset", {})}),
              std::nullopt);
    testing::writeFile(Layer3Floor::path(dir.path()), "{\"floorTsMs\": \"soon\"}");
    EXPECT_EQ(Layer3Floor::resolve(dir.path(), t0 + 300, onboarding, log), t0 + 300);
    EXPECT_EQ(testing::readFile(Layer3Floor::path(dir.path())), "{\"floorTsMs\": \"soon\"}");
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0], "layer3: floor at " + Layer3Floor::path(dir.path()).string() +
                             " did not decode (21 bytes); refusing to re-pin over it");
}

TEST_F(TurnLoopTest, GapsEarnAMarkerOnlyPastTenMinutes) {
    const std::vector<std::pair<int64_t, std::optional<std::string>>> cases{
        {600'000, std::nullopt},
        {600'001, "— 10 minutes later —"},
        {61 * minute, "— 1 hour later —"},
        {90 * minute, "— 1.5 hours later —"},
        {120 * minute, "— 2 hours later —"},
        {179 * minute, "— 2.5 hours later —"}};
    for (const auto& [gap, marker] : cases) EXPECT_EQ(Layer3TimeGap::marker(t0, t0 + gap), marker) << gap;
}

TEST_F(TurnLoopTest, TheConversationRendersItsDayWithToolResultsAndGaps) {
    const int64_t asOf = t0 + 26 * 3'600'000;  // the window starts at 02:00 the day before
    const std::vector<EventLogEvent> events{
        event(t0 + 1 * 3'600'000, "app_chat_message", {{"role", "user"}, {"text", "too old"}}),
        event(asOf - 40 * minute, "coach_checkin", {{"summary_for_coach", "Reading \"news\""}}),
        event(asOf - 39 * minute, "coach_decision",
              {{"tool_calls", JSONValue::Array{Object{{"name", "go_quiet"}, {"arguments", Object{{"minutes", 30}}}},
                                               Object{{"name", "open_ui"}, {"arguments", Object{}}}}}}),
        event(asOf - 39 * minute, "app_chat_message", {{"role", "coach"}, {"text", "Resting for 30."}}),
        event(asOf - 5 * minute, "app_chat_message", {{"role", "user"}, {"text", "back"}}),
        event(asOf - 5 * minute, "task_declared", {{"task", "ignored here"}}),
    };
    std::string rendered;
    for (const ChatMessage& m : Layer3Request::forCheckin(events, t0, asOf, "Still reading", "Meds due: none"))
        rendered += std::string(rawValue(m.role)) + ": " + m.content + "\n";
    EXPECT_EQ(rendered,
              "user: It's 1:20. The system's summary of what it observed: \"Reading ʺnewsʺ\"\n"
              "assistant: Resting for 30.\n"
              "tool: Quiet for 30 minutes.\n"
              "user: — 34 minutes later —\n\n[1:55] back\n\n"
              "It's 2:00. The system's summary of what it observed: \"Still reading\"\n\nMeds due: none\n");
    EXPECT_EQ(Layer3Conversation::rotationIndex(t0, asOf, 3600), (asOf - 24 * 3'600'000) / 3'600'000);
    EXPECT_EQ(Layer3Conversation::rotationIndex(t0, asOf + 59 * minute, 3600),
              Layer3Conversation::rotationIndex(t0, asOf, 3600));
}

TEST_F(TurnLoopTest, CollapsingKeepsThePersonsWordsAndTheNewestOfEachSystemFamily) {
    using SyntheticUserMarkers::Family;
    const auto drift = [](const char* text) { return SyntheticUserMarkers::wrap(Family::classifierDrift, text, t0); };
    const std::vector<ChatMessage> messages{ChatMessage::user(drift("old drift")), ChatMessage::user("mine"),
                                            ChatMessage::user(drift("new drift")), ChatMessage::assistant("ok"),
                                            ChatMessage::user(drift("alone"))};
    const auto collapsed = CoachLoop::collapseConsecutiveUserTurns(messages);
    ASSERT_EQ(collapsed.size(), 3u);
    EXPECT_EQ(collapsed[0].content, "mine\n\n" + drift("new drift"));
    EXPECT_EQ(collapsed[2].content, drift("alone"));
}

TEST_F(TurnLoopTest, ARoundTripHappensOnlyWhenTheModelAskedOrOwesWords) {
    const auto call = [](const char* name, Object arguments = {}) { return ToolCall{name, std::move(arguments)}; };
    struct Case {
        const char* name;
        ChatResponse first;
        size_t calls;
        std::string ack;
    };
    const std::vector<Case> cases{
        {"silence sentinel beside a tool", {.text = CoachTools::silenceSentinel, .toolCalls = {call("write_task")}}, 1, ""},
        {"stay_silent alone", {.text = "", .toolCalls = {call("stay_silent")}}, 1, ""},
        {"words beside a tool", {.text = "Noted it.", .toolCalls = {call("write_task")}}, 1, ""},
        {"a question", {.text = "hm", .toolCalls = {call("check_ui_state")}}, 2, "The chat window is closed."},
        {"empty open_ui", {.text = "", .toolCalls = {call("open_ui", {{"message", ""}})}}, 2,
         CoachProjection::openUIWithoutMessageResult},
        {"tool only", {.text = "", .toolCalls = {call("do_not_disturb", {{"minutes", 10}})}}, 2, "Got it."},
    };
    for (const Case& c : cases) {
        ScriptedBackend backend;
        backend.replies = {{.text = "Here is what I mean.", .usage = ChatUsage{.promptTokens = 5}}};
        const auto result = CoachLoop::roundTripIfNeeded(c.first, {ChatMessage::user("hi")}, backend, {},
                                                         "The chat window is closed.", {}, {});
        EXPECT_EQ(backend.sent.size() + 1, c.calls) << c.name;
        if (c.calls == 1) continue;
        EXPECT_EQ(backend.sent[0].back().content, c.ack) << c.name;
        EXPECT_FALSE(backend.offeredTools[0]) << c.name;
        EXPECT_EQ(result.text, "Here is what I mean.");
        EXPECT_EQ(result.toolCalls, c.first.toolCalls) << "the first call's tools are what the turn did";
    }
}

TEST_F(TurnLoopTest, AStreamOfTwoCallsShowsOnlyTheSecondText) {
    ScriptedBackend backend;
    backend.replies = {{.text = "<tool_call>write_task({\"notes\":\"x\"})</tool_call>"}, {.text = "Fine, noted."}};
    std::string shown;
    const auto response = Layer3CoachLoop::runTurn({ChatMessage::user("hi")}, Layer3Tools::all(), backend, {}, {},
                                                    [&](const ModelStreamDelta& delta) {
                                                        if (delta.resetsPrevious) shown.clear();
                                                        shown += delta.text;
                                                    });
    EXPECT_EQ(backend.sent.size(), 2u);
    EXPECT_EQ(shown, "Fine, noted.");
    EXPECT_EQ(response.text, "Fine, noted.");
}

TEST_F(TurnLoopTest, TheWatchdogAbandonsASlowTurnAndPassesOtherErrorsThrough) {
    const auto start = std::chrono::steady_clock::now();
    try {
        TurnTimeout::run(0.05, [] {
            while (!CancellationToken::current()->isCancelled()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        });
        FAIL() << "no timeout";
    } catch (const TurnTimeout::Exceeded& exceeded) {
        EXPECT_EQ(exceeded.description(), "turn watchdog: no response within 0.05s -- abandoning this turn");
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_THROW(TurnTimeout::run(5, [] { throw ModelBackendError::invalidResponse("x"); }), ModelBackendError);
    EXPECT_NO_THROW(TurnTimeout::run(5, [] {}));
}

TEST_F(TurnLoopTest, TheBackoffDoublesToItsCapAndHoldsOnlyTheFailingIdentity) {
    TurnFailureBackoff backoff(60, 300);
    std::vector<double> intervals;
    for (int i = 0; i < 5; ++i) intervals.push_back(backoff.recordFailure(7, t0).interval);
    EXPECT_EQ(intervals, (std::vector<double>{60, 120, 240, 300, 300}));
    EXPECT_EQ(backoff.isBlocked(7, t0 + 1'500), (TurnFailureBackoff::Blocked{true, 298}));
    EXPECT_FALSE(backoff.isBlocked(8, t0).blocked);
    EXPECT_FALSE(backoff.isBlocked(7, t0 + 300'000).blocked);
    backoff.recordSuccess();
    EXPECT_FALSE(backoff.isBlocked(7, t0).blocked);
    EXPECT_EQ(backoff.recordFailure(std::nullopt, t0).interval, 60);
    EXPECT_TRUE(backoff.isBlocked(std::nullopt, t0).blocked);
}

}  // namespace
}  // namespace aimwise
