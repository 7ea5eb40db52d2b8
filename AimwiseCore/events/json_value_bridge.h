#pragma once
// Private to the events sources: the conversions between JSONValue and nlohmann::json.
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "AimwiseCore/events/json_value.h"

namespace aimwise::json_bridge {

// Refuses nesting deeper than maxJSONDepth and anything that is not one JSON text.
std::optional<nlohmann::json> parseJSON(std::string_view text);
std::optional<JSONValue> fromJSON(const nlohmann::json& json);
// Throws JSONValueError for a non-finite number.
nlohmann::json toJSON(const JSONValue& value);
// Throws JSONValueError for text that is not UTF-8.
std::string dump(const nlohmann::json& json);

}  // namespace aimwise::json_bridge
