#include "AimwiseCore/coach/coach_gate_schema.h"

#include <cstdio>

#include "AimwiseCore/events/json_value.h"
#include "AimwiseCore/privacy/icu_regex.h"
#include "CaptureShared/common/text.h"

namespace aimwise::CoachGateSchema {

const std::string& schemaJSON() {
    static const std::string schema =
        R"({"type":"object","additionalProperties":false,"properties":{"summary_for_coach":{"type":"string","description":)" +
        jsonString(summaryDescription()) + R"(},"should_check_in":{"type":"boolean","description":)" +
        jsonString(decisionDescription()) + R"(}},"required":["summary_for_coach","should_check_in"]})";
    return schema;
}

std::string jsonString(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        switch (c) {
            case '\\': out += "\\\\"; break;
            case '"': out += "\\\""; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
                    out += escaped;
                } else {
                    out += c;
                }
        }
    }
    return out + "\"";
}

GateOutcome parse(std::string_view text) {
    const std::string trimmed = trimWhitespaceAndNewlines(text);
    if (trimmed.empty()) return GateOutcome::failed("empty response");
    const size_t first = trimmed.find('{');
    const size_t last = trimmed.rfind('}');
    if (first == std::string::npos || last == std::string::npos || first >= last)
        return GateOutcome::failed("no JSON object found");
    const auto parsed = JSONValue::tryParse(std::string_view(trimmed).substr(first, last - first + 1));
    if (!parsed || !parsed->isObject()) return GateOutcome::failed("not a JSON object");
    const JSONValue* summary = parsed->member(summaryKey);
    if (!summary || !summary->stringIfAny()) return GateOutcome::failed("missing or non-string `summary_for_coach`");
    const JSONValue* decision = parsed->member(decisionKey);
    const bool* flag = decision ? std::get_if<bool>(&decision->value) : nullptr;
    if (!flag) return GateOutcome::failed("missing or non-boolean `should_check_in`");
    return GateOutcome::decided({*summary->stringIfAny(), *flag});
}

std::vector<std::string> observedKeyOrder(std::string_view text) {
    std::vector<std::pair<size_t, std::string>> found;
    for (const char* key : {summaryKey, decisionKey}) {
        const size_t at = text.find("\"" + std::string(key) + "\"");
        if (at != std::string_view::npos) found.emplace_back(at, key);
    }
    if (found.size() == 2 && found[1].first < found[0].first) std::swap(found[0], found[1]);
    std::vector<std::string> keys;
    for (auto& [position, key] : found) keys.push_back(std::move(key));
    return keys;
}

bool keyOrderIsCorrect(std::string_view text) {
    return observedKeyOrder(text) == std::vector<std::string>{summaryKey, decisionKey};
}

bool summaryAddressesSecondPerson(std::string_view summary) {
    static const auto pattern = privacy_icu::compileOrAbort(
        "the gate's second-person check", R"re((?i)\b(you|you're|you've|you'd|you'll|your|yours)\b)re");
    const std::u16string text = privacy_icu::toUTF16(summary);
    return privacy_icu::matchesAnywhere(*pattern, text);
}

}  // namespace aimwise::CoachGateSchema
