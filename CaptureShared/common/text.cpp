#include "CaptureShared/common/text.h"

#include <charconv>
#include <cstdio>
#include <cmath>

#include "CaptureShared/common/utf8.h"

namespace aimwise {

namespace {

bool isWhitespaceOrNewline(char32_t c) {
    switch (c) {
        case 0x09: case 0x0A: case 0x0B: case 0x0C: case 0x0D: case 0x20: case 0x85: case 0xA0:
        case 0x1680: case 0x2028: case 0x2029: case 0x202F: case 0x205F: case 0x3000:
            return true;
        default:
            return c >= 0x2000 && c <= 0x200A;
    }
}

}  // namespace

std::string trimWhitespaceAndNewlines(std::string_view text) {
    std::vector<char32_t> scalars = utf8::decode(text);
    size_t begin = 0, end = scalars.size();
    while (begin < end && isWhitespaceOrNewline(scalars[begin])) ++begin;
    while (end > begin && isWhitespaceOrNewline(scalars[end - 1])) --end;
    if (begin == 0 && end == scalars.size() && utf8::isValid(text)) return std::string(text);
    return utf8::encode(std::vector<char32_t>(scalars.begin() + begin, scalars.begin() + end));
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
    std::string out;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i) out += separator;
        out += parts[i];
    }
    return out;
}

std::string shortestRoundTrip(double value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
    char buffer[64];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string text(buffer, end);
    // Whole numbers keep one decimal, as a double prints elsewhere in the system.
    if (text.find_first_of(".e") == std::string::npos) text += ".0";
    return text;
}

std::string escapedForTerminal(std::string_view text, Newlines newlines) {
    std::string out;
    out.reserve(text.size());
    char escape[16];
    for (const char32_t c : utf8::decode(text)) {
        const bool control = c < 0x20 || c == 0x7F || (c >= 0x80 && c <= 0x9F);
        const bool reordering = c == 0x2028 || c == 0x2029 || (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
        if (c == '\n' && newlines == Newlines::kept) {
            out += '\n';
        } else if (control || reordering) {
            std::snprintf(escape, sizeof escape, c < 0x80 ? "\\x%02x" : "\\u{%x}", static_cast<unsigned>(c));
            out += escape;
        } else {
            utf8::append(out, c);
        }
    }
    return out;
}

}  // namespace aimwise
