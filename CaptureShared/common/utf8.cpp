#include "CaptureShared/common/utf8.h"

namespace aimwise::utf8 {

namespace {

// Decodes one scalar at `i`, advancing it; ill-formed input yields U+FFFD and skips one byte.
char32_t next(std::string_view text, size_t& i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    if (lead < 0x80) {
        ++i;
        return lead;
    }
    size_t length = 0;
    char32_t scalar = 0;
    char32_t minimum = 0;
    if ((lead & 0xE0) == 0xC0) {
        length = 2, scalar = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, scalar = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, scalar = lead & 0x07, minimum = 0x10000;
    } else {
        ++i;
        return replacementCharacter;
    }
    if (i + length > text.size()) {
        ++i;
        return replacementCharacter;
    }
    for (size_t k = 1; k < length; ++k) {
        const unsigned char continuation = byte(i + k);
        if ((continuation & 0xC0) != 0x80) {
            ++i;
            return replacementCharacter;
        }
        scalar = (scalar << 6) | (continuation & 0x3F);
    }
    if (scalar < minimum || scalar > 0x10FFFF || (scalar >= 0xD800 && scalar <= 0xDFFF)) {
        ++i;
        return replacementCharacter;
    }
    i += length;
    return scalar;
}

}  // namespace

std::vector<char32_t> decode(std::string_view text) {
    std::vector<char32_t> scalars;
    scalars.reserve(text.size());
    for (size_t i = 0; i < text.size();) scalars.push_back(next(text, i));
    return scalars;
}

void append(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

std::string encode(const std::vector<char32_t>& scalars) {
    std::string out;
    out.reserve(scalars.size());
    for (char32_t c : scalars) append(out, c);
    return out;
}

bool isValid(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        const size_t before = i;
        const char32_t c = next(text, i);
        // A genuine U+FFFD is three bytes; a replacement for bad input consumed one.
        if (c == replacementCharacter && i - before == 1) return false;
    }
    return true;
}

std::string prefix(std::string_view text, size_t count) {
    size_t i = 0;
    for (size_t n = 0; n < count && i < text.size(); ++n) next(text, i);
    return std::string(text.substr(0, i));
}

size_t scalarCount(std::string_view text) {
    size_t n = 0;
    for (size_t i = 0; i < text.size(); ++n) next(text, i);
    return n;
}

}  // namespace aimwise::utf8
