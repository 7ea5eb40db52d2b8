#include "AimwiseCore/privacy/identifier_validators.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "AimwiseCore/privacy/icu_regex.h"

namespace aimwise::IdentifierValidators {

const std::array<IBANCountry, 34> ibanCountries = {{
    {"AD", 24}, {"AT", 20}, {"BE", 16}, {"BG", 22}, {"CH", 21}, {"CY", 28}, {"CZ", 24},
    {"DE", 22}, {"DK", 18}, {"EE", 20}, {"ES", 24}, {"FI", 18}, {"FR", 27}, {"GB", 22},
    {"GR", 27}, {"HR", 21}, {"HU", 28}, {"IE", 22}, {"IS", 26}, {"IT", 27}, {"LI", 21},
    {"LT", 20}, {"LU", 20}, {"LV", 21}, {"MC", 27}, {"MT", 31}, {"NL", 18}, {"NO", 15},
    {"PL", 28}, {"PT", 25}, {"RO", 24}, {"SE", 24}, {"SI", 19}, {"SK", 24},
}};

std::optional<int> ibanLength(std::u16string_view countryCode) {
    if (countryCode.size() != 2) return std::nullopt;
    for (const auto& country : ibanCountries)
        if (countryCode[0] == char16_t(country.code[0]) && countryCode[1] == char16_t(country.code[1]))
            return country.length;
    return std::nullopt;
}

namespace {

template <class Visit>
void forEachScalar(std::u16string_view text, Visit visit) {
    const int32_t length = int32_t(text.size());
    for (int32_t i = 0; i < length;) {
        UChar32 c;
        U16_NEXT(text.data(), i, length, c);
        visit(c);
    }
}

std::optional<int> wholeNumberValue(UChar32 c) {
    if (c >= '0' && c <= '9') return int(c - '0');
    double value = ICU::get().u_getNumericValue(c);
    if (value == U_NO_NUMERIC_VALUE || value < 0 || value != std::floor(value) || value > 1e9) return std::nullopt;
    return int(value);
}

template <class List>
int number(const List& digits, size_t from, size_t count) {
    int value = 0;
    for (size_t i = from; i < from + count; ++i) value = value * 10 + digits[i];
    return value;
}

template <class List>
bool atLeastTwoDistinct(const List& digits) {
    for (size_t i = 1; i < digits.size(); ++i)
        if (digits[i] != digits[0]) return true;
    return false;
}

bool inRange(int value, int low, int high) { return value >= low && value <= high; }

const privacy_icu::Pattern& isoDatePattern() {
    static const auto pattern = privacy_icu::compileOrAbort("the account-number date check", R"re(^\d{4}-\d{2}-\d{2}$)re");
    return *pattern;
}

}  // namespace

namespace {

// The digits of a matched value, without allocating: every value the detectors see is short.
struct Digits {
    std::array<int, 64> values;
    size_t count = 0;
    bool overflow = false;

    explicit Digits(std::u16string_view text) {
        forEachScalar(text, [&](UChar32 c) {
            if (auto value = wholeNumberValue(c)) {
                if (count < values.size()) values[count++] = *value;
                else overflow = true;
            }
        });
    }
    size_t size() const { return overflow ? values.size() + 1 : count; }
    int operator[](size_t i) const { return values[i]; }
    std::vector<int> all() const { return {values.begin(), values.begin() + std::ptrdiff_t(count)}; }
};

}  // namespace

std::vector<int> digits(std::u16string_view text) {
    std::vector<int> out;
    forEachScalar(text, [&](UChar32 c) {
        if (auto value = wholeNumberValue(c)) out.push_back(*value);
    });
    return out;
}

bool isValidSSN(std::u16string_view text) {
    const Digits d(text);
    if (d.size() != 9) return false;
    int area = number(d, 0, 3), group = number(d, 3, 2), serial = number(d, 5, 4);
    return area != 0 && area != 666 && area < 900 && group != 0 && serial != 0;
}

bool isValidITIN(std::u16string_view text) {
    const Digits d(text);
    if (d.size() != 9 || d[0] != 9) return false;
    int group = number(d, 3, 2);
    bool groupAccepted = inRange(group, 50, 65) || inRange(group, 70, 88) || inRange(group, 90, 92) ||
                         inRange(group, 94, 99);
    return groupAccepted && number(d, 5, 4) != 0;
}

bool isValidABARoutingNumber(std::u16string_view text) {
    const Digits d(text);
    if (d.size() != 9) return false;
    int prefix = number(d, 0, 2);
    if (!(inRange(prefix, 0, 12) || inRange(prefix, 21, 32) || inRange(prefix, 61, 72) || prefix == 80))
        return false;
    int checksum = 3 * (d[0] + d[3] + d[6]) + 7 * (d[1] + d[4] + d[7]) + (d[2] + d[5] + d[8]);
    return checksum % 10 == 0 && atLeastTwoDistinct(d);
}

bool isPlausibleAccountNumber(std::u16string_view text) {
    if (privacy_icu::matchesAnywhere(isoDatePattern(), text)) return false;
    size_t count = Digits(text).size();
    return count >= 6 && count <= 17;
}

bool isValidIBAN(std::u16string_view text) {
    std::u16string compact;
    for (char16_t unit : text)
        if (unit != u' ') compact.push_back(unit);
    if (compact.size() < 15 || compact.size() > 34) return false;
    auto expected = ibanLength(std::u16string_view(compact).substr(0, 2));
    if (!expected || size_t(*expected) != compact.size()) return false;
    std::u16string rearranged = compact.substr(4) + compact.substr(0, 4);
    int remainder = 0;
    for (char16_t c : rearranged) {
        if (c >= u'0' && c <= u'9') {
            remainder = (10 * remainder + (c - u'0')) % 97;
        } else if (c >= u'A' && c <= u'Z') {
            remainder = (100 * remainder + (c - u'A' + 10)) % 97;
        } else {
            return false;
        }
    }
    return remainder == 1;
}

bool isValidLooselyWrittenIBAN(std::u16string_view text) {
    std::u16string canonical;
    for (char16_t unit : text) {
        if (unit == u'-') continue;
        canonical.push_back(unit >= u'a' && unit <= u'z' ? char16_t(unit - 32) : unit);
    }
    return isValidIBAN(canonical);
}

bool luhnValid(const std::vector<int>& digits) {
    if (digits.size() < 2) return false;
    long sum = 0;
    bool doubled = false;
    for (auto it = digits.rbegin(); it != digits.rend(); ++it) {
        long value = *it;
        if (doubled) {
            value *= 2;
            if (value > 9) value -= 9;
        }
        sum += value;
        doubled = !doubled;
    }
    return sum % 10 == 0;
}

bool issuerAccepts(const std::vector<int>& digits) {
    const size_t n = digits.size();
    if (n < 4) return false;
    const int first = digits[0], two = number(digits, 0, 2), three = number(digits, 0, 3),
              four = number(digits, 0, 4);
    auto within = [&](size_t low, size_t high) { return n >= low && n <= high; };
    switch (first) {
        case 2: return inRange(four, 2221, 2720) && n == 16;
        case 3:
            if ((two == 34 || two == 37) && n == 15) return true;
            if (inRange(four, 3528, 3589) && within(16, 19)) return true;
            return (inRange(three, 300, 305) || two == 36 || two == 38 || two == 39) && within(14, 19);
        case 4: return n == 13 || n == 16 || n == 19;
        case 5: return inRange(two, 51, 55) && n == 16;
        case 6:
            return (four == 6011 || two == 65 || inRange(three, 644, 649) || two == 62) && within(16, 19);
        default: return false;
    }
}

bool isValidCardNumber(std::u16string_view text) {
    const Digits counted(text);
    if (counted.size() < 13 || counted.size() > 19) return false;
    const std::vector<int> d = counted.all();
    bool bare = true;
    forEachScalar(text, [&](UChar32 c) { bare = bare && wholeNumberValue(c).has_value(); });
    if (bare && d.size() != 15 && d.size() != 16) return false;
    return issuerAccepts(d) && luhnValid(d) && atLeastTwoDistinct(d);
}

bool mixesLettersAndDigits(std::u16string_view text) {
    bool seenDigit = false;
    bool letterAfterDigit = false;
    forEachScalar(text, [&](UChar32 c) {
        if (ICU::get().u_isdigit(c)) {
            seenDigit = true;
        } else if (seenDigit && ICU::get().u_isalpha(c)) {
            letterAfterDigit = true;
        }
    });
    return seenDigit && letterAfterDigit;
}

bool hasNumericAndNoDot(std::u16string_view text) {
    if (text.find(u'.') != std::u16string_view::npos) return false;
    bool numeric = false;
    forEachScalar(text, [&](UChar32 c) { numeric = numeric || ICU::get().u_getIntPropertyValue(c, UCHAR_NUMERIC_TYPE) != U_NT_NONE; });
    return numeric;
}

}  // namespace aimwise::IdentifierValidators
