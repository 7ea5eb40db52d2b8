#pragma once
// The internet date-time form of ISO 8601: "2026-11-22T06:12:24Z", "2026-11-22T07:12:24.250+01:00".
#include <cstdint>
#include <optional>
#include <string_view>

namespace aimwise::Iso8601 {

// Milliseconds since the epoch; fractional seconds optional, time zone designator required.
std::optional<int64_t> parseInternetDateTime(std::string_view text);

}  // namespace aimwise::Iso8601
