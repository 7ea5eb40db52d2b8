#include "tests/support/identifier_generators.h"

#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <stdexcept>

namespace aimwise::testing {

std::string IdentifierRandom::digits(int count) {
    std::string out;
    for (int i = 0; i < count; ++i) out.push_back(char('0' + between(0, 9)));
    return out;
}

namespace {

std::vector<std::string> numberRange(int low, int high) {
    std::vector<std::string> out;
    for (int value = low; value <= high; ++value) out.push_back(std::to_string(value));
    return out;
}

std::vector<std::string> joined(std::vector<std::vector<std::string>> parts) {
    std::vector<std::string> out;
    for (auto& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

int ibanMod97(std::string_view rearranged) {
    int remainder = 0;
    for (char c : rearranged) {
        if (c >= '0' && c <= '9') {
            remainder = (remainder * 10 + (c - '0')) % 97;
        } else {
            remainder = (remainder * 100 + (c - 'A' + 10)) % 97;
        }
    }
    return remainder;
}

}  // namespace

const std::vector<CardIssuerRow>& cardIssuerRows() {
    // 13-digit and 17/18-digit numbers have no pattern that can match them, so they are not generated.
    static const std::vector<CardIssuerRow> rows = {
        {"2-series", numberRange(2221, 2720), {16}},
        {"34/37", {"34", "37"}, {15}},
        {"3528-3589", numberRange(3528, 3589), {16, 19}},
        {"300-305/36/38/39", joined({numberRange(300, 305), {"36", "38", "39"}}), {14, 15, 16, 19}},
        {"4", {"4"}, {16, 19}},
        {"51-55", numberRange(51, 55), {16}},
        {"6011/65/644-649", joined({{"6011", "65"}, numberRange(644, 649)}), {16, 19}},
        {"62", {"62"}, {16, 19}},
    };
    return rows;
}

int luhnCheckDigit(std::string_view payload) {
    int sum = 0;
    bool doubled = true;  // the check digit will sit to the right of the payload
    for (auto it = payload.rbegin(); it != payload.rend(); ++it) {
        int value = *it - '0';
        if (doubled) value = value * 2 > 9 ? value * 2 - 9 : value * 2;
        sum += value;
        doubled = !doubled;
    }
    return (10 - sum % 10) % 10;
}

std::string validCardNumber(IdentifierRandom& random, const CardIssuerRow& row, int length) {
    for (;;) {
        std::string payload = random.pick(row.prefixes);
        payload += random.digits(length - 1 - int(payload.size()));
        payload.push_back(char('0' + luhnCheckDigit(payload)));
        if (payload.find_first_not_of(payload[0]) != std::string::npos) return payload;
    }
}

std::string validIBAN(IdentifierRandom& random, std::string_view country, int length) {
    static const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::string account;
    for (int i = 0; i < length - 4; ++i)
        account.push_back(random.chance(60) ? char('0' + random.between(0, 9))
                                            : alphabet[size_t(random.between(0, 25))]);
    int check = 98 - ibanMod97(account + std::string(country) + "00");
    std::string checkDigits = (check < 10 ? "0" : "") + std::to_string(check);
    return std::string(country) + checkDigits + account;
}

std::string validSSN(IdentifierRandom& random) {
    int area;
    do area = random.between(1, 899);
    while (area == 666);
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%03d%02d%04d", area, random.between(1, 99), random.between(1, 9999));
    return buffer;
}

std::string validITIN(IdentifierRandom& random) {
    static const std::vector<int> groups = [] {
        std::vector<int> out;
        for (int g = 50; g <= 99; ++g)
            if (g <= 65 || (g >= 70 && g <= 88) || (g >= 90 && g <= 92) || g >= 94) out.push_back(g);
        return out;
    }();
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "9%02d%02d%04d", random.between(0, 99), random.pick(groups),
                  random.between(1, 9999));
    return buffer;
}

std::string validRoutingNumber(IdentifierRandom& random) {
    static const std::vector<int> prefixes = [] {
        std::vector<int> out;
        for (int p = 0; p <= 80; ++p)
            if (p <= 12 || (p >= 21 && p <= 32) || (p >= 61 && p <= 72) || p == 80) out.push_back(p);
        return out;
    }();
    for (;;) {
        char buffer[16];
        std::snprintf(buffer, sizeof buffer, "%02d", random.pick(prefixes));
        std::string digits = buffer + random.digits(6);
        // The weight of the last digit is 1, so it alone settles the checksum.
        int sum = 0;
        static const int weights[] = {3, 7, 1, 3, 7, 1, 3, 7};
        for (int i = 0; i < 8; ++i) sum += weights[i] * (digits[size_t(i)] - '0');
        digits.push_back(char('0' + (10 - sum % 10) % 10));
        if (digits.find_first_not_of(digits[0]) != std::string::npos) return digits;
    }
}

std::string changeOneDigit(IdentifierRandom& random, const std::string& value) {
    std::vector<size_t> positions;
    for (size_t i = 0; i < value.size(); ++i)
        if (value[i] >= '0' && value[i] <= '9') positions.push_back(i);
    if (positions.empty()) throw std::invalid_argument("no digit to change");
    std::string changed = value;
    size_t at = random.pick(positions);
    changed[at] = char('0' + (value[at] - '0' + random.between(1, 9)) % 10);
    return changed;
}

void appendUTF8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out.push_back(char(c));
    } else if (c < 0x800) {
        out.push_back(char(0xC0 | (c >> 6)));
        out.push_back(char(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out.push_back(char(0xE0 | (c >> 12)));
        out.push_back(char(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(char(0x80 | (c & 0x3F)));
    } else {
        out.push_back(char(0xF0 | (c >> 18)));
        out.push_back(char(0x80 | ((c >> 12) & 0x3F)));
        out.push_back(char(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(char(0x80 | (c & 0x3F)));
    }
}

namespace {
std::string utf8(char32_t c) {
    std::string out;
    appendUTF8(out, c);
    return out;
}
}  // namespace

std::string cardSeparator(IdentifierRandom& random) {
    static const std::vector<std::string> ascii = {" ", "\t", "\r", "\n", ".", "/", "-"};
    // Dashes and space separators of other scripts, which screen text uses and normalisation folds.
    static const std::vector<char32_t> unicode = {0x2010, 0x2011, 0x2012, 0x2013, 0x2014, 0x2212,
                                                  0xFE63, 0xFF0D, 0x00A0, 0x2007, 0x2009, 0x202F, 0x3000};
    if (random.chance(25)) {
        const auto& disguise = random.pick(separatorDisguises());
        if (!disguise.invisible) return disguise.separator(random);
    }
    int count = random.between(1, 2);
    std::string out;
    for (int i = 0; i < count; ++i) out += random.chance(60) ? random.pick(ascii) : utf8(random.pick(unicode));
    return out;
}

std::string lookAlikeDigit(IdentifierRandom& random, char digit) {
    // Zero of: full-width, Arabic-Indic, Devanagari, Bengali, Thai, mathematical bold (outside the BMP).
    static const std::vector<char32_t> zeros = {0xFF10, 0x0660, 0x0966, 0x09E6, 0x0E50, 0x1D7CE};
    return utf8(random.pick(zeros) + char32_t(digit - '0'));
}

std::string lookAlikeLetter(IdentifierRandom&, char upper) { return utf8(0xFF21 + char32_t(upper - 'A')); }

std::string zeroWidthCharacter(IdentifierRandom& random) {
    static const std::vector<char32_t> invisible = {0x200B, 0x200C, 0x200D, 0x2060, 0xFEFF, 0x00AD};
    return utf8(random.pick(invisible));
}

std::string disguise(IdentifierRandom& random, const std::string& ascii, bool lookAlikesOnly) {
    const int lookAlikePercent = random.pick(std::vector<int>{0, 0, 30, 100});
    const int invisiblePercent = lookAlikesOnly ? 0 : random.pick(std::vector<int>{0, 0, 10, 30});
    std::string out;
    for (size_t i = 0; i < ascii.size(); ++i) {
        char c = ascii[i];
        bool digit = c >= '0' && c <= '9';
        if (digit && random.chance(lookAlikePercent)) {
            out += lookAlikeDigit(random, c);
        } else if (c >= 'A' && c <= 'Z' && random.chance(lookAlikePercent / 2)) {
            out += lookAlikeLetter(random, c);
        } else {
            out.push_back(c);
        }
        bool nextDigit = i + 1 < ascii.size() && ascii[i + 1] >= '0' && ascii[i + 1] <= '9';
        if (digit && nextDigit && random.chance(invisiblePercent)) out += zeroWidthCharacter(random);
    }
    return out;
}

std::string grouped(IdentifierRandom& random, const std::string& digits, const std::vector<int>& groups) {
    std::string out;
    size_t at = 0;
    for (size_t g = 0; g < groups.size(); ++g) {
        if (g > 0) out += cardSeparator(random);
        out += digits.substr(at, size_t(groups[g]));
        at += size_t(groups[g]);
    }
    return out;
}

const std::vector<SeparatorDisguise>& separatorDisguises() {
    static const std::vector<SeparatorDisguise> all = {
        {"one invisible character", [](IdentifierRandom& r) { return zeroWidthCharacter(r); }, false, true},
        {"two invisible characters", [](IdentifierRandom& r) { return zeroWidthCharacter(r) + zeroWidthCharacter(r); },
         false, true},
        {"an invisible character beside a blank",
         [](IdentifierRandom& r) { return r.chance(50) ? " " + zeroWidthCharacter(r) : zeroWidthCharacter(r) + " "; }},
        {"a line break of another kind",
         [](IdentifierRandom& r) { return r.pick(std::vector<std::string>{"\u2028", "\u2029", "\u0085", "\v", "\f"}); }},
        {"a middle dot, underscore, comma or spaced dash",
         [](IdentifierRandom& r) { return r.pick(std::vector<std::string>{"\u00B7", "_", ",", " - ", ", "}); }},
        {"a combining mark after the digit",
         [](IdentifierRandom& r) { return utf8(r.pick(std::vector<char32_t>{0x0301, 0x0336, 0x0323, 0x20DD})); }, true,
         true},
        {"another space, dash or dot",
         [](IdentifierRandom& r) {
             return utf8(r.pick(std::vector<char32_t>{0x1680, 0x2002, 0x2005, 0x2008, 0x205F, 0x2053, 0x2E3A, 0xFE58,
                                                      0x2022, 0x2024, 0x2027, 0x30FB, 0x2044}));
         }},
        {"another format character",
         [](IdentifierRandom& r) { return utf8(r.pick(std::vector<char32_t>{0x2061, 0x2062, 0x2064, 0x180E})); }, false,
         true},
    };
    return all;
}

std::string joinedGroups(const std::string& digits, const std::vector<int>& groups, const std::string& separator) {
    std::string out;
    size_t at = 0;
    for (int size : groups) {
        if (at > 0) out += separator;
        out += digits.substr(at, size_t(size));
        at += size_t(size);
    }
    return out;
}

std::string fillerText(IdentifierRandom& random, int words) {
    static const std::vector<std::string> vocabulary = {
        "the", "statement", "please", "review", "your", "recent", "Activity", "payment", "due", "café",
        "naïve", "Straße", "résumé", "東京", "данные", "שלום", "مرحبا", "okay", "see", "details", "below",
        "\U0001F600", "\U0001F4B3", "\U0001F44D\U0001F3FD", "\U0001D400bc", "\u00BD", "note:", "(draft)",
        "—", "A-B", "x_y", "\"quoted\"", "transfer", "summary", "e-mail", "\U00020BB7"};
    static const std::vector<std::string> gaps = {" ", " ", " ", ", ", "\n", "  ", "\t", " \u00A0"};
    std::string out;
    for (int i = 0; i < words; ++i) {
        if (i > 0) out += random.pick(gaps);
        out += random.pick(vocabulary);
    }
    return out;
}

std::string leadingBoundary(IdentifierRandom& random) {
    static const std::vector<std::string> options = {" ", "\n", " (", ": ", " \"", "\\n", "\\t", " \U0001F600 ",
                                                     "\u3000", " [", "\t"};
    return random.pick(options);
}

std::string trailingBoundary(IdentifierRandom& random) {
    static const std::vector<std::string> options = {" ", "\n", ") ", ". ", ", ", "\" ", " \U0001F600", "\u3000",
                                                     "] ", "\t", "!"};
    return random.pick(options);
}

bool containsAnyDigit(const std::string& text) {
    icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(text);
    for (int32_t i = 0; i < unicode.length();) {
        UChar32 c = unicode.char32At(i);
        if (u_isdigit(c)) return true;
        i += U16_LENGTH(c);
    }
    return false;
}

}  // namespace aimwise::testing
