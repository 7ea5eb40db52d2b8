#include "AimwiseCore/events/event_log_event.h"

#include <cmath>

#include "AimwiseCore/events/json_value_bridge.h"

namespace aimwise {

std::optional<int64_t> wholeMilliseconds(double number) {
    // 2^63 itself is not representable as int64, hence the strict upper bound.
    if (!std::isfinite(number) || std::trunc(number) != number || number < -9223372036854775808.0 ||
        number >= 9223372036854775808.0)
        return std::nullopt;
    return static_cast<int64_t>(number);
}

std::optional<EventLogEvent> EventLogEvent::decode(std::string_view line) {
    const auto json = json_bridge::parseJSON(line);
    if (!json || !json->is_object()) return std::nullopt;
    const auto ts = json->find("ts_ms");
    const auto kind = json->find("kind");
    const auto type = json->find("type");
    const auto detail = json->find("detail");
    const auto source = json->find("source");
    if (ts == json->end() || kind == json->end() || type == json->end() || detail == json->end() ||
        source == json->end())
        return std::nullopt;
    if (!ts->is_number() || !kind->is_string() || !type->is_string() || !source->is_string()) return std::nullopt;
    EventLogEvent event;
    if (ts->is_number_integer() && !ts->is_number_unsigned()) {
        event.tsMs = ts->get<int64_t>();
    } else {
        const auto whole = wholeMilliseconds(ts->get<double>());
        if (!whole) return std::nullopt;
        event.tsMs = *whole;
    }
    auto converted = json_bridge::fromJSON(*detail);
    if (!converted) return std::nullopt;
    event.kind = kind->get<std::string>();
    event.type = type->get<std::string>();
    event.detail = std::move(*converted);
    event.source = source->get<std::string>();
    return event;
}

std::string EventLogEvent::encoded() const {
    nlohmann::ordered_json line = nlohmann::ordered_json::object();
    line["ts_ms"] = tsMs;
    line["kind"] = kind;
    line["type"] = type;
    line["detail"] = json_bridge::toJSON(detail);
    line["source"] = source;
    try {
        return line.dump();
    } catch (const nlohmann::json::exception& error) {
        throw JSONValueError(error.what());
    }
}

}  // namespace aimwise
