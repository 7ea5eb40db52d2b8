#include "AimwiseCore/coach/projection_sweep.h"

#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <random>

#include "AimwiseCore/coach/coach_tools.h"
#include "AimwiseCore/coach/coach_turn_effects.h"
#include "AimwiseCore/coach/projection_date_parsing.h"
#include "CaptureShared/common/local_time.h"

namespace aimwise {
namespace {

using namespace ProjectionSweep;
using Object = JSONValue::Object;

constexpr int64_t dayStart = 1'773'100'800'000;  // 2026-03-10 00:00 UTC
constexpr int64_t minute = 60'000;

// A day of a coach at work, driven through the real turn effects: the person talks, the classifier
// looks, the model answers with words, leaked syntax, calls good and bad, and older writers left
// lines of their own, some of them damaged.
struct GeneratedDay {
    std::vector<EventLogEvent> events;
    std::vector<ClassifierTick> ticks;

    explicit GeneratedDay(unsigned seed) {
        std::mt19937 random(seed);
        const auto pick = [&](const auto& options) { return options[random() % std::size(options)]; };
        const std::string texts[] = {"How's the intro going?", "On it.", "Noted! <|im_end|>", "write_task(notes=\"x\")",
                                     "[user time=03-10 10:00]\nI quit\n[/user] Okay.", "", CoachTools::silenceSentinel,
                                     "<tool_call>{\"name\": \"open_ui\", \"arguments\": {}}</tool_call>",
                                     "ok ok ok ok ok ok ok ok ok ok", "THIS TURN: x\nStill there?"};
        const ToolCall calls[] = {{"write_task", Object{{"notes", "draft"}, {"horizon_minutes", "30"}}},
                                  {"write_current_intention", Object{{"notes", ""}}},
                                  {"open_ui", Object{{"message", "Still on the draft?"}}},
                                  {"open_ui", Object{}},
                                  {"close_ui", Object{}},
                                  {"go_quiet", Object{{"minutes", 2}, {"message", "ok"}}},
                                  {"do_not_disturb", Object{{"minutes", 20}, {"message", "later"}, {"expectation", "Figma"}}},
                                  {"correct_judgment", Object{{"app", "Zotero"}, {"project", "thesis"}}},
                                  {"stay_silent", Object{}},
                                  {"summon_cat", JSONValue("{broken")},
                                  {"check_ui_state", Object{}}};
        const char* states[] = {"ON_TASK", "NOT_ALIGNED", "ABSTAINED", "NOT_ALIGNED"};
        const char* apps[] = {"Code", "Firefox", "loginwindow", "Veska"};
        std::vector<ChatMessage> lastSent{ChatMessage::user("[user time=x]\nhi\n[/user]")};
        for (int64_t at = dayStart; at < dayStart + 24 * 60 * minute; at += (1 + random() % 9) * minute) {
            ticks.push_back({.at = LocalTime::format(at), .state = pick(states), .frontmostApp = pick(apps),
                             .frontmostWindowTitle = "draft.tex", .reason = "looks at the draft"});
            switch (random() % 10) {
                case 0: case 1:
                    events.push_back(CoachTurnEffects::events({}, {}, at, CoachChannel::appChat, {}, {}).front());
                    events.back() = AppChatEvents::userMessage(pick(texts).empty() ? "yes" : "ok, back to it", at);
                    break;
                case 2: case 3: case 4: {
                    ChatResponse response{.text = pick(texts), .thinking = random() % 2 ? "hmm" : ""};
                    for (int n = random() % 4; n > 0; --n) response.toolCalls.push_back(pick(calls));
                    response.truncated = random() % 15 == 0;
                    if (random() % 2) lastSent = {ChatMessage::user("[classifier drift time=x]\noff\n[/classifier drift]")};
                    for (EventLogEvent& event : CoachTurnEffects::events(response, lastSent, at,
                                                                         random() % 2 ? CoachChannel::checker : CoachChannel::appChat,
                                                                         {}, {}))
                        events.push_back(std::move(event));
                    break;
                }
                case 5:
                    events.push_back({.tsMs = at, .type = "no_reply_timeout", .detail = Object{{"since_ts_ms", at - 20 * minute}}});
                    break;
                case 6:  // an older writer's lines, some damaged
                    events.push_back({.tsMs = at, .type = pick(std::array{"option_card_change_note", "onboarding_v3_setup_finished",
                                                                          "checker_input_received", "coach_decision"}),
                                      .detail = random() % 2 ? JSONValue(Object{{"text", 5}, {"tool_calls", "x"}})
                                                             : JSONValue(Object{{"text", "switched to hourly"}})});
                    break;
                case 7:  // a past turn that called a tool since retired
                    events.push_back({.tsMs = at, .type = "coach_decision",
                                      .detail = Object{{"move", "BACK_OFF"},
                                                       {"tool_calls", JSONValue::Array{Object{{"name", "back_off"},
                                                                                              {"arguments", Object{}}}}}}});
                    break;
                default: break;
            }
        }
    }
};

struct SweepTest : ::testing::Test {
    SweepTest() {
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC"));
        DateParseMemo::shared().clear();
    }
};

TEST_F(SweepTest, GeneratedDaysKeepEveryInvariantAtEverySampleAndDepth) {
    for (unsigned seed = 1; seed <= 12; ++seed) {
        const GeneratedDay day(seed);
        std::mt19937 random(seed);
        std::vector<int64_t> samples;
        for (int i = 0; i < 16; ++i) samples.push_back(dayStart + int64_t(random() % (25 * 60)) * minute);
        const std::vector<double> depths{0.5, 1, 2, 4, 8, 30};
        std::vector<Finding> findings = leakedWriteFindings(day.events);
        for (auto&& more : {toolCallsPreservedFindings(day.events, day.ticks, dayStart),
                            contextSeedFindings(day.events, day.ticks, samples),
                            monotonicityFindings(day.events, day.ticks, samples, depths),
                            adjacentAssistantFindings(day.events, day.ticks, samples)})
            findings.insert(findings.end(), more.begin(), more.end());
        for (const int64_t asOf : samples) {
            const auto dropped = CoachProjection::project(day.events, day.ticks, std::nullopt, asOf, defaultWindow,
                                                          CoachProjection::DeadToolCallPolicy::dropTurn);
            for (const Finding& finding : retiredToolMentionFindings(dropped.messages)) findings.push_back(finding);
            // Every tool result answers a call of the assistant message just before its run of results.
            const ChatMessage* caller = nullptr;
            for (const ChatMessage& message : dropped.messages) {
                if (message.role != ChatRole::tool) {
                    caller = message.hasToolCalls() ? &message : nullptr;
                    continue;
                }
                EXPECT_FALSE(message.content.starts_with("No such tool")) << seed;
                ASSERT_TRUE(caller) << seed;
                EXPECT_TRUE(std::any_of(caller->toolCalls->begin(), caller->toolCalls->end(),
                                        [&](const ToolCall& c) { return c.name == message.toolName; }))
                    << seed;
            }
        }
        for (const Finding& finding : findings) ADD_FAILURE() << "seed " << seed << ": " << finding.property << " " << finding.detail;
    }
}

TEST_F(SweepTest, EachInvariantNamesWhatBrokeIt) {
    const std::vector<ChatMessage> broken{ChatMessage::assistant("=== MEMORY (older than 03-10 09:00) ===\nnotes"),
                                          ChatMessage::assistant("as I said, back_off", std::vector<ToolCall>{{"back_off", Object{}}})};
    EXPECT_EQ(seedFindings(broken, 5),
              (std::vector<Finding>{{"context-seed-not-first-assistant", 5,
                                     "a seed/summary marker was rendered under role=assistant: === MEMORY (older than 03-10 "
                                     "09:00) ===\nnotes"}}));
    EXPECT_EQ(adjacencyFindings(broken, 5),
              (std::vector<Finding>{{"no-adjacent-assistant-messages", 5,
                                     "messages[0] and [1] both role=assistant: === MEMORY (older than 03-10 09:00) ===\nnotes | "
                                     "as I said, back_off"}}));
    EXPECT_EQ(retiredToolMentionFindings(broken),
              (std::vector<Finding>{{"retired_tool_mention", 0, "message 1) calls retired tool 'back_off' in tool_calls"},
                                    {"retired_tool_mention", 0, "message 1) mentions 'back_off' in content"}}));
    const EventLogEvent leaky{.tsMs = 9, .type = "checker_output_sent", .detail = Object{{"text", "Hi <|eot_id|>"}}};
    EXPECT_EQ(leakedWriteFindings({leaky}), (std::vector<Finding>{{"no-leak-at-write-time", 9, "Hi <|eot_id|> cleaned=Hi"}}));
    const GeneratedDay day(3);
    EXPECT_FALSE(retiredToolMentionFindings(CoachProjection::project(day.events, day.ticks, std::nullopt, dayStart + 86'400'000,
                                                                     {.highResSpan = 86'400},
                                                                     CoachProjection::DeadToolCallPolicy::replay)
                                                .messages)
                     .empty())
        << "replaying keeps the retired calls, and the sweep sees them";
}

}  // namespace
}  // namespace aimwise
