#pragma once
// Private to the events sources: JSON text to JSONValue and back. Log lines run to tens of
// kilobytes and every reader decodes many of them, so strings are copied in runs, not byte by byte.
#include <optional>
#include <string>
#include <string_view>

#include "AimwiseCore/events/json_value.h"

namespace aimwise::json_text {

// One JSON value with optional blanks around it; nothing for anything else, for text that is not
// UTF-8, for unpaired surrogate escapes and for nesting deeper than maxJSONDepth.
std::optional<JSONValue> parse(std::string_view text);

// Compact JSON, object keys in sorted order. Throws JSONValueError for a non-finite number or a
// string that is not UTF-8.
void append(std::string& out, const JSONValue& value);
void appendString(std::string& out, std::string_view text);
void appendNumber(std::string& out, double number);

}  // namespace aimwise::json_text
