#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace aimwise {

// Trims ASCII and Unicode white space and newlines from both ends.
std::string trimWhitespaceAndNewlines(std::string_view text);
std::string join(const std::vector<std::string>& parts, std::string_view separator);
// Shortest text that reads back as the same double ("12.5", "3", "0.1").
std::string shortestRoundTrip(double value);

}  // namespace aimwise
