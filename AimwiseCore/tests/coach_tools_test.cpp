#include "AimwiseCore/coach/coach_tools.h"

#include <gtest/gtest.h>

#include "AimwiseCore/coach/coach_tool_arguments.h"

namespace aimwise {
namespace {

using Object = JSONValue::Object;

std::vector<std::string> namesOf(const std::vector<ToolSpec>& tools) {
    std::vector<std::string> names;
    for (const ToolSpec& definition : tools) names.push_back(definition.name);
    return names;
}

std::vector<std::string> required(const ToolSpec& definition) {
    std::vector<std::string> out;
    for (const JSONValue& name : std::get<JSONValue::Array>(definition.parameters.member("required")->value))
        out.push_back(*name.stringIfAny());
    return out;
}

TEST(CoachToolSets, ToolsComeInTheirOrderWithSchemasWhoseRequiredKeysAreDeclared) {
    EXPECT_EQ(namesOf(CoachTools::all()),
              (std::vector<std::string>{"write_current_intention", "correct_judgment", "do_not_disturb", "open_ui",
                                        "close_ui", "check_ui_state", "go_quiet", "propose_options"}));
    EXPECT_EQ(namesOf(Layer3Tools::all()), (std::vector<std::string>{"write_current_intention", "correct_judgment",
                                                                     "go_quiet", "remember_correction", "propose_options"}));
    const std::map<std::string, std::vector<std::string>> requiredKeys{
        {"write_current_intention", {"notes", "horizon_minutes"}}, {"correct_judgment", {"app", "project"}},
        {"do_not_disturb", {"minutes", "message", "expectation"}}, {"open_ui", {"message"}},
        {"close_ui", {}}, {"check_ui_state", {}}, {"go_quiet", {"message"}},
        {"propose_options", {"setting", "title", "options", "message"}}, {"remember_correction", {"correction", "lasts"}}};
    for (const auto& tools : {CoachTools::all(), Layer3Tools::all()})
        for (const ToolSpec& definition : tools) {
            EXPECT_EQ(required(definition), requiredKeys.at(definition.name)) << definition.name;
            EXPECT_EQ(*definition.parameters.member("type")->stringIfAny(), "object");
            const auto& properties = *definition.parameters.member("properties")->objectIfAny();
            for (const std::string& key : required(definition)) EXPECT_TRUE(properties.contains(key)) << definition.name << " " << key;
            EXPECT_FALSE(definition.description.empty());
        }
    EXPECT_EQ(CoachTools::canonicalToolName("write_task"), "write_current_intention");
    EXPECT_EQ(CoachTools::canonicalToolName("open_ui"), "open_ui");
    for (const char* name : {"write_task", "remember_correction", "stay_silent", "go_quiet"})
        EXPECT_TRUE(CoachTools::recognizedToolNames().contains(name)) << name;
    for (const char* name : {"back_off", "summon_cat"}) EXPECT_FALSE(CoachTools::recognizedToolNames().contains(name));
    EXPECT_TRUE(Layer3Tools::replayableToolNames().contains("write_task"));
    EXPECT_FALSE(Layer3Tools::replayableToolNames().contains("open_ui"));
    EXPECT_EQ(std::string(CoachTools::silenceSentinel), "\xEE\x80\x80");
}

TEST(CoachToolArguments, WriteIntentionArgumentsParseOrSayWhyNot) {
    using Usable = WriteCurrentIntentionArguments::Usable;
    using Malformed = WriteCurrentIntentionArguments::Malformed;
    const Malformed noNotes{"write_task requires a non-empty `notes` string"};
    const std::vector<std::pair<JSONValue, WriteCurrentIntentionArguments>> cases{
        {Object{{"notes", "draft intro"}, {"horizon_minutes", "30"}}, {Usable{"draft intro", 30}}},
        {Object{{"notes", "draft intro"}, {"horizon_minutes", 25.9}}, {Usable{"draft intro", 25}}},
        {Object{{"notes", "laundry"}, {"horizon_minutes", nullptr}}, {Usable{"laundry", std::nullopt}}},
        {Object{{"notes", "laundry"}, {"horizon_minutes", "soon"}}, {Usable{"laundry", std::nullopt}}},
        {JSONValue("{\"notes\": \"as text\"}"), {Usable{"as text", std::nullopt}}},
        {Object{{"notes", "   "}}, {noNotes}},
        {Object{{"notes", 7}}, {noNotes}},
        {Object{}, {noNotes}},
        {JSONValue("not json"), {Malformed{"malformed arguments (not an object)"}}},
        {JSONValue::Array{}, {Malformed{"malformed arguments (not an object)"}}},
    };
    for (const auto& [value, expected] : cases) EXPECT_EQ(parseWriteCurrentIntentionArguments(value), expected) << value.serialized();
}

TEST(CoachToolArguments, GoQuietClampsToItsBoundsAndSaysSoWhenItDid) {
    struct Case {
        JSONValue arguments;
        const char* result;
    };
    const std::vector<Case> cases{
        {Object{{"minutes", 45}}, "Quiet for 45 minutes."},
        {Object{{"minutes", 2}},
         "Quiet for 5 minutes — NOT the 2 you sent: `minutes` must be 5-1440, so it was set to 5. If that is not what "
         "they asked for, tell them."},
        {Object{{"minutes", 2000}},
         "Quiet for 1440 minutes — NOT the 2000 you sent: `minutes` must be 5-1440, so it was set to 1440. If that is "
         "not what they asked for, tell them."},
        {Object{{"rest_of_day", "true"}, {"minutes", 2}}, "Quiet for the rest of today."},
        {Object{{"rest_of_day", 1}}, "Quiet for the rest of today."},
        {Object{{"rest_of_day", "yes"}, {"minutes", 0}},
         "Not applied — no usable `minutes` (5-1440) or `rest_of_day` was given, so no quiet window exists."},
        {Object{{"minutes", "30"}},
         "Not applied — no usable `minutes` (5-1440) or `rest_of_day` was given, so no quiet window exists."},
        {JSONValue("nope"), "Not applied — no usable `minutes` (5-1440) or `rest_of_day` was given, so no quiet window exists."},
    };
    for (const Case& c : cases) EXPECT_EQ(GoQuietArguments::resultText(c.arguments), c.result) << c.arguments.serialized();
    EXPECT_EQ(GoQuietArguments::parse(Object{{"minutes", 2}}), (GoQuietArguments::Parsed{GoQuietArguments::Minutes{2, 5}}));
}

TEST(CorrectJudgmentGuardRules, ABareYesOrNoToTheCoachsOwnQuestionIsRefused) {
    const auto chat = [](int64_t ts, const char* role, const char* text) {
        return EventLogEvent{.tsMs = ts, .type = "app_chat_message", .detail = Object{{"role", role}, {"text", text}}};
    };
    using enum CorrectJudgmentGuard::Verdict;
    struct Case {
        std::vector<EventLogEvent> events;
        bool opensCheckin;
        CorrectJudgmentGuard::Verdict verdict;
    };
    const EventLogEvent question = chat(1, "coach", "Is Fruit Ninja part of your IMGD project?");
    const std::vector<Case> cases{
        {{question, chat(2, "user", "yeees!")}, false, bareAnswerToOwnQuestion},
        {{question, chat(2, "user", "Mm, totally.")}, false, bareAnswerToOwnQuestion},
        {{question, chat(2, "user", "yes it's my project")}, false, allowed},
        {{chat(1, "user", "what?"), chat(2, "user", "yes")}, false, allowed},
        {{question, EventLogEvent{.tsMs = 2, .type = "coach_checkin"}}, false, allowed},
        {{question, chat(2, "user", "yes"), EventLogEvent{.tsMs = 3, .type = "coach_checkin"}}, false, allowed},
        {{question, chat(2, "user", "fruit ninja IS my imgd project 3")}, true, bareAnswerToOwnQuestion},
    };
    for (size_t i = 0; i < cases.size(); ++i)
        EXPECT_EQ(CorrectJudgmentGuard::verdict(cases[i].events, cases[i].opensCheckin), cases[i].verdict) << i;
    EXPECT_EQ(CorrectJudgmentGuard::collapseRepeats("yeeesss"), "yes");
}

}  // namespace
}  // namespace aimwise
