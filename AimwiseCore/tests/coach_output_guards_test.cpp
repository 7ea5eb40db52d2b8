#include "AimwiseCore/coach/coach_output_guards.h"

#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <random>

#include "AimwiseCore/coach/coach_tools.h"
#include "AimwiseCore/coach/synthetic_user_markers.h"

namespace aimwise {
namespace {

using CoachOutputGuards::stripLeakedToolCallSyntaxUncached;

TEST(LeakStripper, RemovesCallsRoleTagsBlocksAndPromptLinesAndNothingElse) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"Got it. <tool_call>{\"name\": \"write_task\", \"arguments\": {\"notes\": \"x\"}}</tool_call>", "Got it."},
        {"Noted!\nwrite_task(notes=\"laundry\", horizon_minutes=20)\nBack in 20?", "Noted!\nBack in 20?"},
        {"functions.open_ui({\"message\": \"hi\"}) hi", "hi"},
        {"Sure.\n```json\n{\"name\": \"go_quiet\", \"arguments\": {\"minutes\": 30}}\n```", "Sure."},
        {"[{\"function\": \"close_ui\", \"parameters\": {}}]\nDone for now.", "Done for now."},
        {"<|im_start|>assistant\nHow's the intro going?<|im_end|>", "How's the intro going?"},
        {"<start_of_turn>model\nStill there?<end_of_turn>", "Still there?"},
        {"assistant: Want to pick it back up?", "Want to pick it back up?"},
        {"<think>they seem stuck</think>What's the first sentence?", "What's the first sentence?"},
        {"Okay.\n[user time=03-10 14:05]\nyes I quit\n[/user]", "Okay."},
        {"<classifier_drift>YouTube</classifier_drift>Back to it?", "Back to it?"},
        {"THIS TURN: an APP_CHAT message.\nHey — how's it going?", "Hey — how's it going?"},
        {"stay_silent()", ""},
        {"write_task(notes=\"cut off", ""},
        // Clean replies come back byte for byte, even those that talk about the tools.
        {"  I wrote that down as your task.\n\n\nCheck it?  ", "  I wrote that down as your task.\n\n\nCheck it?  "},
        {"Use the {name} you like — {\"a\": 1}", "Use the {name} you like — {\"a\": 1}"},
        {"Use <b>bold</b> [sic] — a < b, {\"name\": \"Ada\"}", "Use <b>bold</b> [sic] — a < b, {\"name\": \"Ada\"}"},
        {"Okay.</s>", "Okay."},
    };
    for (const auto& [raw, clean] : cases) EXPECT_EQ(stripLeakedToolCallSyntaxUncached(raw), clean) << raw;
}

TEST(LeakStripper, StrippingTwiceChangesNothingMoreOverGeneratedReplies) {
    const std::vector<std::string> pieces{"Hi there.", "\n", " ", "write_task(", ")", "{\"name\": \"open_ui\", ",
                                          "\"arguments\": {}}", "<|im_end|>", "<|", "im_start|>", "[user time=01-01 10:00]",
                                          "[/user]", "<tool_call>", "</tool_call>", "assistant:", "THIS TURN: x", "`",
                                          "\xEE\x80\x80", "close_ui", "()", "=== MEMORY", "\"", "[notice", "]"};
    std::mt19937 random(7);
    for (int i = 0; i < 3000; ++i) {
        std::string text;
        for (int n = random() % 12; n > 0; --n) text += pieces[random() % pieces.size()];
        const std::string once = stripLeakedToolCallSyntaxUncached(text);
        ASSERT_EQ(stripLeakedToolCallSyntaxUncached(once), once) << text;
        ASSERT_FALSE(CoachSanityChecks::showsLeakedStateChangingToolCall(once)) << text;
    }
}

TEST(LeakStripMemoRules, RemembersEachReplyAndEmptiesWholeWhenOverfull) {
    LeakStripMemo memo(2);
    EXPECT_EQ(memo.value("a <|im_end|>").stripped, "a");
    EXPECT_EQ(memo.value("a <|im_end|>").stripped, "a");
    memo.value("b");
    memo.value("c");
    EXPECT_EQ(memo.count(), 3u);
    memo.value("d");
    EXPECT_EQ(memo.count(), 1u);
    EXPECT_EQ(memo.value(std::string(80, 'z')).degenerationReason, "one character repeated 80 times in a row");
}

TEST(CoachSanityChecksRules, LeakedCallsSpokenWordsAndDegeneration) {
    for (const auto& [text, leaked] : std::vector<std::pair<const char*, bool>>{
             {"write_task(notes=\"x\")", true}, {"I'll call close_ui () now", true},
             {"{\"name\": \"go_quiet\", \"arguments\": {}}", true}, {"<function=do_not_disturb>", true},
             {"check_ui_state()", false}, {"stay_silent()", false}, {"I wrote down your task", false},
             {"`open_ui` is how I open this", false}, {"my_write_task(x)", false}})
        EXPECT_EQ(CoachSanityChecks::showsLeakedStateChangingToolCall(text), leaked) << text;

    ChatResponse response{.text = std::string(" ") + CoachTools::silenceSentinel + "\n"};
    EXPECT_FALSE(CoachSanityChecks::hasAnySpokenContent(response));
    response.toolCalls = {{"open_ui", JSONValue::Object{{"message", "  "}}}, {"close_ui", JSONValue::Object{}}};
    EXPECT_FALSE(CoachSanityChecks::hasAnySpokenContent(response));
    response.toolCalls.push_back({"do_not_disturb", JSONValue::Object{{"message", "ok, later"}}});
    EXPECT_TRUE(CoachSanityChecks::hasAnySpokenContent(response));

    for (const auto& [text, reason] : std::vector<std::pair<std::string, std::optional<std::string>>>{
             {"Sounds good — see you at four.", std::nullopt},
             {"no no no no no no no", std::nullopt},
             {"no no no no no no no no", "a 1-word phrase repeated 8 times in a row"},
             {"I hear you. I hear you. I hear you. I hear you.", "a 3-word phrase repeated 4 times in a row"},
             {"Take a breath.\nTake a breath!\nOkay. Take a breath?", "the same sentence appeared 3 times"},
             {std::string(59, '!'), std::nullopt},
             {"ha" + std::string("hahahahahahahahahahahahahahahahahahahahahahahahahahahahahaha"),
              "a 2-character pattern repeated 31 times in a row"}})
        EXPECT_EQ(CoachSanityChecks::degenerationReason(text), reason) << text;
}

TEST(SyntheticUserMarkersRules, BlocksNameTheirSourceInEitherForm) {
    icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC"));
    using Family = SyntheticUserMarkers::Family;
    EXPECT_EQ(SyntheticUserMarkers::wrap(Family::classifierDrift, "off task", 1'773'150'300'000),
              "[classifier drift time=03-10 13:45]\noff task\n[/classifier drift]");
    for (const auto& [text, family] : std::vector<std::pair<const char*, std::optional<Family>>>{
             {"[user time=03-10 13:45]\nhi\n[/user]", Family::user},
             {"  [notice time=03-10 13:45]\nx", Family::notice},
             {"<classifier_checkin>still on task</classifier_checkin>", Family::classifierCheckin},
             {"[settings change]", Family::settingsChange},
             {"[users] not a block", std::nullopt},
             {"hello [user time=1]", std::nullopt}})
        EXPECT_EQ(SyntheticUserMarkers::familyOf(text), family) << text;
    EXPECT_TRUE(SyntheticUserMarkers::isFrom(ChatMessage::user("[fallback model time=x]\nhi\n[/fallback model]")));
    EXPECT_FALSE(SyntheticUserMarkers::isFrom(ChatMessage::user("[user time=x]\nhi\n[/user]")));
    EXPECT_FALSE(SyntheticUserMarkers::isFrom(ChatMessage::assistant("[notice time=x]")));
}

}  // namespace
}  // namespace aimwise
