#include "AimwiseCore/coach/projection_date_parsing.h"

#include "CaptureShared/common/local_time.h"

namespace aimwise {

std::optional<int64_t> DateParseMemo::value(std::string_view text,
                                            const std::function<std::optional<int64_t>(std::string_view)>& parse) {
    std::lock_guard guard(lock_);
    std::string key(text);
    if (const auto it = entries_.find(key); it != entries_.end()) return it->second;
    const auto parsed = parse(text);
    if (entries_.size() > capacity_) entries_.clear();
    entries_.emplace(std::move(key), parsed);
    return parsed;
}

size_t DateParseMemo::count() const {
    std::lock_guard guard(lock_);
    return entries_.size();
}

void DateParseMemo::clear() {
    std::lock_guard guard(lock_);
    entries_.clear();
}

DateParseMemo& DateParseMemo::shared() {
    static DateParseMemo memo;
    return memo;
}

namespace ProjectionDateParsing {

namespace {

constexpr size_t maxDateLength = 64;

}  // namespace

std::optional<int64_t> parseLocalUncached(std::string_view text) {
    return LocalTime::parse(text);
}

std::optional<int64_t> parseLocal(std::string_view text) {
    // A text this long cannot be a date; keeping it out spares the memo hostile megabyte keys.
    if (text.size() > maxDateLength) return std::nullopt;
    return DateParseMemo::shared().value(text, parseLocalUncached);
}

}  // namespace ProjectionDateParsing

}  // namespace aimwise
