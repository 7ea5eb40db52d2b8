#pragma once
// One line of io-layer/events.jsonl.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "AimwiseCore/events/json_value.h"

namespace aimwise {

struct EventLogEvent {
    int64_t tsMs = 0;
    std::string kind = "event";
    std::string type;
    JSONValue detail = JSONValue::Object{};
    std::string source = "coach-core";

    // All five keys are required; `ts_ms` must be a whole number.
    static std::optional<EventLogEvent> decode(std::string_view line);
    // Compact JSON without a newline. Throws JSONValueError when the detail cannot be encoded.
    std::string encoded() const;

    bool operator==(const EventLogEvent&) const = default;
};

// A JSON number that is a whole signed 64-bit value.
std::optional<int64_t> wholeMilliseconds(double number);

}  // namespace aimwise
