#pragma once
// Local wall-clock text "yyyy-MM-dd'T'HH:mm:ss" in the current time zone: how the classifier's log
// dates its verdicts, and how its readers read them back. The zone is ICU's default, which follows
// the process's TZ unless a test sets another.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace aimwise::LocalTime {

// To the second; empty only if ICU cannot build the formatter.
std::string format(int64_t ms);
// Milliseconds since the epoch, or nothing for text not wholly in the format.
std::optional<int64_t> parse(std::string_view text);

}  // namespace aimwise::LocalTime
