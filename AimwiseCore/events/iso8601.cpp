#include "AimwiseCore/events/iso8601.h"

#include <ctime>

namespace aimwise::Iso8601 {

namespace {

bool digits(std::string_view text, size_t at, size_t count, int& out) {
    if (at + count > text.size()) return false;
    out = 0;
    for (size_t i = at; i < at + count; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        out = out * 10 + (text[i] - '0');
    }
    return true;
}

int daysInMonth(int year, int month) {
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : days[month - 1];
}

}  // namespace

std::optional<int64_t> parseInternetDateTime(std::string_view text) {
    int year, month, day, hour, minute, second;
    if (!digits(text, 0, 4, year) || text.size() < 20 || text[4] != '-' || !digits(text, 5, 2, month) ||
        text[7] != '-' || !digits(text, 8, 2, day) || (text[10] != 'T' && text[10] != 't') ||
        !digits(text, 11, 2, hour) || text[13] != ':' || !digits(text, 14, 2, minute) || text[16] != ':' ||
        !digits(text, 17, 2, second))
        return std::nullopt;
    if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 || minute > 59 ||
        second > 60)
        return std::nullopt;

    size_t at = 19;
    int64_t millis = 0;
    if (at < text.size() && text[at] == '.') {
        ++at;
        const size_t start = at;
        int64_t scale = 100;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
            millis += (text[at] - '0') * scale;
            scale /= 10;
            ++at;
        }
        if (at == start) return std::nullopt;
    }

    int offsetMinutes = 0;
    if (at < text.size() && (text[at] == 'Z' || text[at] == 'z')) {
        ++at;
    } else if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        int offsetHour, offsetMinute;
        if (!digits(text, at + 1, 2, offsetHour) || at + 3 >= text.size() || text[at + 3] != ':' ||
            !digits(text, at + 4, 2, offsetMinute) || offsetHour > 23 || offsetMinute > 59)
            return std::nullopt;
        offsetMinutes = (offsetHour * 60 + offsetMinute) * (text[at] == '-' ? -1 : 1);
        at += 6;
    } else {
        return std::nullopt;
    }
    if (at != text.size()) return std::nullopt;

    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    const int64_t seconds = static_cast<int64_t>(timegm(&parts)) - int64_t{offsetMinutes} * 60;
    return seconds * 1000 + millis;
}

}  // namespace aimwise::Iso8601
