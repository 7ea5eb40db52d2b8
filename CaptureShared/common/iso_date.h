#pragma once
// ISO-8601 internet date-times in UTC, second precision, as the small state files store them.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace aimwise::ISODate {

// "2026-11-22T06:16:07Z"; sub-second parts are floored away.
std::string format(int64_t ms);
// Accepts fractional seconds and "Z" or a "+hh:mm" offset; anything else answers nothing.
std::optional<int64_t> parse(std::string_view text);

}  // namespace aimwise::ISODate
