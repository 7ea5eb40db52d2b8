#include "AimwiseCore/privacy/screen_text.h"

#include <unicode/brkiter.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf16.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace aimwise::ScreenText {

namespace {

// Creating a break iterator loads rules; each thread clones one prototype instead.
icu::BreakIterator& graphemeIterator() {
    static const std::unique_ptr<icu::BreakIterator> prototype = [] {
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::BreakIterator> made(icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
        if (U_FAILURE(status) || !made) {
            std::fprintf(stderr, "screen text: cannot create a grapheme iterator: %s\n", u_errorName(status));
            std::abort();
        }
        return made;
    }();
    thread_local std::unique_ptr<icu::BreakIterator> iterator(prototype->clone());
    return *iterator;
}

// The iterator keeps a reference to its text; between uses it points here.
const icu::UnicodeString& emptyText() {
    static const icu::UnicodeString empty;
    return empty;
}

bool isDoubleQuote(UChar32 c) {
    return std::find(doubleQuotes.begin(), doubleQuotes.end(), char32_t(c)) != doubleQuotes.end();
}

bool isEmojiCluster(const icu::UnicodeString& text, int32_t start, int32_t end) {
    UChar32 first = text.char32At(start);
    if (!u_hasBinaryProperty(first, UCHAR_EMOJI)) return false;
    if (first >= 0x1F000) return true;
    for (int32_t i = start; i < end;) {
        UChar32 c = text.char32At(i);
        if (c == 0xFE0F || c == 0x20E3 || u_hasBinaryProperty(c, UCHAR_EMOJI_PRESENTATION)) return true;
        i += U16_LENGTH(c);
    }
    return false;
}

bool isWhiteSpace(UChar32 c, int8_t category) {
    return u_hasBinaryProperty(c, UCHAR_WHITE_SPACE) || category == U_SPACE_SEPARATOR ||
           category == U_LINE_SEPARATOR || category == U_PARAGRAPH_SEPARATOR;
}

bool isLetter(int8_t category) {
    return category == U_UPPERCASE_LETTER || category == U_LOWERCASE_LETTER || category == U_TITLECASE_LETTER ||
           category == U_MODIFIER_LETTER || category == U_OTHER_LETTER;
}

bool isMark(int8_t category) {
    return category == U_NON_SPACING_MARK || category == U_COMBINING_SPACING_MARK ||
           category == U_ENCLOSING_MARK;
}

bool isKeptNumberPunctuationOrSymbol(int8_t category) {
    switch (category) {
        case U_DECIMAL_DIGIT_NUMBER:
        case U_LETTER_NUMBER:
        case U_OTHER_NUMBER:
        case U_CONNECTOR_PUNCTUATION:
        case U_DASH_PUNCTUATION:
        case U_START_PUNCTUATION:
        case U_END_PUNCTUATION:
        case U_INITIAL_PUNCTUATION:
        case U_FINAL_PUNCTUATION:
        case U_OTHER_PUNCTUATION:
        case U_MATH_SYMBOL:
        case U_CURRENCY_SYMBOL:
        case U_MODIFIER_SYMBOL: return true;
        default: return false;
    }
}

// Cuts to the first `cap` grapheme clusters; false when the text already fits.
bool truncateToClusters(icu::UnicodeString& text, int cap) {
    if (text.countChar32() <= cap) return false;
    icu::BreakIterator& clusters = graphemeIterator();
    clusters.setText(text);
    int32_t boundary = clusters.first();
    for (int count = 0; count < cap && boundary != icu::BreakIterator::DONE; ++count) boundary = clusters.next();
    int32_t length = text.length();
    clusters.setText(emptyText());
    if (boundary == icu::BreakIterator::DONE || boundary >= length) return false;
    text.truncate(boundary);
    return true;
}

}  // namespace

std::string sanitize(const std::string& text, std::optional<int> cap) {
    const icu::UnicodeString input = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), int32_t(text.size())));
    icu::UnicodeString out;
    bool atSpace = true;
    bool inEmojiRun = false;

    icu::BreakIterator& clusters = graphemeIterator();
    clusters.setText(input);
    for (int32_t start = clusters.first(), end = clusters.next(); end != icu::BreakIterator::DONE;
         start = end, end = clusters.next()) {
        if (isEmojiCluster(input, start, end)) {
            if (!inEmojiRun) out.append(icu::UnicodeString(emojiPlaceholder, -1, US_INV));
            inEmojiRun = true;
            atSpace = false;
            continue;
        }
        const int32_t lengthBefore = out.length();
        bool hasBase = false;
        int marks = 0;
        for (int32_t i = start; i < end;) {
            UChar32 c = input.char32At(i);
            i += U16_LENGTH(c);
            int8_t category = u_charType(c);
            if (isWhiteSpace(c, category)) {
                if (!atSpace) out.append(UChar(0x20));
                atSpace = true;
                continue;
            }
            if (u_hasBinaryProperty(c, UCHAR_DEFAULT_IGNORABLE_CODE_POINT) ||
                u_hasBinaryProperty(c, UCHAR_EMOJI_MODIFIER) || u_hasBinaryProperty(c, UCHAR_EMOJI_PRESENTATION))
                continue;
            if (isDoubleQuote(c)) {
                out.append(UChar32(quoteGlyph));
                hasBase = true;
                atSpace = false;
            } else if (isLetter(category)) {
                out.append(c);
                hasBase = true;
                marks = 0;
                atSpace = false;
            } else if (isMark(category)) {
                // Stacked combining marks could otherwise flood a prompt.
                if (hasBase && marks < maxMarksPerCharacter) {
                    out.append(c);
                    ++marks;
                }
            } else if (isKeptNumberPunctuationOrSymbol(category)) {
                out.append(c);
                hasBase = true;
                atSpace = false;
            }
        }
        if (out.length() != lengthBefore) inEmojiRun = false;
    }
    clusters.setText(emptyText());

    if (out.length() > 0 && out.charAt(out.length() - 1) == 0x20) out.truncate(out.length() - 1);
    if (cap && truncateToClusters(out, std::max(*cap, 0))) out.append(UChar(0x2026));
    std::string result;
    out.toUTF8String(result);
    return result;
}

std::optional<std::string> sanitize(const std::optional<std::string>& text, std::optional<int> cap) {
    if (!text) return std::nullopt;
    return sanitize(*text, cap);
}

std::string quoted(const std::string& text, std::optional<int> cap) { return "\"" + sanitize(text, cap) + "\""; }

}  // namespace aimwise::ScreenText
