#pragma once
// Generators of valid identifiers and of their disguises, for property tests of the privacy filters.
// Everything draws from one seeded engine, so a failing case reproduces exactly.
#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace aimwise::testing {

class IdentifierRandom {
public:
    explicit IdentifierRandom(uint64_t seed) : engine_(seed) {}
    // Uniform in [low, high]; computed here because the standard distributions differ between libraries.
    int between(int low, int high) { return low + int(engine_() % uint64_t(high - low + 1)); }
    bool chance(int percent) { return between(1, 100) <= percent; }
    template <class T>
    const T& pick(const std::vector<T>& from) { return from[size_t(between(0, int(from.size()) - 1))]; }
    std::string digits(int count);

private:
    std::mt19937_64 engine_;
};

// One row of the card issuer table each; the lengths are those the card detectors can see.
struct CardIssuerRow {
    std::string name;
    std::vector<std::string> prefixes;  // every prefix of the row, e.g. "2221" ... "2720"
    std::vector<int> lengths;
};
const std::vector<CardIssuerRow>& cardIssuerRows();

int luhnCheckDigit(std::string_view payload);
std::string validCardNumber(IdentifierRandom& random, const CardIssuerRow& row, int length);

// Compact IBAN with correct check digits and a random upper-case alphanumeric account part.
std::string validIBAN(IdentifierRandom& random, std::string_view country, int length);
std::string validSSN(IdentifierRandom& random);
std::string validITIN(IdentifierRandom& random);
std::string validRoutingNumber(IdentifierRandom& random);

// Changes one digit to another; for check-digit schemes that catch every single substitution.
std::string changeOneDigit(IdentifierRandom& random, const std::string& value);

// Disguises screen text uses: separators (a quarter of them the visible ones of separatorDisguises()),
// look-alike digits and letters, invisible characters.
std::string cardSeparator(IdentifierRandom& random);
std::string lookAlikeDigit(IdentifierRandom& random, char digit);
std::string lookAlikeLetter(IdentifierRandom& random, char upper);
std::string zeroWidthCharacter(IdentifierRandom& random);
// Replaces some ASCII digits and capitals with look-alikes and, unless `lookAlikesOnly`, puts zero-width
// characters between some adjacent digits, where the detectors' second form removes them.
std::string disguise(IdentifierRandom& random, const std::string& ascii, bool lookAlikesOnly = false);
// Groups digits with separators, e.g. {4,4,4,4} -> "4111 1111-1111 1111".
std::string grouped(IdentifierRandom& random, const std::string& digits, const std::vector<int>& groups);

// One way screen text hides what separates the groups of a number.
struct SeparatorDisguise {
    std::string name;
    std::string (*separator)(IdentifierRandom&);
    // After a letter it would be an accent, not a separator.
    bool afterDigitsOnly = false;
    // Shown, it leaves no gap: beside invisible characters inside a group, no reader could tell the groups.
    bool invisible = false;
};
// Invisible characters alone, doubled or beside a blank; line and paragraph separators, next line, vertical
// tab, form feed; a middle dot, an underscore, a comma, " - "; a combining mark after the digit; and any
// other space, dash, dot or format character.
const std::vector<SeparatorDisguise>& separatorDisguises();
// `digits` cut into groups of these sizes with `separator` between them.
std::string joinedGroups(const std::string& digits, const std::vector<int>& groups, const std::string& separator);

// Filler prose without any digit: words, punctuation, emoji and other characters outside the BMP.
std::string fillerText(IdentifierRandom& random, int words);
// What may stand directly before or after an identifier without joining it.
std::string leadingBoundary(IdentifierRandom& random);
std::string trailingBoundary(IdentifierRandom& random);

void appendUTF8(std::string& out, char32_t scalar);
// True when the text holds any decimal digit of any script.
bool containsAnyDigit(const std::string& utf8);

}  // namespace aimwise::testing
