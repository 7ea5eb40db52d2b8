#include "AimwiseCore/coach/historical_tool_results.h"

#include <algorithm>
#include <cmath>

#include "AimwiseCore/coach/coach_tool_arguments.h"
#include "AimwiseCore/coach/coach_tools.h"
#include "AimwiseCore/coach/quiet_windows.h"

namespace aimwise::CoachProjection {

namespace {

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

std::string writeResult(const JSONValue& arguments) {
    const auto parsed = parseWriteCurrentIntentionArguments(arguments);
    if (const auto* malformed = std::get_if<WriteCurrentIntentionArguments::Malformed>(&parsed.value))
        return "Not set " + malformed->reason;
    const auto& usable = std::get<WriteCurrentIntentionArguments::Usable>(parsed.value);
    std::string text = "Set: " + quoted(usable.notes);
    if (usable.horizonMinutes) text += " (" + std::to_string(*usable.horizonMinutes) + " min)";
    return text;
}

std::string correctJudgmentResult(const JSONValue& arguments, bool refused) {
    if (refused) return CorrectJudgmentGuard::refusalResult;
    const auto object = CoachToolArguments::object(arguments);
    const auto app = object ? CoachToolArguments::nonBlankString(*object, "app") : std::nullopt;
    const auto project = object ? CoachToolArguments::nonBlankString(*object, "project") : std::nullopt;
    if (!app || !project) return "Not recorded — missing app or project.";
    return "Recorded: " + *app + " is part of " + *project;
}

std::string rememberCorrectionResult(const JSONValue& arguments) {
    const auto object = CoachToolArguments::object(arguments);
    const auto text = object ? CoachToolArguments::nonBlankString(*object, "correction") : std::nullopt;
    if (!text) return "Not recorded — `correction` was missing or empty, so nothing was saved.";
    const auto lasts = CoachToolArguments::nonBlankString(*object, "lasts");
    std::string ending = " — until they change it.";
    if (lasts == "rest_of_today") ending = " — for the rest of today.";
    if (lasts == "next_few_hours") ending = " — for the next few hours.";
    return "Recorded: " + quoted(*text) + ending;
}

std::string proposeOptionsResult(const JSONValue& arguments) {
    const auto object = CoachToolArguments::object(arguments);
    const auto title = object ? CoachToolArguments::nonBlankString(*object, "title") : std::nullopt;
    if (!title) return "Not shown — missing title.";
    int usable = 0;
    if (const JSONValue* options = object->member("options"))
        if (const auto* items = std::get_if<JSONValue::Array>(&options->value))
            for (const JSONValue& item : *items)
                if (CoachToolArguments::nonBlankString(item, "id") && CoachToolArguments::nonBlankString(item, "label"))
                    ++usable;
    if (usable < 2) return "Not shown — fewer than two usable options.";
    return "Shown: " + *title;
}

std::string doNotDisturbResult(const JSONValue& arguments) {
    const auto object = CoachToolArguments::object(arguments);
    const JSONValue* minutes = object ? object->member("minutes") : nullptr;
    const double* number = minutes ? minutes->numberIfAny() : nullptr;
    if (!number || !std::isfinite(*number) || *number <= 0)
        return "Not applied — no usable `minutes` (5-60) was given, so your messages were not held.";
    const double applied = std::clamp(*number, QuietWindows::minBackOffMinutes, QuietWindows::maxBackOffMinutes);
    return "Holding your messages for " + GoQuietArguments::minutesText(applied) + " minutes.";
}

}  // namespace

std::string_view rawValue(DeadToolCallPolicy policy) {
    return policy == DeadToolCallPolicy::replay ? "replay" : "dropTurn";
}

std::optional<DeadToolCallPolicy> deadToolCallPolicyFromRaw(std::string_view raw) {
    if (raw == "replay") return DeadToolCallPolicy::replay;
    if (raw == "dropTurn") return DeadToolCallPolicy::dropTurn;
    return std::nullopt;
}

std::vector<ToolCall> parseToolCalls(const JSONValue& value) {
    std::vector<ToolCall> calls;
    if (const auto* items = std::get_if<JSONValue::Array>(&value.value))
        for (const JSONValue& item : *items)
            if (auto call = ToolCall::decodeLogged(item)) calls.push_back(std::move(*call));
    return calls;
}

std::string noSuchToolResult() { return "No such tool — nothing happened. Your tools are: " + CoachTools::namesList(); }

std::string historicalToolResult(const ToolCall& call, bool correctJudgmentRefused) {
    const std::string& name = call.name;
    if (CoachTools::isWriteIntention(name)) return writeResult(call.arguments);
    if (name == "correct_judgment") return correctJudgmentResult(call.arguments, correctJudgmentRefused);
    if (name == "go_quiet") return GoQuietArguments::resultText(call.arguments);
    if (name == "remember_correction") return rememberCorrectionResult(call.arguments);
    if (name == "propose_options") return proposeOptionsResult(call.arguments);
    if (name == "do_not_disturb") return doNotDisturbResult(call.arguments);
    if (name == "open_ui") {
        const auto object = CoachToolArguments::object(call.arguments);
        return object && CoachToolArguments::nonBlankString(*object, "message") ? "Opened, showing your message."
                                                                                  : openUIWithoutMessageResult;
    }
    if (name == "close_ui") return "UI closed.";
    if (name == "check_ui_state") return "Answered at the time; call it again for the state now.";
    if (CoachTools::recognizedToolNames().contains(name)) return "Done.";
    return noSuchToolResult();
}

}  // namespace aimwise::CoachProjection
