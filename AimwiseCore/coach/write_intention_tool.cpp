#include "AimwiseCore/coach/write_intention_tool.h"

#include <string>

namespace aimwise::CoachPrompt {

namespace {

constexpr const char* onlineLead =
    R"PROMPT(Replace the user's declared intention with a new one. Every check-in after this compares their screen with `notes` until the horizon runs out, so `notes` has to be the whole of what they now mean to do. A step toward the intention already declared is not a new one: the declared intention already covers it, and replacing it with the step makes the next step read as drift. Something they will not do is not one yet either: "not X" matches nearly any screen.)PROMPT";
constexpr const char* onlineNotesSentence =
    R"PROMPT(`notes` is their own intention, not one you came up with.)PROMPT";
constexpr const char* onlineNotesDescription =
    R"PROMPT(the new task, as the user stated it: the whole of what they now mean to do, not a step toward it, and something they will be doing rather than something they will not. Tidying up their phrasing is fine; inventing a task they did not state is not.)PROMPT";
constexpr const char* localLead =
    R"PROMPT(Commit a change to the user's declared task.)PROMPT";
constexpr const char* localNotesSentence =
    R"PROMPT(Pass what they said as `notes` — their own task, not one you came up with.)PROMPT";
constexpr const char* localNotesDescription =
    R"PROMPT(the new task, as the user stated it. Tidying up their phrasing is fine; inventing a task they did not state is not.)PROMPT";
constexpr const char* callAsSoonAs =
    R"PROMPT(Call this as soon as they state an activity in their own words together with a time budget — including a break or an errand, which counts exactly as much as work — and ask them to check it afterwards rather than waiting for a confirmation first.)PROMPT";
constexpr const char* neverGuess =
    R"PROMPT(Never call this to guess or propose a task on their behalf, and never on a leading yes/no you offered them. If they gave a time budget anywhere in the conversation, or one is already on their declared task as `estimate_minutes` in your context, you MUST pass it as `horizon_minutes` — it is the single most important thing they tell you, and dropping it is the most common way this call goes wrong.)PROMPT";
constexpr const char* horizonDescription =
    R"PROMPT(how long they said it would take, in minutes, taken from THEIR words anywhere in this conversation. If `estimate_minutes` is set in your context, carry it here when this is the same work rather than asking them to repeat themselves. Pass null ONLY if they genuinely never gave one — never guess a number they didn't say.)PROMPT";

ToolSpec toolWith(std::string_view lead, std::string_view notesSentence, const char* notesDescription) {
    JSONValue::Object properties{
        {"notes", JSONValue::Object{{"type", "string"}, {"description", notesDescription}}},
        {"horizon_minutes",
         JSONValue::Object{{"type", JSONValue::Array{"integer", "null"}}, {"description", horizonDescription}}}};
    return {writeCurrentIntentionToolName, writeCurrentIntentionDescription(lead, notesSentence),
            JSONValue::Object{{"type", "object"},
                              {"properties", std::move(properties)},
                              {"required", JSONValue::Array{"notes", "horizon_minutes"}}}};
}

}  // namespace

std::string writeCurrentIntentionDescription(std::string_view lead, std::string_view notesSentence) {
    return std::string(lead) + " " + std::string(notesSentence) + " " + callAsSoonAs + " " + neverGuess;
}

const ToolSpec& writeCurrentIntentionTool() {
    static const ToolSpec tool = toolWith(onlineLead, onlineNotesSentence, onlineNotesDescription);
    return tool;
}

const ToolSpec& writeCurrentIntentionToolLocal() {
    static const ToolSpec tool = toolWith(localLead, localNotesSentence, localNotesDescription);
    return tool;
}

}  // namespace aimwise::CoachPrompt
