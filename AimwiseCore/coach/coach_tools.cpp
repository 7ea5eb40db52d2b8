#include "AimwiseCore/coach/coach_tools.h"

#include <algorithm>

#include "AimwiseCore/coach/write_intention_tool.h"
#include "CaptureShared/common/text.h"

namespace aimwise {

namespace {

constexpr const char* correctJudgmentDescription =
    R"PROMPT(Record a durable FACT the user taught you: that a specific app (or the thing they're doing in it) is actually part of one of their projects/tasks — so the judgment that flagged them was missing context, not that their goal changed. This is NOT write_task: their declared task does not move; you are recording what an app MEANS for them so the system stops misreading it. Call this ONLY after THEY have told you, in their own words, what the app is for — e.g. they say "fruit ninja IS my imgd project 3". Never call it on a guess of your own that they merely said yes to; if you proposed the link and they only confirmed it, ask them what they mean instead. The fact is revisable by them (one-tap undo), so it is living memory, not a baked-in rule — but it is still theirs to state, not yours to invent.)PROMPT";
constexpr const char* correctJudgmentAppDescription =
    R"PROMPT(the app (or activity) they told you is part of a project — usually the frontmost_app in your context, named as they referred to it. Their words, tidied is fine; invented is not.)PROMPT";
constexpr const char* correctJudgmentProjectDescription =
    R"PROMPT(the project/task they said that app belongs to, in their own words (e.g. "IMGD Project 3"). Not a label you came up with.)PROMPT";
constexpr const char* rememberCorrectionDescription =
    R"PROMPT(Record something the user told you about HOW you are behaving, so it keeps applying to every decision for as long as they meant it to. Use this when they tell you that you are interrupting too much or too little, that a kind of message is unwelcome, that you got something about them wrong, or that you should handle a situation differently in future. This is NOT write_task (their intention does not move) and NOT correct_judgment (that records a fact about what an app means to them); this records a standing instruction about you. Call it ONLY for something THEY said, in their words — if you merely suspect you are annoying them, that is not a correction, and recording your own guess as their instruction would teach the system a preference they never stated. They can see and delete these, so it is living memory, not a rule you get to write about them.)PROMPT";
constexpr const char* correctionDescription =
    R"PROMPT(what they told you, in their own words — tidied is fine, invented is not. Write it as the standing instruction it should become, not as a description of this conversation: "don't ask what my first step is", not "they disliked my last message".)PROMPT";
constexpr const char* scopeDescription =
    R"PROMPT(omit unless they were clearly talking about one or the other. whether_to_speak is about interrupting them at all; what_to_say is about the content of a message once it happens. Omitting it applies the correction to both, which is the safer default.)PROMPT";
constexpr const char* lastsDescription =
    R"PROMPT(how long it applies, from their own words. A correction is followed on every decision until it ends, so one they limited in time and recorded as standing keeps overruling you long after they meant it to stop, and one they meant as standing and recorded as limited stops being followed while they still expect it. rest_of_today: they tied it to today or tonight (ends the next morning). next_few_hours: "for now" or the stretch they are in (ends in about three hours). until_changed: a standing preference about how you behave, with nothing in their words limiting it.)PROMPT";
constexpr const char* doNotDisturbDescription =
    R"PROMPT(Hold your messages for a while instead of waking on every classifier tick. This is not "give up" — nothing is lost. Anything the classifier notices during the window is kept and handed to you in one summary when the window ends, and the window ends EARLY on its own if what they're doing stops matching `expectation`, or if they take a break. `message` is what they sees now; `expectation` is what you predict you'd keep seeing if nothing changed, and it is what a cheap check compares against while you're quiet.)PROMPT";
constexpr const char* doNotDisturbMinutesDescription =
    R"PROMPT(how long to hold messages, 5-60)PROMPT";
constexpr const char* doNotDisturbMessageDescription =
    R"PROMPT(one short, warm acknowledgment — not an argument)PROMPT";
constexpr const char* expectationDescription =
    R"PROMPT(what you expect to keep seeing while you're quiet, concretely and in a few words — "repeated notifications about YouTube", "more of the same Figma file". Name the THING, not a feeling. If what they're doing stops matching this, you get woken early; so a vague expectation buys you a dumb timer and a specific one buys you a real one.)PROMPT";
constexpr const char* goQuietDescription =
    R"PROMPT(They have asked you to stop interrupting them. Use this — not `do_not_disturb`. That one is YOUR choice to hold messages and it ends early on its own; this one is THEIR instruction and it holds for exactly as long as they said, no matter what turns up on screen. Nothing is lost: what the classifier notices is kept and summarized for you when quiet ends. Give `minutes` for a duration they named, or `rest_of_day` when they mean the rest of today. Do not shorten what they asked for, do not argue with it, and do not ask them to justify it. `message` is your one short acknowledgment.)PROMPT";
constexpr const char* goQuietMinutesDescription =
    R"PROMPT(how long they asked for, in minutes, 5-1440. Omit if using rest_of_day.)PROMPT";
constexpr const char* restOfDayDescription =
    R"PROMPT(true when they mean the rest of today rather than a number of minutes. Use this instead of working out the minutes yourself.)PROMPT";
constexpr const char* goQuietMessageDescription =
    R"PROMPT(one short acknowledgment — "okay, quiet till 4". Not an argument, not a negotiation, not a request for a reason.)PROMPT";
constexpr const char* openUIDescription =
    R"PROMPT(Bring your conversation in front of them now, instead of leaving it as a passive log line they has to remember to check. Call this whenever you're speaking because YOU noticed something worth raising — drift, an estimate running out, a back-off window ending, a timed-out check-in — rather than replying inside a conversation they already has open. Err toward calling it: nothing bad happens if they're already looking at this conversation, it just won't force anything new in front of them. `message` is what they see the moment it opens — always fill it with your real reply; a call with nothing in `message` will be suppressed and not opened at all.)PROMPT";
constexpr const char* openUIMessageDescription =
    R"PROMPT(the reply they see the moment the UI opens — your actual words, not a placeholder)PROMPT";
constexpr const char* closeUIDescription =
    R"PROMPT(Step back and stop demanding their screen — dismiss the popup, or stop insisting the main window stay frontmost. Use once the conversation has reached a real stopping point, not mid-thought.)PROMPT";
constexpr const char* checkUIStateDescription =
    R"PROMPT(Ask whether their UI is open right now, and what the current time is. Returns both and does nothing else — it changes nothing and they never sees that you called it. Useful before `close_ui`, since closing a UI that was never open still yanks their window to the front and interrupts whatever they were typing. Also the one reliable way to know what time it is rather than inferring it from the newest block's timestamp.)PROMPT";
constexpr const char* proposeOptionsDescription =
    R"PROMPT(Offer them a card of tappable options in chat instead of asking them to type an answer. You are proposing, never setting: tapping a chip is THEM acting, and it applies the real setting immediately — you never call anything that sets it yourself. `setting` names which real setting this card is about; the app owns what each option id actually does, so a setting or id it doesn't recognize is just an inert chip, not an error. `message` is what they see alongside the card — always fill it with your real words, the same rule `open_ui` uses. Once they tap Next you get their choices back as one message; until then, don't ask again or wait on it — say your piece in `message` and move on.)PROMPT";
constexpr const char* settingDescription =
    R"PROMPT(which real setting this card is about — the app decides what's real, not this schema.)PROMPT";
constexpr const char* titleDescription =
    R"PROMPT(the card's heading)PROMPT";
constexpr const char* hintDescription =
    R"PROMPT(optional short clarifier shown under the label)PROMPT";
constexpr const char* proposeMessageDescription =
    R"PROMPT(what they see alongside the card — your real words)PROMPT";

JSONValue described(const char* type, const char* description) {
    return JSONValue::Object{{"type", type}, {"description", description}};
}

JSONValue schema(JSONValue::Object properties, std::vector<const char*> required) {
    JSONValue::Array names;
    for (const char* name : required) names.emplace_back(name);
    return JSONValue::Object{{"type", "object"}, {"properties", std::move(properties)}, {"required", std::move(names)}};
}

ToolSpec tool(const char* name, const char* description, JSONValue parameters) {
    return {name, description, std::move(parameters)};
}

JSONValue withEnum(JSONValue property, std::vector<const char*> values) {
    JSONValue::Array allowed;
    for (const char* value : values) allowed.emplace_back(value);
    std::get<JSONValue::Object>(property.value)["enum"] = std::move(allowed);
    return property;
}

JSONValue optionItems() {
    return JSONValue::Object{{"type", "object"},
                             {"properties", JSONValue::Object{{"id", JSONValue::Object{{"type", "string"}}},
                                                              {"label", JSONValue::Object{{"type", "string"}}},
                                                              {"hint", described("string", hintDescription)}}},
                             {"required", JSONValue::Array{"id", "label"}}};
}

std::string joinedNames(const std::vector<ToolSpec>& tools) {
    std::vector<std::string> names;
    for (const ToolSpec& definition : tools) names.push_back(definition.name);
    return join(names, ", ");
}

}  // namespace

namespace CoachTools {

const ToolSpec& correctJudgment() {
    static const ToolSpec definition = tool("correct_judgment", correctJudgmentDescription,
                                      schema({{"app", described("string", correctJudgmentAppDescription)},
                                              {"project", described("string", correctJudgmentProjectDescription)}},
                                             {"app", "project"}));
    return definition;
}

const ToolSpec& rememberCorrection() {
    static const ToolSpec definition = tool(
        "remember_correction", rememberCorrectionDescription,
        schema({{"correction", described("string", correctionDescription)},
                {"scope", withEnum(described("string", scopeDescription), {"whether_to_speak", "what_to_say"})},
                {"lasts", withEnum(described("string", lastsDescription),
                                   {"until_changed", "rest_of_today", "next_few_hours"})}},
               {"correction", "lasts"}));
    return definition;
}

const ToolSpec& doNotDisturb() {
    static const ToolSpec definition = tool("do_not_disturb", doNotDisturbDescription,
                                      schema({{"minutes", described("number", doNotDisturbMinutesDescription)},
                                              {"message", described("string", doNotDisturbMessageDescription)},
                                              {"expectation", described("string", expectationDescription)}},
                                             {"minutes", "message", "expectation"}));
    return definition;
}

const ToolSpec& goQuiet() {
    static const ToolSpec definition = tool("go_quiet", goQuietDescription,
                                      schema({{"minutes", described("number", goQuietMinutesDescription)},
                                              {"rest_of_day", described("boolean", restOfDayDescription)},
                                              {"message", described("string", goQuietMessageDescription)}},
                                             {"message"}));
    return definition;
}

const ToolSpec& openUI() {
    static const ToolSpec definition =
        tool("open_ui", openUIDescription, schema({{"message", described("string", openUIMessageDescription)}}, {"message"}));
    return definition;
}

const ToolSpec& closeUI() {
    static const ToolSpec definition = tool("close_ui", closeUIDescription, schema({}, {}));
    return definition;
}

const ToolSpec& checkUIState() {
    static const ToolSpec definition = tool("check_ui_state", checkUIStateDescription, schema({}, {}));
    return definition;
}

const ToolSpec& proposeOptions() {
    static const ToolSpec definition = tool(
        "propose_options", proposeOptionsDescription,
        schema({{"setting", described("string", settingDescription)},
                {"title", described("string", titleDescription)},
                {"options", JSONValue::Object{{"type", "array"}, {"minItems", 2}, {"maxItems", 5}, {"items", optionItems()}}},
                {"message", described("string", proposeMessageDescription)}},
               {"setting", "title", "options", "message"}));
    return definition;
}

const std::vector<ToolSpec>& all() {
    static const std::vector<ToolSpec> tools{CoachPrompt::writeCurrentIntentionTool(),
                                             correctJudgment(),
                                             doNotDisturb(),
                                             openUI(),
                                             closeUI(),
                                             checkUIState(),
                                             goQuiet(),
                                             proposeOptions()};
    return tools;
}

bool isWriteIntention(std::string_view name) {
    return std::find(writeIntentionToolNames.begin(), writeIntentionToolNames.end(), name) !=
           writeIntentionToolNames.end();
}

std::string canonicalToolName(std::string_view name) {
    return isWriteIntention(name) ? writeCurrentIntention : std::string(name);
}

const std::set<std::string, std::less<>>& unreplayableToolNames() {
    static const std::set<std::string, std::less<>> names{"stay_silent"};
    return names;
}

const std::set<std::string, std::less<>>& recognizedToolNames() {
    static const std::set<std::string, std::less<>> names = [] {
        std::set<std::string, std::less<>> out{writeTask};
        for (const ToolSpec& definition : all()) out.insert(definition.name);
        for (const ToolSpec& definition : Layer3Tools::all()) out.insert(definition.name);
        out.insert(unreplayableToolNames().begin(), unreplayableToolNames().end());
        return out;
    }();
    return names;
}

const std::set<std::string, std::less<>>& retiredToolNames() {
    // The back-off tool before it became do_not_disturb.
    static const std::set<std::string, std::less<>> names{"back_off"};
    return names;
}

bool isStateChanging(std::string_view name) {
    return name != "check_ui_state" && !unreplayableToolNames().contains(name);
}

const std::string& namesList() {
    static const std::string names = joinedNames(all());
    return names;
}

}  // namespace CoachTools

namespace Layer3Tools {

const std::vector<ToolSpec>& all() {
    static const std::vector<ToolSpec> tools{CoachPrompt::writeCurrentIntentionTool(), CoachTools::correctJudgment(),
                                             CoachTools::goQuiet(), CoachTools::rememberCorrection(),
                                             CoachTools::proposeOptions()};
    return tools;
}

const std::set<std::string, std::less<>>& replayableToolNames() {
    static const std::set<std::string, std::less<>> names = [] {
        std::set<std::string, std::less<>> out(CoachTools::writeIntentionToolNames.begin(),
                                               CoachTools::writeIntentionToolNames.end());
        for (const ToolSpec& definition : all()) out.insert(definition.name);
        return out;
    }();
    return names;
}

const std::string& namesList() {
    static const std::string names = joinedNames(all());
    return names;
}

}  // namespace Layer3Tools

}  // namespace aimwise
