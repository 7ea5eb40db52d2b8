#include <gtest/gtest.h>

#include "AimwiseCore/coach/coach_gate_rules.h"
#include "AimwiseCore/coach/coach_gate_schema.h"
#include "AimwiseCore/coach/coach_preferences.h"
#include "AimwiseCore/coach/driver_coach_prompt.h"
#include "AimwiseCore/coach/layer3_prompt.h"
#include "AimwiseCore/coach/prompt_stack.h"
#include "AimwiseCore/models/sha256.h"
#include "AimwiseCore/coach/write_intention_tool.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

// Every fixed prompt, whole: its length in bytes and its SHA-256, taken from the approved wording.
// A changed word, a lost paragraph or a different joint changes the digest.
TEST(CoachPromptsTest, EveryFixedPromptIsExactlyItsApprovedText) {
    struct Case {
        const char* name;
        std::string text;
        size_t bytes;
        const char* sha256;
    };
    const std::vector<Case> cases{
        {"CoachGateRules::text()", CoachGateRules::text(), 4662, "258c32622a884f7fd5430ad9ebbaaa2fc38cc507a28adf9d440da28e96cc2ace"},
        {"CoachGateRules::prefix(true)", CoachGateRules::prefix(true), 5082, "a07da44b8712ab28c31d981dadb024547e4fc8731b009fdef13f3083346760ad"},
        {"CoachGateQuestion::text()", CoachGateQuestion::text(), 1329, "9fb97a1a3006c907288cdc6a709bdad86358e261eced50b8e941e884130a2606"},
        {"CoachGateSchema::schemaJSON()", CoachGateSchema::schemaJSON(), 1449, "99193137659606f9af57bd27c1754066b5e72eff1fcb1fa164cb5408b30a2b56"},
        {"Layer3Prompt::system()", Layer3Prompt::system(), 14035, "a19ce342b97a67e0ba9c5dabc13a47da5f89b8c8d54217edc5da5296d921edec"},
        {"Layer3Prompt::local()", Layer3Prompt::local(), 11551, "c122a3e9efc43550927d7e9d4b1f2c7c28a8a8e4ec57ba2d7be8c363593ccc14"},
        {"DriverCoachPrompt::systemText(std::nullopt)", DriverCoachPrompt::systemText(std::nullopt), 15230, "9e1837f12dc6155251c6866f0fdadfb85eaf092ed94d81617fe3b8822002d1f5"},
        {"DriverCoachPrompt::systemText(Ada)", DriverCoachPrompt::systemText("Ada"), 15225, "f9536a0000b23e30ca391395e443a2f2f278def4de9116af52d0b52bd4dc7b2c"},
        {"CoachPrompt::systemText(std::nullopt)", CoachPrompt::systemText(std::nullopt), 5881, "4bbe38a18ee714a3159e30737d9e53d8d1cf1559e68df8a9d5658fd7090d7693"},
        {"DriverCoachPrompt::channelMarker(CoachChannel::appChat)", DriverCoachPrompt::channelMarker(CoachChannel::appChat), 271, "44f600271015a0552880228d8f3d8dd73ffcdfc9db2bc61a0780b6e191426700"},
        {"DriverCoachPrompt::channelMarker(CoachChannel::checker)", DriverCoachPrompt::channelMarker(CoachChannel::checker), 660, "62b21c5006eee00c85bc347efb76a1d2e2e8a3a11e8e41329e018147c2048974"},
        {"CoachPrompt::writeCurrentIntentionTool().description", CoachPrompt::writeCurrentIntentionTool().description, 1167, "d26f62dd44052a36f7ed9fad209c6da9cf66991e6e34dc9bb490f0e35b680967"},
        {"CoachPrompt::writeCurrentIntentionToolLocal().description", CoachPrompt::writeCurrentIntentionToolLocal().description, 772, "6922d61a7f5a43050684433fe79e1ce024a608906154ad1e501176558bbd3b04"},
    };
    for (const auto& [name, text, bytes, sha256] : cases) {
        EXPECT_EQ(text.size(), bytes) << name;
        EXPECT_EQ(Sha256::hex(text), sha256) << name << ":\n" << text;
    }
}

TEST(CoachPromptsTest, LocalWordingLeavesOutTheOnlineOnlyParagraphs) {
    for (const char* onlineOnly : {"AN INTENTION HAS TO BE SOMETHING", "The reasons in all of the above are yours"}) {
        EXPECT_NE(Layer3Prompt::text(Layer3Prompt::Variant::online).find(onlineOnly), std::string::npos);
        EXPECT_EQ(Layer3Prompt::text(Layer3Prompt::Variant::local).find(onlineOnly), std::string::npos);
    }
}

TEST(CoachPromptsTest, ALocalModelGetsTheLocalHeadAndToolOnlyWhereTheOnlineOnesStand) {
    const ToolSpec other{"correct_judgment", "d", JSONValue::Object{}};
    const auto swapped = Layer3PromptVariant::forLocalModel(
        {ChatMessage::system(Layer3Prompt::system() + "\n\nnotes"), ChatMessage::user("hi")},
        std::vector<ToolSpec>{CoachPrompt::writeCurrentIntentionTool(), other});
    EXPECT_EQ(swapped.messages[0].content, Layer3Prompt::local() + "\n\nnotes");
    EXPECT_EQ(swapped.messages[1].content, "hi");
    EXPECT_EQ(*swapped.tools, (std::vector<ToolSpec>{CoachPrompt::writeCurrentIntentionToolLocal(), other}));

    const std::vector<ChatMessage> foreign{ChatMessage::system("You are a different prompt."),
                                           ChatMessage::user(Layer3Prompt::system())};
    EXPECT_EQ(Layer3PromptVariant::forLocalModel(foreign, std::nullopt).messages, foreign);
}

TEST(CoachPromptsTest, SystemPromptKeepsItsFixedPartFirst) {
    EXPECT_EQ(Layer3SystemPrompt::build("base", std::nullopt, {}), "base");
    EXPECT_EQ(Layer3SystemPrompt::build("base", "mine", {"one", "two"}), "base\n\nmine\n\none\n\ntwo");
    EXPECT_EQ(UserStandingInstructionsRendering::forGate("  be brief \n"),
              "A standing note they wrote for you directly: \"be brief\"");
    EXPECT_EQ(UserStandingInstructionsRendering::forClassifier("x"), "They've also told you this: \"x\"");
    EXPECT_EQ(UserStandingInstructionsRendering::forCoach(" \n "), std::nullopt);
    EXPECT_EQ(DriverCoachPrompt::system({{"AIMCAP_USER_NAME", " Ada "}}), DriverCoachPrompt::systemText("Ada"));
    EXPECT_EQ(CoachPrompt::system({{"AIMCAP_USER_NAME", "  "}}), CoachPrompt::systemText(std::nullopt));
}

TEST(CoachPromptsTest, PreferencesFallBackKeyByKeyAndTellAnExplicitMedsChoice) {
    testing::TempDir root;
    EXPECT_EQ(CoachPreferencesStore::read(root.path()), CoachPreferences{});
    testing::writeFile(CoachPreferencesStore::path(root.path()), "{\"gateInstructions\": 3, \"developerModeEnabled\": true");
    EXPECT_EQ(CoachPreferencesStore::read(root.path()), CoachPreferences{});
    testing::writeFile(CoachPreferencesStore::path(root.path()),
                       R"({"gateInstructions": 3, "coachInstructions": "short", "standingMemoryEnabled": false})");
    const CoachPreferences read = CoachPreferencesStore::read(root.path());
    EXPECT_EQ(read.gateInstructions, "");
    EXPECT_EQ(read.coachInstructions, "short");
    EXPECT_FALSE(read.standingMemoryEnabled);
    EXPECT_FALSE(read.medsRemindersEnabled);
    EXPECT_EQ(CoachPreferencesStore::explicitMedsRemindersEnabled(root.path()), std::nullopt);

    CoachPreferences changed = read;
    changed.medsRemindersEnabled = false;
    changed.gateInstructions = "line \"one\"\ntwo";
    CoachPreferencesStore::write(changed, root.path());
    EXPECT_EQ(CoachPreferencesStore::read(root.path()), changed);
    EXPECT_EQ(CoachPreferencesStore::explicitMedsRemindersEnabled(root.path()), false);
    EXPECT_EQ(std::filesystem::status(CoachPreferencesStore::path(root.path())).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST(CoachPromptsTest, WindowsMoveByWholeStepsAndStacksOnlyGrowBetweenRotations) {
    const int64_t hour = 1'763'802'000'000;  // a whole hour since the epoch
    EXPECT_EQ(PromptWindowQuantization::index(hour, 3600), PromptWindowQuantization::index(hour + 3'599'999, 3600));
    EXPECT_NE(PromptWindowQuantization::index(hour, 3600), PromptWindowQuantization::index(hour + 3'600'000, 3600));
    EXPECT_EQ(PromptWindowQuantization::floor(hour + 3'599'999, 3600), hour);
    EXPECT_EQ(PromptWindowQuantization::floor(hour + 5, 0), hour + 5);
    EXPECT_EQ(PromptWindowQuantization::index(hour + 5, -1), hour + 5);

    PromptStack stack;
    stack.append(ChatMessage::user("a"));
    const auto first = stack.request(ChatMessage::system("s"), {ChatMessage::user("t")});
    stack.append(ChatMessage::assistant("b"));
    const auto second = stack.request(ChatMessage::system("s"), {});
    ASSERT_EQ(first.size(), 3u);
    EXPECT_EQ(std::vector<ChatMessage>(second.begin(), second.begin() + 2),
              std::vector<ChatMessage>(first.begin(), first.begin() + 2));
    stack.rotate(4, "new day", {ChatMessage::user("z")});
    EXPECT_EQ(stack.request(ChatMessage::system("s"), {}).size(), 2u);
    EXPECT_EQ(stack.rotationIndex, 4);
    EXPECT_EQ(stack.lastRotationReason, "new day");
}

}  // namespace
}  // namespace aimwise
