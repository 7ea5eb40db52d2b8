#include "AimwiseCore/classifier/classifier_prompt.h"

#include <gtest/gtest.h>

namespace aimwise {
namespace {

using ClassifierPrompt::buildUserMessage;

ClassifierState writingState() {
    ClassifierState state;
    state.tsMs = 1'763'800'000'000;
    state.frontmostApp = "Code";
    state.frontmostWindowTitle = "report.md — notes";
    state.browserApp = "Firefox";
    state.browserTitle = "Hacker News";
    state.browserURL = "https://news.example.com/";
    state.idleAnySec = 12.39;
    state.declaredTask = "write the report, 45 min";
    state.recentApps10Min = {{"Code", 7.5}, {"Firefox", 2.0}};
    state.minutesSinceDeclared = 30.25;
    state.estimateMinutes = 45;
    return state;
}

TEST(ClassifierPromptTest, MessageHasItsExactBytes) {
    EXPECT_EQ(buildUserMessage(writingState()),
              "DECLARED INTENTION:\n"
              "write the report, 45 min\n"
              "\n"
              "CURRENT ACTIVITY (right now):\n"
              "{\n"
              "  \"frontmost_app\": \"Code\",\n"
              "  \"frontmost_window_title\": \"report.md \\u2014 notes\",\n"
              "  \"browser_title\": null,\n"
              "  \"browser_url\": null,\n"
              "  \"seconds_since_last_input\": 12.3,\n"
              "  \"what_youve_been_in_last_10min\": [\n"
              "    {\n"
              "      \"app\": \"Code\",\n"
              "      \"approx_min\": 7.5\n"
              "    },\n"
              "    {\n"
              "      \"app\": \"Firefox\",\n"
              "      \"approx_min\": 2.0\n"
              "    }\n"
              "  ],\n"
              "  \"minutes_since_declared\": 30.2,\n"
              "  \"minutes_over_estimate\": null\n"
              "}\n"
              "\n"
              "Judge it.");
}

TEST(ClassifierPromptTest, BrowserFieldsShowOnlyWhenTheBrowserIsInFront) {
    ClassifierState state = writingState();
    state.frontmostApp = "Firefox";
    const std::string front = buildUserMessage(state);
    EXPECT_NE(front.find("\"browser_title\": \"Hacker News\",\n  \"browser_url\": \"https://news.example.com/\""),
              std::string::npos);
    state.frontmostApp = "firefox";  // equality is exact
    EXPECT_NE(buildUserMessage(state).find("\"browser_title\": null"), std::string::npos);
    state.frontmostApp = std::nullopt;
    state.browserApp = std::nullopt;
    const std::string neither = buildUserMessage(state);
    EXPECT_NE(neither.find("\"frontmost_app\": null,\n  \"frontmost_window_title\""), std::string::npos);
    EXPECT_NE(neither.find("\"browser_url\": null"), std::string::npos);
}

TEST(ClassifierPromptTest, GapIsNewsFromFifteenMinutesUntilHalfAnHourAfterReturn) {
    ClassifierState state = writingState();
    state.minutesOverEstimate = 5.0;
    state.gapSinceLastPresentMinutes = 14.9;
    EXPECT_EQ(buildUserMessage(state).find("gap_since_last_activity_min"), std::string::npos);

    state.gapSinceLastPresentMinutes = 15.0;
    EXPECT_NE(buildUserMessage(state).find("  \"minutes_over_estimate\": 5.0,\n"
                                           "  \"gap_since_last_activity_min\": 15.0\n}"),
              std::string::npos);

    state.gapSinceLastPresentMinutes = 95.27;
    state.gapFollowedTaskEndpoint = true;
    state.minutesSinceReturn = 29.9;
    EXPECT_NE(buildUserMessage(state).find(
                  "  \"gap_since_last_activity_min\": 95.2,\n"
                  "  \"gap_context\": \"the declared task's own estimated end had already passed before this gap "
                  "began\"\n}"),
              std::string::npos);
    state.gapFollowedTaskEndpoint = false;
    EXPECT_NE(buildUserMessage(state).find("\"the user was still within the declared task's estimated time when "
                                           "they went idle\""),
              std::string::npos);

    state.minutesSinceReturn = 30.0;
    EXPECT_EQ(buildUserMessage(state).find("gap_"), std::string::npos);
}

TEST(ClassifierPromptTest, DeclaredTextPrefersTheOverrideAndFallsBackToNone) {
    ClassifierState state = writingState();
    EXPECT_TRUE(buildUserMessage(state, std::string("go for a run")).starts_with("DECLARED INTENTION:\ngo for a run\n\n"));
    state.declaredTask = std::nullopt;
    EXPECT_TRUE(buildUserMessage(state).starts_with("DECLARED INTENTION:\n(none declared)\n\n"));
}

TEST(ClassifierPromptTest, IdleTimeIsTruncatedAndDefaultsToZero) {
    ClassifierState state = writingState();
    state.idleAnySec = std::nullopt;
    EXPECT_NE(buildUserMessage(state).find("\"seconds_since_last_input\": 0.0,"), std::string::npos);
    state.idleAnySec = 599.99;
    EXPECT_NE(buildUserMessage(state).find("\"seconds_since_last_input\": 599.9,"), std::string::npos);
}

TEST(ClassifierPromptTest, WindowContentWinsOverTheWithheldNotice) {
    const auto withheld = ContentWithheldReason::frontmostAppDenylisted;
    const std::string expectedNotice = "\n\nWINDOW_CONTENT:\n" + std::string(notice(withheld)) + "\n\nJudge it.";
    EXPECT_TRUE(buildUserMessage(writingState(), std::nullopt, std::nullopt, std::nullopt, withheld).ends_with(expectedNotice));
    EXPECT_TRUE(buildUserMessage(writingState(), std::nullopt, std::string(), std::nullopt, withheld).ends_with(expectedNotice));
    EXPECT_TRUE(buildUserMessage(writingState(), std::nullopt, std::string("{'ocr_text': 'x'}"), std::nullopt, withheld)
                    .ends_with("\n\nWINDOW_CONTENT:\n{'ocr_text': 'x'}\n\nJudge it."));
    EXPECT_TRUE(buildUserMessage(writingState(), std::nullopt, std::string(), std::string("be strict about email"))
                    .ends_with("}\n\nbe strict about email\n\nJudge it."));
}

TEST(ClassifierPromptTest, NonASCIIReachesTheModelAsEscapesInJSONButNotInWindowContent) {
    ClassifierState state = writingState();
    state.frontmostApp = "Café Écrit 😀";
    state.recentApps10Min = {{"日本", 1.0}};
    const std::string message = buildUserMessage(state);
    EXPECT_NE(message.find("\"frontmost_app\": \"Caf\\u00e9 \\u00c9crit \\ud83d\\ude00\""), std::string::npos);
    EXPECT_NE(message.find("\"app\": \"\\u65e5\\u672c\""), std::string::npos);

    const auto content = ClassifierPrompt::redactedWindowContent("Café menu", "a ‘quoted’ page");
    EXPECT_EQ(content.content, "{'ocr_text': 'Café menu', 'description': 'a ‘quoted’ page'}");
}

TEST(ClassifierPromptTest, SystemPromptIsTheWholeText) {
    const std::string& prompt = ClassifierPrompt::systemPrompt;
    EXPECT_TRUE(prompt.starts_with("You are an aimwise check. The user declares an intention"));
    EXPECT_TRUE(prompt.ends_with("naming the specific task/estimate, not just the topic\"}"));
    EXPECT_NE(prompt.find("\n- ON_TASK      : the activity plausibly serves the declared intention — including a "
                          "declared\n                 break,"),
              std::string::npos);
    EXPECT_NE(prompt.find("(a minute or two);\ndo call out real ones."), std::string::npos);
}

}  // namespace
}  // namespace aimwise
