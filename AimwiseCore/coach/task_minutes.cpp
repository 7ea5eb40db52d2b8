#include "AimwiseCore/coach/task_minutes.h"

#include <charconv>
#include <cmath>

#include "CaptureShared/common/text.h"

namespace aimwise {

namespace {

// Far beyond any real budget, and well inside int64 once multiplied into milliseconds.
constexpr double largestMinutes = 1e9;

std::optional<int64_t> wholeMinutes(double value) {
    if (!std::isfinite(value) || std::fabs(value) > largestMinutes) return std::nullopt;
    return static_cast<int64_t>(std::trunc(value));
}

}  // namespace

std::optional<int64_t> cleanTaskMinutes(const JSONValue* value) {
    if (!value) return std::nullopt;
    if (const double* number = value->numberIfAny()) return wholeMinutes(*number);
    const std::string* text = value->stringIfAny();
    if (!text) return std::nullopt;
    const std::string trimmed = trimWhitespaceAndNewlines(*text);
    double parsed = 0;
    const auto [end, error] = std::from_chars(trimmed.data(), trimmed.data() + trimmed.size(), parsed);
    if (trimmed.empty() || error != std::errc() || end != trimmed.data() + trimmed.size()) return std::nullopt;
    return wholeMinutes(parsed);
}

}  // namespace aimwise
