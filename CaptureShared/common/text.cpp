#include "CaptureShared/common/text.h"

#include <charconv>
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

}  // namespace aimwise
