#include "AimwiseCore/events/event_log_event.h"

#include <cmath>

#include "AimwiseCore/events/json_text.h"

namespace aimwise {

std::optional<int64_t> wholeMilliseconds(double number) {
    // 2^63 itself is not representable as int64, hence the strict upper bound.
    if (!std::isfinite(number) || std::trunc(number) != number || number < -9223372036854775808.0 ||
        number >= 9223372036854775808.0)
        return std::nullopt;
    return static_cast<int64_t>(number);
}

std::optional<EventLogEvent> EventLogEvent::decode(std::string_view line) {
    auto parsed = json_text::parse(line);
    if (!parsed) return std::nullopt;
    auto* object = std::get_if<JSONValue::Object>(&parsed->value);
    if (!object) return std::nullopt;
    const auto ts = object->find("ts_ms");
    const auto kind = object->find("kind");
    const auto type = object->find("type");
    const auto detail = object->find("detail");
    const auto source = object->find("source");
    if (ts == object->end() || kind == object->end() || type == object->end() || detail == object->end() ||
        source == object->end())
        return std::nullopt;
    const double* tsNumber = ts->second.numberIfAny();
    auto* kindText = std::get_if<std::string>(&kind->second.value);
    auto* typeText = std::get_if<std::string>(&type->second.value);
    auto* sourceText = std::get_if<std::string>(&source->second.value);
    if (!tsNumber || !kindText || !typeText || !sourceText) return std::nullopt;
    const auto tsMs = wholeMilliseconds(*tsNumber);
    if (!tsMs) return std::nullopt;
    return EventLogEvent{*tsMs, std::move(*kindText), std::move(*typeText), std::move(detail->second),
                         std::move(*sourceText)};
}

std::string EventLogEvent::encoded() const {
    std::string line = "{\"ts_ms\":" + std::to_string(tsMs) + ",\"kind\":";
    json_text::appendString(line, kind);
    line += ",\"type\":";
    json_text::appendString(line, type);
    line += ",\"detail\":";
    json_text::append(line, detail);
    line += ",\"source\":";
    json_text::appendString(line, source);
    line.push_back('}');
    return line;
}

}  // namespace aimwise
