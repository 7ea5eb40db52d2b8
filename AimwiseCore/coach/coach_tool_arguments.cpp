#include "AimwiseCore/coach/coach_tool_arguments.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "AimwiseCore/coach/task_minutes.h"

#include "CaptureShared/common/text.h"

namespace aimwise {

namespace CoachToolArguments {

std::optional<JSONValue> object(const JSONValue& arguments) {
    if (arguments.isObject()) return arguments;
    if (const std::string* text = arguments.stringIfAny()) {
        auto parsed = JSONValue::tryParse(*text);
        if (parsed && parsed->isObject()) return parsed;
    }
    return std::nullopt;
}

std::optional<std::string> nonBlankString(const JSONValue& object, const char* key) {
    const JSONValue* value = object.member(key);
    if (!value || !value->stringIfAny()) return std::nullopt;
    std::string trimmed = trimWhitespaceAndNewlines(*value->stringIfAny());
    if (trimmed.empty()) return std::nullopt;
    return trimmed;
}

}  // namespace CoachToolArguments

WriteCurrentIntentionArguments parseWriteCurrentIntentionArguments(const JSONValue& value) {
    const auto arguments = CoachToolArguments::object(value);
    if (!arguments) return {WriteCurrentIntentionArguments::Malformed{"malformed arguments (not an object)"}};
    // The older tool's name stays in the message: that name still reaches this parser.
    auto notes = CoachToolArguments::nonBlankString(*arguments, "notes");
    if (!notes) return {WriteCurrentIntentionArguments::Malformed{"write_task requires a non-empty `notes` string"}};
    return {WriteCurrentIntentionArguments::Usable{std::move(*notes),
                                                   cleanTaskMinutes(arguments->member("horizon_minutes"))}};
}

namespace GoQuietArguments {

namespace {

bool restOfDayRequested(const JSONValue* value) {
    if (!value) return false;
    if (const auto* flag = std::get_if<bool>(&value->value)) return *flag;
    if (const double* number = value->numberIfAny()) return *number != 0;
    if (const std::string* text = value->stringIfAny()) return *text == "true";
    return false;
}

}  // namespace

Parsed parse(const JSONValue& value) {
    const auto arguments = CoachToolArguments::object(value);
    if (!arguments) return Malformed{};
    if (restOfDayRequested(arguments->member("rest_of_day"))) return RestOfDay{};
    const JSONValue* minutes = arguments->member("minutes");
    const double* number = minutes ? minutes->numberIfAny() : nullptr;
    if (!number || !std::isfinite(*number) || *number <= 0) return Malformed{};
    return Minutes{*number, std::clamp(*number, minMinutes, maxMinutes)};
}

std::string minutesText(double minutes) {
    if (minutes == std::trunc(minutes) && std::fabs(minutes) < 1e15) return std::to_string(static_cast<int64_t>(minutes));
    return shortestRoundTrip(minutes);
}

std::string resultText(const JSONValue& value) {
    const std::string bounds = minutesText(minMinutes) + "-" + minutesText(maxMinutes);
    const Parsed parsed = parse(value);
    if (std::holds_alternative<RestOfDay>(parsed)) return "Quiet for the rest of today.";
    if (const auto* minutes = std::get_if<Minutes>(&parsed)) {
        const std::string applied = minutesText(minutes->applied);
        if (minutes->applied == minutes->requested) return "Quiet for " + applied + " minutes.";
        return "Quiet for " + applied + " minutes — NOT the " + minutesText(minutes->requested) +
               " you sent: `minutes` must be " + bounds + ", so it was set to " + applied +
               ". If that is not what they asked for, tell them.";
    }
    return "Not applied — no usable `minutes` (" + bounds + ") or `rest_of_day` was given, so no quiet window exists.";
}

}  // namespace GoQuietArguments

namespace CorrectJudgmentGuard {

namespace {

const std::string* chatText(const EventLogEvent& event) {
    const JSONValue* text = event.detail.member("text");
    return text ? text->stringIfAny() : nullptr;
}

bool isChatFrom(const EventLogEvent& event, std::string_view role) {
    if (event.type != "app_chat_message") return false;
    const JSONValue* value = event.detail.member("role");
    return value && value->stringIfAny() && *value->stringIfAny() == role;
}

// Letters and digits of any script make words; everything else separates them.
std::vector<std::string> words(std::string_view text) {
    std::vector<std::string> out;
    std::string current;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80 || std::isalnum(byte)) {
            current += static_cast<char>(std::tolower(byte));
        } else if (!current.empty()) {
            out.push_back(std::move(current));
            current.clear();
        }
    }
    if (!current.empty()) out.push_back(std::move(current));
    return out;
}

const std::set<std::string, std::less<>>& collapsedYesNoWords() {
    static const std::set<std::string, std::less<>> collapsed = [] {
        std::set<std::string, std::less<>> out;
        for (const std::string& word : yesNoWords()) out.insert(collapseRepeats(word));
        return out;
    }();
    return collapsed;
}

}  // namespace

std::string_view rawValue(Verdict verdict) {
    return verdict == Verdict::allowed ? "allowed" : "bare_answer_to_own_question";
}

const std::set<std::string, std::less<>>& yesNoWords() {
    static const std::set<std::string, std::less<>> words{
        "yes",   "yeah",    "yea",     "yep",     "yup",   "ya",         "yah",        "ye",
        "y",     "sure",    "ok",      "okay",    "k",     "mhm",        "mm",         "uh",
        "huh",   "right",   "correct", "true",    "exactly", "totally",  "definitely", "absolutely",
        "indeed", "no",     "nope",    "nah",     "naw",   "nay",        "n"};
    return words;
}

std::string collapseRepeats(std::string_view word) {
    std::string out;
    for (const char c : word)
        if (out.empty() || out.back() != c) out += c;
    return out;
}

bool isBareYesNo(std::string_view text) {
    // Both sides are collapsed, so "mm" and "totally" still match what the person typed.
    return std::ranges::all_of(words(text),
                               [](const std::string& word) { return collapsedYesNoWords().contains(collapseRepeats(word)); });
}

Verdict verdict(const std::vector<EventLogEvent>& events, bool opensCheckin) {
    if (opensCheckin) return Verdict::bareAnswerToOwnQuestion;
    for (size_t i = events.size(); i-- > 0;) {
        const EventLogEvent& event = events[i];
        if (event.type == "coach_checkin") return Verdict::allowed;
        if (!isChatFrom(event, "user")) continue;
        const std::string* text = chatText(event);
        if (!text || !isBareYesNo(*text)) return Verdict::allowed;
        for (size_t j = i; j-- > 0;)
            if (events[j].type == "app_chat_message")
                return isChatFrom(events[j], "coach") ? Verdict::bareAnswerToOwnQuestion : Verdict::allowed;
        return Verdict::allowed;
    }
    return Verdict::allowed;
}

}  // namespace CorrectJudgmentGuard

}  // namespace aimwise
