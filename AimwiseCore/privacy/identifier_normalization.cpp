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

bool isASCII(const std::u16string& text) {
    char16_t any = 0;
    for (char16_t unit : text) any |= unit;
    return any < 0x80;
}

}  // namespace

NormalizedIdentifierText NormalizedIdentifierText::build(const std::u16string& input,
                                                          FormatCharacters formatCharacters) {
    NormalizedIdentifierText result;
    result.input_ = &input;
    // Nearly all screen text is ASCII, where nothing folds; that case costs one pass and no copy.
    if (isASCII(input)) return result;

    std::vector<Scalar> scalars;
    scalars.reserve(input.size());
    bool anyChanged = false;
    const int32_t length = int32_t(input.size());
    for (int32_t i = 0; i < length;) {
        int32_t start = i;
        UChar32 c;
        U16_NEXT(input.data(), i, length, c);
        Scalar scalar = classify(c, start, i);
        if (scalar.folded != c) anyChanged = true;
        if (scalar.kind == ScalarKind::format) result.containsFormatCharacters_ = true;
        scalars.push_back(scalar);
    }

    auto deleted = [&](size_t index) {
        return formatCharacters == FormatCharacters::removed && scalars[index].kind == ScalarKind::format &&
               index > 0 && index + 1 < scalars.size() && scalars[index - 1].kind == ScalarKind::token &&
               scalars[index + 1].kind == ScalarKind::token;
    };
    bool anyDeleted = false;
    if (formatCharacters == FormatCharacters::removed && result.containsFormatCharacters_)
        for (size_t index = 0; index < scalars.size() && !anyDeleted; ++index) anyDeleted = deleted(index);
    if (!anyChanged && !anyDeleted) return result;

    std::u16string text;
    text.reserve(input.size());
    std::vector<int32_t> offsets;
    offsets.reserve(input.size() + 1);
    std::vector<int32_t> ends;
    ends.reserve(input.size());
    for (size_t index = 0; index < scalars.size(); ++index) {
        if (deleted(index)) continue;
        const Scalar& scalar = scalars[index];
        if (U_IS_BMP(scalar.folded)) {
            text.push_back(char16_t(scalar.folded));
            offsets.push_back(scalar.originalStart);
            ends.push_back(scalar.originalEnd);
        } else {
            text.push_back(U16_LEAD(scalar.folded));
            text.push_back(U16_TRAIL(scalar.folded));
            offsets.push_back(scalar.originalStart);
            offsets.push_back(scalar.originalStart + 1);
            ends.push_back(scalar.originalEnd);
            ends.push_back(scalar.originalEnd);
        }
    }
    offsets.push_back(length);
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
