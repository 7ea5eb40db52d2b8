#include "AimwiseCore/privacy/screen_text.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "CaptureShared/common/icu_library.h"

namespace aimwise::ScreenText {

namespace {

// Each thread keeps its own grapheme iterator: opening one costs more than a short text.
UBreakIterator* graphemeIterator() {
    thread_local ICUHandle<UBreakIterator, &ICU::ubrk_close> iterator = [] {
        UErrorCode status = U_ZERO_ERROR;
        ICUHandle<UBreakIterator, &ICU::ubrk_close> made(ICU::get().ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status));
        if (U_FAILURE(status) || !made) {
            std::fprintf(stderr, "screen text: cannot create a grapheme iterator: %s\n", ICU::get().u_errorName(status));
            std::abort();
        }
        return made;
    }();
    return iterator.get();
}

// The iterator keeps a pointer to its text; between uses it points here.
void release(UBreakIterator* clusters) {
    UErrorCode status = U_ZERO_ERROR;
    ICU::get().ubrk_setText(clusters, u"", 0, &status);
}

bool isDoubleQuote(UChar32 c) {
    return std::find(doubleQuotes.begin(), doubleQuotes.end(), char32_t(c)) != doubleQuotes.end();
}

bool isEmojiCluster(std::u16string_view text, int32_t start, int32_t end) {
    UChar32 first = unicode::char32At(text, start);
    if (!ICU::get().u_hasBinaryProperty(first, UCHAR_EMOJI)) return false;
    if (first >= 0x1F000) return true;
    for (int32_t i = start; i < end;) {
        UChar32 c = unicode::char32At(text, i);
        if (c == 0xFE0F || c == 0x20E3 || ICU::get().u_hasBinaryProperty(c, UCHAR_EMOJI_PRESENTATION)) return true;
        i += U16_LENGTH(c);
    }
    return false;
}

bool isWhiteSpace(UChar32 c, int8_t category) {
    return ICU::get().u_hasBinaryProperty(c, UCHAR_WHITE_SPACE) || category == U_SPACE_SEPARATOR ||
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
bool truncateToClusters(std::u16string& text, int cap) {
    const ICU& icu = ICU::get();
    if (icu.u_countChar32(unicode::nonNull(text), int32_t(text.size())) <= cap) return false;
    UBreakIterator* clusters = graphemeIterator();
    UErrorCode status = U_ZERO_ERROR;
    icu.ubrk_setText(clusters, unicode::nonNull(text), int32_t(text.size()), &status);
    int32_t boundary = icu.ubrk_first(clusters);
    for (int count = 0; count < cap && boundary != UBRK_DONE; ++count) boundary = icu.ubrk_next(clusters);
    const int32_t length = int32_t(text.size());
    release(clusters);
    if (boundary == UBRK_DONE || boundary >= length) return false;
    text.resize(size_t(boundary));
    return true;
}

}  // namespace

std::string sanitize(const std::string& text, std::optional<int> cap) {
    const ICU& icu = ICU::get();
    const std::u16string input = unicode::toUTF16(text);
    std::u16string out;
    bool atSpace = true;
    bool inEmojiRun = false;

    UBreakIterator* clusters = graphemeIterator();
    UErrorCode status = U_ZERO_ERROR;
    icu.ubrk_setText(clusters, unicode::nonNull(input), int32_t(input.size()), &status);
    for (int32_t start = icu.ubrk_first(clusters), end = icu.ubrk_next(clusters); end != UBRK_DONE;
         start = end, end = icu.ubrk_next(clusters)) {
        if (isEmojiCluster(input, start, end)) {
            if (!inEmojiRun) out.append(emojiPlaceholder, emojiPlaceholder + std::char_traits<char>::length(emojiPlaceholder));
            inEmojiRun = true;
            atSpace = false;
            continue;
        }
        const size_t lengthBefore = out.size();
        bool hasBase = false;
        int marks = 0;
        for (int32_t i = start; i < end;) {
            UChar32 c = unicode::char32At(input, i);
            i += U16_LENGTH(c);
            int8_t category = icu.u_charType(c);
            if (isWhiteSpace(c, category)) {
                if (!atSpace) out.push_back(u' ');
                atSpace = true;
                continue;
            }
            if (ICU::get().u_hasBinaryProperty(c, UCHAR_DEFAULT_IGNORABLE_CODE_POINT) ||
                ICU::get().u_hasBinaryProperty(c, UCHAR_EMOJI_MODIFIER) || ICU::get().u_hasBinaryProperty(c, UCHAR_EMOJI_PRESENTATION))
                continue;
            if (isDoubleQuote(c)) {
                out.append(unicode::units(UChar32(quoteGlyph)));
                hasBase = true;
                atSpace = false;
            } else if (isLetter(category)) {
                out.append(unicode::units(c));
                hasBase = true;
                marks = 0;
                atSpace = false;
            } else if (isMark(category)) {
                // Stacked combining marks could otherwise flood a prompt.
                if (hasBase && marks < maxMarksPerCharacter) {
                    out.append(unicode::units(c));
                    ++marks;
                }
            } else if (isKeptNumberPunctuationOrSymbol(category)) {
                out.append(unicode::units(c));
                hasBase = true;
                atSpace = false;
            }
        }
        if (out.size() != lengthBefore) inEmojiRun = false;
    }
    release(clusters);

    if (!out.empty() && out.back() == u' ') out.pop_back();
    if (cap && truncateToClusters(out, std::max(*cap, 0))) out.push_back(u'\u2026');
    return unicode::toUTF8(out);
}

std::optional<std::string> sanitize(const std::optional<std::string>& text, std::optional<int> cap) {
    if (!text) return std::nullopt;
    return sanitize(*text, cap);
}

std::string quoted(const std::string& text, std::optional<int> cap) { return "\"" + sanitize(text, cap) + "\""; }

}  // namespace aimwise::ScreenText
