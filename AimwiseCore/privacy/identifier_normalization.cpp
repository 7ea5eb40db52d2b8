#include "AimwiseCore/privacy/identifier_normalization.h"

#include <unicode/uchar.h>
#include <unicode/utf16.h>

namespace aimwise {

namespace {

enum class ScalarKind { token, format, other };

struct Scalar {
    int32_t originalStart;
    int32_t originalEnd;
    UChar32 folded;
    ScalarKind kind;
};

bool isASCIIWordish(UChar32 c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' || c == '_';
}

Scalar classify(UChar32 c, int32_t start, int32_t end) {
    if (c < 0x80) return {start, end, c, isASCIIWordish(c) ? ScalarKind::token : ScalarKind::other};
    UChar32 folded = (c >= 0xFF01 && c <= 0xFF5E) ? c - 0xFEE0 : c;
    int32_t numericType = u_getIntPropertyValue(folded, UCHAR_NUMERIC_TYPE);
    if (numericType == U_NT_DECIMAL || numericType == U_NT_DIGIT) {
        double value = u_getNumericValue(folded);
        if (value >= 0 && value <= 9 && value == double(int(value)))
            return {start, end, UChar32('0' + int(value)), ScalarKind::token};
    }
    if (folded < 0x80) {
        bool token = (folded >= 'A' && folded <= 'Z') || (folded >= 'a' && folded <= 'z') || folded == '-' ||
                     folded == '_';
        return {start, end, folded, token ? ScalarKind::token : ScalarKind::other};
    }
    int8_t category = u_charType(folded);
    if (category == U_DASH_PUNCTUATION || folded == 0x2212) return {start, end, '-', ScalarKind::token};
    if (category == U_SPACE_SEPARATOR) return {start, end, ' ', ScalarKind::other};
    if (category == U_FORMAT_CHAR) return {start, end, folded, ScalarKind::format};
    if (u_hasBinaryProperty(folded, UCHAR_ALPHABETIC)) return {start, end, folded, ScalarKind::token};
    return {start, end, folded, ScalarKind::other};
}

struct Decoded {
    UChar32 c;
    int32_t start;
    int32_t end;
};

Decoded decodeAt(const std::u16string& text, int32_t at) {
    UChar32 c;
    int32_t next = at;
    U16_NEXT(text.data(), next, int32_t(text.size()), c);
    return {c, at, next};
}

}  // namespace

NormalizedIdentifierText NormalizedIdentifierText::build(const std::u16string& input,
                                                          FormatCharacters formatCharacters) {
    NormalizedIdentifierText result;
    result.input_ = &input;
    const int32_t length = int32_t(input.size());

    // ASCII never changes, so only the other scalars decide whether a copy is needed at all; nearly all
    // screen text is ASCII, where this is one pass and no copy.
    bool anyChanged = false;
    for (int32_t i = 0; i < length;) {
        if (input[size_t(i)] < 0x80) {
            ++i;
            continue;
        }
        Decoded d = decodeAt(input, i);
        Scalar scalar = classify(d.c, d.start, d.end);
        if (scalar.folded != d.c) anyChanged = true;
        if (scalar.kind == ScalarKind::format) result.containsFormatCharacters_ = true;
        i = d.end;
    }
    const bool removing = formatCharacters == FormatCharacters::removed && result.containsFormatCharacters_;
    if (!anyChanged && !removing) return result;

    // Every scalar yields at most as many units as it had, so the buffers never grow.
    std::u16string text(input.size(), u'\0');
    std::vector<int32_t> offsets(input.size() + 1);
    std::vector<int32_t> ends(input.size());
    size_t out = 0;
    bool anyDeleted = false;
    auto kindBefore = [&](int32_t at) {
        if (at == 0) return ScalarKind::other;
        int32_t previous = at;
        U16_BACK_1(input.data(), 0, previous);
        return classify(decodeAt(input, previous).c, 0, 0).kind;
    };
    for (int32_t i = 0; i < length;) {
        const char16_t unit = input[size_t(i)];
        if (unit < 0x80) {
            text[out] = unit;
            offsets[out] = i;
            ends[out] = i + 1;
            ++out;
            ++i;
            continue;
        }
        Decoded d = decodeAt(input, i);
        Scalar scalar = classify(d.c, d.start, d.end);
        i = d.end;
        // A format character is deleted exactly when a token stands directly on both sides of it.
        if (removing && scalar.kind == ScalarKind::format && i < length && kindBefore(d.start) == ScalarKind::token &&
            classify(decodeAt(input, i).c, 0, 0).kind == ScalarKind::token) {
            anyDeleted = true;
            continue;
        }
        if (U_IS_BMP(scalar.folded)) {
            text[out] = char16_t(scalar.folded);
            offsets[out] = scalar.originalStart;
            ends[out] = scalar.originalEnd;
            ++out;
        } else {
            text[out] = U16_LEAD(scalar.folded);
            text[out + 1] = U16_TRAIL(scalar.folded);
            offsets[out] = scalar.originalStart;
            offsets[out + 1] = scalar.originalStart + 1;
            ends[out] = ends[out + 1] = scalar.originalEnd;
            out += 2;
        }
    }
    text.resize(out);
    ends.resize(out);
    offsets.resize(out + 1);
    offsets[out] = length;
    if (!anyChanged && !anyDeleted) return result;
    result.changed_ = std::move(text);
    result.originalUTF16Offset_ = std::move(offsets);
    result.originalUTF16End_ = std::move(ends);
    return result;
}

std::pair<int32_t, int32_t> NormalizedIdentifierText::originalRange(int32_t start, int32_t end) const {
    if (!originalUTF16Offset_) return {start, end};
    const auto& offsets = *originalUTF16Offset_;
    int32_t originalStart = offsets[size_t(start)];
    int32_t originalEnd = end > start ? originalUTF16End_[size_t(end - 1)] : originalStart;
    return {originalStart, originalEnd};
}

}  // namespace aimwise
