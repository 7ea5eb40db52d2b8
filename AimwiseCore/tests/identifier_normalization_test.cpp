#include "AimwiseCore/privacy/identifier_normalization.h"

#include <gtest/gtest.h>
#include <unicode/utf16.h>

#include <random>
#include <vector>

namespace aimwise {
namespace {

// The form may be the input itself, so callers keep the input alive for as long as they use the form.
NormalizedIdentifierText plain(const std::u16string& input) {
    return NormalizedIdentifierText::build(input, FormatCharacters::kept);
}
NormalizedIdentifierText removed(const std::u16string& input) {
    return NormalizedIdentifierText::build(input, FormatCharacters::removed);
}

TEST(NormalizedForm, TextThatFoldsNothingIsTheInputWithoutAnOffsetMap) {
    for (const std::u16string input : {u"", u"plain 123-45 text", u"caf\u00E9 \U0001F600 \u6771\u4EAC"}) {
        auto form = plain(input);
        EXPECT_EQ(form.text(), input);
        EXPECT_EQ(form.text().data(), input.data()) << "no copy when nothing folds";
        EXPECT_FALSE(form.originalUTF16Offset().has_value());
        EXPECT_FALSE(form.containsFormatCharacters());
    }
}

TEST(NormalizedForm, LookAlikesFoldToASCII) {
    EXPECT_EQ(plain(u"\uFF11\uFF12\uFF21\uFF41\uFF0D\uFF3F").text(), u"12Aa-_");
    // Decimal digits of other scripts, including one outside the BMP, and a superscript digit.
    EXPECT_EQ(plain(u"\u0663\u0967\u0E59\U0001D7D0\u00B2").text(), u"31922");
    EXPECT_EQ(plain(u"a\u2010b\u2014c\u2212d\uFE63e").text(), u"a-b-c-d-e");
    EXPECT_EQ(plain(u"1\u00A02\u20093\u30004").text(), u"1 2 3 4");
    // A circled digit has a digit value; a fraction and a roman numeral do not and stay.
    EXPECT_EQ(plain(u"\u00BD\u2460\u216B").text(), u"\u00BD" u"1\u216B");
    // Full-width punctuation folds but is not part of a token.
    EXPECT_EQ(plain(u"\uFF03\uFF0E").text(), u"#.");
}

TEST(NormalizedForm, FormatCharactersGoOnlyWhenTheyJoinTwoTokens) {
    const std::u16string input = u"12\u200B34";
    auto kept = plain(input);
    EXPECT_TRUE(kept.containsFormatCharacters());
    EXPECT_EQ(kept.text(), u"12\u200B34");
    EXPECT_EQ(removed(u"12\u200B34").text(), u"1234");
    EXPECT_EQ(removed(u"ab\u200Dcd").text(), u"abcd");
    EXPECT_EQ(removed(u"\u00E9\u2060\uFF11").text(), u"\u00E91");
    // Next to a space, at an edge, or doubled, it is not inside a token and stays.
    EXPECT_EQ(removed(u"12 \u200B34").text(), u"12 \u200B34");
    EXPECT_EQ(removed(u"\u200B12\u200B").text(), u"\u200B12\u200B");
    EXPECT_EQ(removed(u"12\u200B\u200B34").text(), u"12\u200B\u200B34");
    EXPECT_EQ(removed(u"1.\u200B2").text(), u"1.\u200B2");
    EXPECT_FALSE(removed(u"1234").containsFormatCharacters());
}

TEST(OffsetMap, EveryUnitPointsIntoTheOriginalWithAFinalEndEntry) {
    const std::u16string input = u"\U0001F600\uFF14\U0001D7CF-x";
    auto form = plain(input);
    EXPECT_EQ(form.text(), u"\U0001F6004" u"1-x");
    ASSERT_TRUE(form.originalUTF16Offset().has_value());
    EXPECT_EQ(*form.originalUTF16Offset(), (std::vector<int32_t>{0, 1, 2, 3, 5, 6, 7}));
    // "41" in the folded text is the full-width four and the two-unit mathematical one.
    EXPECT_EQ(form.originalRange(2, 4), std::make_pair(2, 5));
    EXPECT_EQ(form.originalRange(0, 2), std::make_pair(0, 2));
}

TEST(OffsetMap, ARangeThatEndsBeforeADeletedCharacterDoesNotSwallowIt) {
    const std::u16string input = u"\uFF11\uFF12\u200B\uFF13";
    auto form = removed(input);
    EXPECT_EQ(form.text(), u"123");
    EXPECT_EQ(form.originalRange(0, 2), std::make_pair(0, 2));
    EXPECT_EQ(form.originalRange(0, 3), std::make_pair(0, 4));
    EXPECT_EQ(form.originalRange(2, 3), std::make_pair(3, 4));
}

// Builds random text from pieces that fold, do not fold, sit outside the BMP, or are invisible.
std::u16string randomText(std::mt19937_64& engine, int pieces) {
    static const std::vector<std::u16string> alphabet = {
        u"a", u"7", u" ", u"-", u"\uFF15", u"\uFF21", u"\u0665", u"\U0001D7D3", u"\u2013", u"\u00A0",
        u"\u200B", u"\u200D", u"\U0001F600", u"\u00E9", u"\u6771", u"\u00BD", u"\uFF0C", u"\U00020BB7", u"."};
    std::u16string out;
    for (int i = 0; i < pieces; ++i) out += alphabet[engine() % alphabet.size()];
    return out;
}

std::vector<int32_t> scalarBoundaries(std::u16string_view text) {
    std::vector<int32_t> out;
    for (int32_t i = 0; i <= int32_t(text.size());) {
        out.push_back(i);
        if (i == int32_t(text.size())) break;
        U16_FWD_1(text.data(), i, int32_t(text.size()));
    }
    return out;
}

TEST(OffsetMap, AnyMappedRangeOfThePlainFormNormalisesToExactlyThatRange) {
    std::mt19937_64 engine(20261122);
    for (int trial = 0; trial < 2000; ++trial) {
        const std::u16string input = randomText(engine, 1 + int(engine() % 24));
        auto form = plain(input);
        const std::u16string folded(form.text());
        auto boundaries = scalarBoundaries(folded);
        size_t a = engine() % boundaries.size(), b = engine() % boundaries.size();
        if (a > b) std::swap(a, b);
        auto [start, end] = form.originalRange(boundaries[a], boundaries[b]);
        const std::u16string slice = input.substr(size_t(start), size_t(end - start));
        EXPECT_EQ(std::u16string(plain(slice).text()),
                  folded.substr(size_t(boundaries[a]), size_t(boundaries[b] - boundaries[a])))
            << "trial " << trial;
    }
}

TEST(OffsetMap, RemovedFormKeepsEveryVisibleScalarMappedInOrder) {
    std::mt19937_64 engine(7);
    for (int trial = 0; trial < 2000; ++trial) {
        const std::u16string input = randomText(engine, 1 + int(engine() % 24));
        auto form = removed(input);
        const std::u16string folded(form.text());
        auto boundaries = scalarBoundaries(folded);
        int32_t previousEnd = 0;
        for (size_t i = 0; i + 1 < boundaries.size(); ++i) {
            auto [start, end] = form.originalRange(boundaries[i], boundaries[i + 1]);
            ASSERT_GE(start, previousEnd) << "trial " << trial;
            // Whatever lies between two visible scalars was deleted, so it must be invisible.
            for (int32_t gap = previousEnd; gap < start; ++gap)
                EXPECT_TRUE(input[size_t(gap)] == u'\u200B' || input[size_t(gap)] == u'\u200D') << "trial " << trial;
            EXPECT_EQ(std::u16string(plain(input.substr(size_t(start), size_t(end - start))).text()),
                      folded.substr(size_t(boundaries[i]), size_t(boundaries[i + 1] - boundaries[i])));
            previousEnd = end;
        }
    }
}

}  // namespace
}  // namespace aimwise
