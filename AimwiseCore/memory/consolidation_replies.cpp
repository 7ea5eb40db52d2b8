#include "AimwiseCore/memory/consolidation_replies.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "CaptureShared/common/text.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise::ConsolidationReplies {

namespace {

std::optional<JSONValue::Object> parsedObject(std::string_view text) {
    const auto span = objectSpan(text);
    if (!span) return std::nullopt;
    auto value = JSONValue::tryParse(*span);
    auto* object = value ? std::get_if<JSONValue::Object>(&value->value) : nullptr;
    if (!object) return std::nullopt;
    return std::move(*object);
}

const JSONValue::Array* arrayMember(const JSONValue::Object& object, const char* key) {
    const auto it = object.find(key);
    return it == object.end() ? nullptr : std::get_if<JSONValue::Array>(&it->second.value);
}

std::string stringMember(const JSONValue& value, const char* key) {
    const JSONValue* member = value.member(key);
    const std::string* text = member ? member->stringIfAny() : nullptr;
    return text ? *text : std::string();
}

// Non-blank strings, trimmed, each once.
std::vector<std::string> lessonsOf(const JSONValue::Array* array) {
    std::vector<std::string> lessons;
    if (!array) return lessons;
    for (const JSONValue& item : *array) {
        const std::string* text = item.stringIfAny();
        if (!text) continue;
        std::string lesson = trimWhitespaceAndNewlines(*text);
        if (!lesson.empty() && std::find(lessons.begin(), lessons.end(), lesson) == lessons.end())
            lessons.push_back(std::move(lesson));
    }
    return lessons;
}

std::optional<MemoryFactProvenance> provenanceOf(const std::string& raw) {
    if (raw == "asserted") return MemoryFactProvenance::asserted;
    if (raw == "inferred") return MemoryFactProvenance::inferred;
    return std::nullopt;
}

std::optional<MemoryThreadStatus> statusOf(const std::string& raw) {
    for (const auto status : {MemoryThreadStatus::active, MemoryThreadStatus::dormant,
                              MemoryThreadStatus::done, MemoryThreadStatus::dropped})
        if (rawValue(status) == raw) return status;
    return std::nullopt;
}

std::string oneLine(std::string text) {
    for (char& c : text)
        if (c == '\n' || c == '\r') c = ' ';
    return text;
}

}  // namespace

std::optional<std::string_view> objectSpan(std::string_view text) {
    const size_t first = text.find('{');
    const size_t last = text.rfind('}');
    if (first == std::string_view::npos || last == std::string_view::npos || last < first)
        return std::nullopt;
    return text.substr(first, last - first + 1);
}

std::vector<int64_t> intArray(const JSONValue* value) {
    std::vector<int64_t> out;
    const auto* array = value ? std::get_if<JSONValue::Array>(&value->value) : nullptr;
    if (!array) return out;
    for (const JSONValue& item : *array) {
        const double* number = item.numberIfAny();
        if (number && std::isfinite(*number) && std::trunc(*number) == *number && std::fabs(*number) < 9.0e15)
            out.push_back(static_cast<int64_t>(*number));
    }
    return out;
}

std::optional<ParsedDigest> parseDigestJSON(std::string_view text, const std::vector<int64_t>& tsMsByLine) {
    const auto object = parsedObject(text);
    if (!object) return std::nullopt;
    const auto summary = object->find("summary");
    if (summary == object->end() || !summary->second.stringIfAny()) return std::nullopt;

    ParsedDigest digest{.summary = trimWhitespaceAndNewlines(*summary->second.stringIfAny())};
    digest.lessons = lessonsOf(arrayMember(*object, "lessons"));
    if (const auto* facts = arrayMember(*object, "facts")) {
        for (const JSONValue& item : *facts) {
            if (!item.isObject()) continue;
            std::string factText = trimWhitespaceAndNewlines(stringMember(item, "text"));
            const auto provenance = provenanceOf(stringMember(item, "provenance"));
            if (factText.empty() || !provenance) continue;
            MemoryFact fact{.text = std::move(factText), .provenance = *provenance};
            for (const int64_t line : intArray(item.member("source_lines")))
                if (line >= 1 && line <= static_cast<int64_t>(tsMsByLine.size()))
                    fact.sourceEventTsMs.push_back(tsMsByLine[static_cast<size_t>(line - 1)]);
            digest.facts.push_back(std::move(fact));
        }
    }
    return digest;
}

std::optional<ParsedRegeneration> parseRegenerationJSON(std::string_view text,
                                                        const std::vector<MemoryFact>& candidateFacts) {
    const auto object = parsedObject(text);
    if (!object) return std::nullopt;
    const auto* threads = arrayMember(*object, "threads");
    const auto keep = object->find("keep_fact_indices");
    const auto* lessons = arrayMember(*object, "lessons");
    if (!threads || keep == object->end() || !std::get_if<JSONValue::Array>(&keep->second.value) || !lessons)
        return std::nullopt;

    ParsedRegeneration parsed;
    for (const JSONValue& item : *threads) {
        if (!item.isObject()) continue;
        std::string name = trimWhitespaceAndNewlines(stringMember(item, "name"));
        const auto status = statusOf(stringMember(item, "status"));
        if (name.empty() || !status) continue;
        parsed.threads.push_back(
            {std::move(name), *status, trimWhitespaceAndNewlines(stringMember(item, "notes"))});
    }
    std::set<int64_t> kept;
    for (const int64_t index : intArray(&keep->second))
        if (index >= 0 && index < static_cast<int64_t>(candidateFacts.size())) kept.insert(index);
    for (const int64_t index : kept) parsed.facts.push_back(candidateFacts[static_cast<size_t>(index)]);
    parsed.lessons = lessonsOf(lessons);
    return parsed;
}

std::optional<std::string> servedBy(const ChatResponse& response) {
    if (response.servedBy) return response.servedBy;
    if (response.provenance && response.provenance->provider) return response.provenance->provider;
    return std::nullopt;
}

std::string salvageDetail(const ChatResponse& response) {
    const auto provider = servedBy(response);
    const std::string who = "the reply" + (provider ? " from " + *provider : std::string());
    const size_t chars = utf8::scalarCount(response.text);
    if (response.truncated && trimWhitespaceAndNewlines(response.text).empty())
        return who + " was cut off before any answer was written (" +
               std::to_string(utf8::scalarCount(response.thinking)) +
               " chars of thinking filled the model's limit)";
    if (response.truncated)
        return who + " was cut off after " + std::to_string(chars) + " chars, before the JSON closed";
    return who + " was complete (" + std::to_string(chars) + " chars) but was not the JSON asked for";
}

std::string head(std::string_view text, size_t characters) {
    return oneLine(utf8::prefix(text, characters));
}

std::string tail(std::string_view text, size_t characters) {
    const auto scalars = utf8::decode(text);
    if (scalars.size() <= characters) return oneLine(std::string(text));
    return oneLine(
        utf8::encode(std::vector<char32_t>(scalars.end() - static_cast<long>(characters), scalars.end())));
}

}  // namespace aimwise::ConsolidationReplies
