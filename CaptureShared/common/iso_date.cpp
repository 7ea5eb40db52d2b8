#include "CaptureShared/common/iso_date.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace aimwise::ISODate {

namespace {

using namespace std::chrono;

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

bool digits(std::string_view text, size_t at, size_t count, int& out) {
    if (at + count > text.size()) return false;
    out = 0;
    for (size_t i = at; i < at + count; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        out = out * 10 + (text[i] - '0');
    }
    return true;
}

}  // namespace

std::string format(int64_t ms) {
    // Years 0001 to 9999: a time read from a damaged file still prints, at the nearer end.
    constexpr int64_t firstMs = -62'135'596'800'000, lastMs = 253'402'300'799'999;
    ms = std::clamp(ms, firstMs, lastMs);
    const int64_t seconds = floorDiv(ms, 1000);
    const int64_t days = floorDiv(seconds, 86400);
    const int64_t secondOfDay = seconds - days * 86400;
    const year_month_day date{sys_days{std::chrono::days{days}}};
    char buffer[48];
    std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(secondOfDay / 3600), static_cast<int>(secondOfDay / 60 % 60),
                  static_cast<int>(secondOfDay % 60));
    return buffer;
}

std::optional<int64_t> parse(std::string_view text) {
    int y, mo, d, h, mi, s;
    if (!digits(text, 0, 4, y) || text.size() < 19 || text[4] != '-' || !digits(text, 5, 2, mo) ||
        text[7] != '-' || !digits(text, 8, 2, d) || (text[10] != 'T' && text[10] != 't') ||
        !digits(text, 11, 2, h) || text[13] != ':' || !digits(text, 14, 2, mi) || text[16] != ':' ||
        !digits(text, 17, 2, s))
        return std::nullopt;
    if (h > 23 || mi > 59 || s > 59) return std::nullopt;
    const year_month_day date{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
    if (!date.ok()) return std::nullopt;

    size_t at = 19;
    int64_t fractionMs = 0;
    if (at < text.size() && text[at] == '.') {
        ++at;
        const size_t start = at;
        int64_t scale = 100;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
            fractionMs += (text[at] - '0') * scale;
            scale /= 10;
            ++at;
        }
        if (at == start) return std::nullopt;
    }
    int64_t offsetSec = 0;
    if (at < text.size() && (text[at] == 'Z' || text[at] == 'z')) {
        ++at;
    } else if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        int oh, om;
        if (!digits(text, at + 1, 2, oh) || at + 3 >= text.size() || text[at + 3] != ':' ||
            !digits(text, at + 4, 2, om) || oh > 23 || om > 59)
            return std::nullopt;
        offsetSec = (oh * 3600 + om * 60) * (text[at] == '-' ? -1 : 1);
        at += 6;
    } else {
        return std::nullopt;
    }
    if (at != text.size()) return std::nullopt;

    const int64_t days = sys_days{date}.time_since_epoch().count();
    const int64_t seconds = days * 86400 + h * 3600 + mi * 60 + s - offsetSec;
    return seconds * 1000 + fractionMs;
}

}  // namespace aimwise::ISODate
