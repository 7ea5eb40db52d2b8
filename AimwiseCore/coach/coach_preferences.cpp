#include "AimwiseCore/coach/coach_preferences.h"

#include "AimwiseCore/events/json_value.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/text.h"

namespace aimwise {

namespace CoachPreferencesStore {

namespace {

std::optional<JSONValue> object(const std::filesystem::path& dataRoot) {
    try {
        auto parsed = JSONValue::tryParse(readWholeFile(path(dataRoot), ReadLimit::setting));
        if (parsed && parsed->isObject()) return parsed;
    } catch (const std::exception&) {
    }
    return std::nullopt;
}

void take(const JSONValue& from, const char* key, std::string& into) {
    if (const JSONValue* value = from.member(key); value && value->stringIfAny()) into = *value->stringIfAny();
}

void take(const JSONValue& from, const char* key, bool& into) {
    if (const JSONValue* value = from.member(key))
        if (const bool* flag = std::get_if<bool>(&value->value)) into = *flag;
}

}  // namespace

std::filesystem::path path(const std::filesystem::path& dataRoot) { return dataRoot / "coach-preferences.json"; }

CoachPreferences decode(std::string_view text) {
    CoachPreferences preferences;
    const auto parsed = JSONValue::tryParse(text);
    if (!parsed || !parsed->isObject()) return preferences;
    take(*parsed, "gateInstructions", preferences.gateInstructions);
    take(*parsed, "coachInstructions", preferences.coachInstructions);
    take(*parsed, "classifierInstructions", preferences.classifierInstructions);
    take(*parsed, "standingMemoryEnabled", preferences.standingMemoryEnabled);
    take(*parsed, "medsRemindersEnabled", preferences.medsRemindersEnabled);
    take(*parsed, "pauseMediaOnCheckinEnabled", preferences.pauseMediaOnCheckinEnabled);
    take(*parsed, "developerModeEnabled", preferences.developerModeEnabled);
    return preferences;
}

CoachPreferences read(const std::filesystem::path& dataRoot) {
    try {
        return decode(readWholeFile(path(dataRoot), ReadLimit::setting));
    } catch (const std::exception&) {
        return {};
    }
}

void write(const CoachPreferences& preferences, const std::filesystem::path& dataRoot) {
    const JSONValue file = JSONValue::Object{{"gateInstructions", preferences.gateInstructions},
                                             {"coachInstructions", preferences.coachInstructions},
                                             {"classifierInstructions", preferences.classifierInstructions},
                                             {"standingMemoryEnabled", preferences.standingMemoryEnabled},
                                             {"medsRemindersEnabled", preferences.medsRemindersEnabled},
                                             {"pauseMediaOnCheckinEnabled", preferences.pauseMediaOnCheckinEnabled},
                                             {"developerModeEnabled", preferences.developerModeEnabled}};
    writeFileAtomically(path(dataRoot), file.serialized(), 0600);
}

std::optional<bool> explicitMedsRemindersEnabled(const std::filesystem::path& dataRoot) {
    const auto parsed = object(dataRoot);
    const JSONValue* value = parsed ? parsed->member("medsRemindersEnabled") : nullptr;
    const bool* flag = value ? std::get_if<bool>(&value->value) : nullptr;
    return flag ? std::optional<bool>(*flag) : std::nullopt;
}

}  // namespace CoachPreferencesStore

namespace UserStandingInstructionsRendering {

namespace {

std::optional<std::string> rendered(const char* lead, const std::string& text) {
    const std::string trimmed = trimWhitespaceAndNewlines(text);
    if (trimmed.empty()) return std::nullopt;
    return std::string(lead) + ": \"" + trimmed + "\"";
}

}  // namespace

std::optional<std::string> forGate(const std::string& text) {
    return rendered("A standing note they wrote for you directly", text);
}
std::optional<std::string> forCoach(const std::string& text) {
    return rendered("A standing note they wrote for you directly", text);
}
std::optional<std::string> forClassifier(const std::string& text) { return rendered("They've also told you this", text); }

}  // namespace UserStandingInstructionsRendering

}  // namespace aimwise
