#include "AimwiseCore/privacy/screen_text.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/identifier_generators.h"

namespace aimwise {
namespace {

using ScreenText::quoted;
using ScreenText::sanitize;

std::string repeated(const std::string& piece, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += piece;
    return out;
}

TEST(EmojiRuns, OnePlaceholderPerUnbrokenRun) {
    EXPECT_EQ(sanitize("\U0001F600\U0001F600"), "[emoji]");
    EXPECT_EQ(sanitize("\U0001F600a\U0001F600"), "[emoji]a[emoji]");
    EXPECT_EQ(sanitize("\U0001F600 \U0001F600"), "[emoji] [emoji]");
    EXPECT_EQ(sanitize("\U0001F600 hi"), "[emoji] hi");
    // A cluster that writes nothing does not break the run.
    EXPECT_EQ(sanitize("\U0001F600\u200B\U0001F44D"), "[emoji]");
}

TEST(EmojiRuns, WhatCountsAsAnEmojiCluster) {
    EXPECT_EQ(sanitize("family \U0001F468\u200D\U0001F469\u200D\U0001F467 ok"), "family [emoji] ok");
    EXPECT_EQ(sanitize("flag \U0001F1FA\U0001F1F8"), "flag [emoji]");
    EXPECT_EQ(sanitize("ok \U0001F44D\U0001F3FD"), "ok [emoji]");
    EXPECT_EQ(sanitize("key 1\uFE0F\u20E3"), "key [emoji]");
    EXPECT_EQ(sanitize("heart \u2764\uFE0F"), "heart [emoji]");
    // Emoji-capable characters in text presentation are not emoji: digits and # stay, (c) is a symbol.
    EXPECT_EQ(sanitize("# 1 \u00A9 \u2122"), "# 1");
    EXPECT_EQ(sanitize("\u00A9\uFE0F"), "[emoji]");
}

TEST(WhiteSpace, CollapsedTrimmedAndUnified) {
    EXPECT_EQ(sanitize("  a \t\n b  "), "a b");
    EXPECT_EQ(sanitize("a\u00A0\u2028\u3000b\r\n"), "a b");
    EXPECT_EQ(sanitize(""), "");
    EXPECT_EQ(sanitize(" \t\n"), "");
}

TEST(InvisibleAndControlCharacters, AreDropped) {
    EXPECT_EQ(sanitize("a\u200Bb\u00ADc\uFEFFd\u202Ee\u2066f"), "abcdef");
    EXPECT_EQ(sanitize("bell\x07 null\x01"), "bell null");
    EXPECT_EQ(sanitize("private\uE000 use\U000F0000"), "private use");
    EXPECT_EQ(sanitize("snow\u2603man"), "snowman");
    EXPECT_EQ(sanitize("bad\xFF" "byte"), "badbyte");
}

TEST(Quotes, EveryDoubleQuotationMarkBecomesTheGlyph) {
    for (char32_t quote : ScreenText::doubleQuotes) {
        std::string text = "a";
        testing::appendUTF8(text, quote);
        text += "b";
        EXPECT_EQ(sanitize(text), "a\u02BAb") << std::hex << uint32_t(quote);
    }
    EXPECT_EQ(sanitize("it's 'single'"), "it's 'single'");
    EXPECT_EQ(quoted("say \"hi\""), "\"say \u02BAhi\u02BA\"");
    EXPECT_EQ(quoted(""), "\"\"");
}

TEST(Marks, AtMostEightPerBaseAndNeverWithoutOne) {
    EXPECT_EQ(sanitize("e" + repeated("\u0301", 12)), "e" + repeated("\u0301", 8));
    EXPECT_EQ(sanitize("\u0301\u0302abc"), "abc");
    EXPECT_EQ(sanitize(" \u0301x"), "x");
    EXPECT_EQ(sanitize("caf\u00E9 e\u0301 \u0915\u093F"), "caf\u00E9 e\u0301 \u0915\u093F");
    // The limit is per base character, not per text.
    EXPECT_EQ(sanitize(repeated("a" + repeated("\u0300", 9), 3)), repeated("a" + repeated("\u0300", 8), 3));
}

TEST(KeptCharacters, LettersNumbersPunctuationAndMostSymbols) {
    const std::string text = "\u0410\u0431\u0432 \u6771\u4EAC \u00BD \u2167 $\u20AC + < ^ ` (a) [b] {c} \u00AB";
    EXPECT_EQ(sanitize(text), "\u0410\u0431\u0432 \u6771\u4EAC \u00BD \u2167 $\u20AC + < ^ ` (a) [b] {c} \u02BA");
}

TEST(Caps, CountUserPerceivedCharactersAndAppendAnEllipsis) {
    EXPECT_EQ(sanitize("abcdef", 5), "abcde\u2026");
    EXPECT_EQ(sanitize("abcde", 5), "abcde");
    EXPECT_EQ(sanitize("e\u0301e\u0301e\u0301", 2), "e\u0301e\u0301\u2026");
    EXPECT_EQ(sanitize("e\u0301e\u0301", 2), "e\u0301e\u0301");
    EXPECT_EQ(sanitize("ab", 0), "\u2026");
    // The cap applies to the sanitised text, after white space has collapsed.
    EXPECT_EQ(sanitize("a     b", 3), "a b");
    EXPECT_EQ(quoted("abcdef", 3), "\"abc\u2026\"");
    EXPECT_EQ(sanitize(std::string(ScreenText::titleCap + 10, 'x'), ScreenText::titleCap),
              std::string(ScreenText::titleCap, 'x') + "\u2026");
}

TEST(OptionalText, AbsentInAbsentOut) {
    EXPECT_EQ(sanitize(std::optional<std::string>()), std::nullopt);
    EXPECT_EQ(sanitize(std::optional<std::string>(" a "), 4), std::optional<std::string>("a"));
}

}  // namespace
}  // namespace aimwise
