#include "AimwiseCore/coach/projection_date_parsing.h"

#include <chrono>
#include <cstdio>

#include "CaptureShared/common/local_time.h"

namespace aimwise {

std::optional<int64_t> DateParseMemo::value(std::string_view text,
                                            const std::function<std::optional<int64_t>(std::string_view)>& parse) {
    std::lock_guard guard(lock_);
    if (const auto it = entries_.find(text); it != entries_.end()) return it->second;
    const auto parsed = parse(text);
    if (entries_.size() > capacity_) entries_.clear();
    entries_.emplace(std::string(text), parsed);
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

namespace {

struct Fields {
    int year, month, day, hour, minute, second;
};

// Only the exact form "yyyy-MM-ddTHH:mm:ss" with minutes and seconds in range; anything else is left
// to the full parser.
std::optional<Fields> exactFields(std::string_view text) {
    if (text.size() != 19 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' || text[16] != ':')
        return std::nullopt;
    for (const size_t i : {0, 1, 2, 3, 5, 6, 8, 9, 11, 12, 14, 15, 17, 18})
        if (text[i] < '0' || text[i] > '9') return std::nullopt;
    const auto number = [&](size_t at, size_t length) {
        int value = 0;
        for (size_t i = at; i < at + length; ++i) value = value * 10 + (text[i] - '0');
        return value;
    };
    Fields fields{number(0, 4), number(5, 2), number(8, 2), number(11, 2), number(14, 2), number(17, 2)};
    if (fields.minute > 59 || fields.second > 59) return std::nullopt;
    return fields;
}

std::string hourText(int year, int month, int day, int hour) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:00:00", year, month, day, hour);
    return buffer;
}

// The start of each local hour met in one batch, when that hour is a plain sixty minutes.
class HourStarts {
public:
    std::optional<int64_t> parse(std::string_view text) {
        const auto fields = exactFields(text);
        if (!fields) return parseLocal(text);
        const int64_t key = ((int64_t(fields->year) * 100 + fields->month) * 100 + fields->day) * 100 + fields->hour;
        auto it = starts_.find(key);
        if (it == starts_.end()) it = starts_.emplace(key, plainHourStart(*fields)).first;
        if (!it->second) return parseLocal(text);
        return *it->second + fields->minute * 60'000 + fields->second * 1'000;
    }

private:
    static std::optional<int64_t> plainHourStart(const Fields& f) {
        const auto start = parseLocal(hourText(f.year, f.month, f.day, f.hour));
        if (!start) return std::nullopt;
        using namespace std::chrono;
        const year_month_day next =
            f.hour < 23 ? year_month_day{year{f.year}, month{unsigned(f.month)}, day{unsigned(f.day)}}
                        : year_month_day{sys_days{year{f.year} / month{unsigned(f.month)} / day{unsigned(f.day)}} + days{1}};
        const auto end = parseLocal(hourText(int(next.year()), int(unsigned(next.month())), int(unsigned(next.day())),
                                             (f.hour + 1) % 24));
        if (!end || *end - *start != 3'600'000) return std::nullopt;
        return start;
    }

    std::unordered_map<int64_t, std::optional<int64_t>> starts_;
};

}  // namespace

std::vector<std::optional<int64_t>> parseLocalMany(std::span<const std::string_view> texts) {
    std::vector<std::optional<int64_t>> out;
    out.reserve(texts.size());
    HourStarts hours;
    for (const std::string_view text : texts) out.push_back(hours.parse(text));
    return out;
}

std::optional<int64_t> parseLocal(std::string_view text) {
    // A text this long cannot be a date; keeping it out spares the memo hostile megabyte keys.
    if (text.size() > maxDateLength) return std::nullopt;
    return DateParseMemo::shared().value(text, parseLocalUncached);
}

}  // namespace ProjectionDateParsing

}  // namespace aimwise
