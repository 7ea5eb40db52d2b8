#include "AimwiseCore/coach/coach_correction.h"

#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/events/json_value.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/text.h"

namespace aimwise {

namespace {

// Absent and null are the same; a value of another type spoils the line.
bool optionalMs(const JSONValue& object, const char* key, std::optional<int64_t>& out) {
    const JSONValue* value = object.member(key);
    if (!value || value->isNull()) return true;
    const double* number = value->numberIfAny();
    if (!number) return false;
    out = wholeMilliseconds(*number);
    return out.has_value();
}

}  // namespace

std::optional<CoachCorrection::Scope> CoachCorrection::scopeFromRaw(std::string_view raw) {
    if (raw == "whether_to_speak") return Scope::whetherToSpeak;
    if (raw == "what_to_say") return Scope::whatToSay;
    return std::nullopt;
}

std::optional<CoachCorrection> CoachCorrection::decode(std::string_view line) {
    const auto parsed = JSONValue::tryParse(line);
    if (!parsed || !parsed->isObject()) return std::nullopt;
    CoachCorrection correction;
    std::optional<int64_t> at;
    if (!optionalMs(*parsed, "at_ms", at) || !at) return std::nullopt;
    correction.atMs = *at;
    const JSONValue* text = parsed->member("text");
    if (!text || !text->stringIfAny() || trimWhitespaceAndNewlines(*text->stringIfAny()).empty()) return std::nullopt;
    correction.text = *text->stringIfAny();
    if (const JSONValue* scope = parsed->member("scope"); scope && !scope->isNull()) {
        // An unknown scope is kept as applying to both rather than dropping what they said.
        if (!scope->stringIfAny()) return std::nullopt;
        correction.scope = scopeFromRaw(*scope->stringIfAny());
    }
    if (!optionalMs(*parsed, "ends_at_ms", correction.endsAtMs) ||
        !optionalMs(*parsed, "folded_at_ms", correction.foldedAtMs))
        return std::nullopt;
    return correction;
}

namespace CoachCorrections {

std::filesystem::path defaultURL(const std::filesystem::path& dataRoot) { return dataRoot / "coach-corrections.jsonl"; }

std::vector<CoachCorrection> read(const std::filesystem::path& url) {
    std::vector<CoachCorrection> corrections;
    std::string data;
    try {
        data = readFileTail(url, ReadLimit::log);
    } catch (const std::exception&) {
        return corrections;
    }
    forEachLine(data, [&](std::string_view line) {
        if (auto correction = CoachCorrection::decode(line)) corrections.push_back(std::move(*correction));
    });
    return corrections;
}

}  // namespace CoachCorrections

}  // namespace aimwise
