#include "AimwiseCore/classifier/py_repr.h"

#include <cstdio>

#include "CaptureShared/common/icu_library.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise::PyRepr {

namespace {

bool mustEscape(char32_t scalar) {
    switch (ICU::get().u_charType(static_cast<UChar32>(scalar))) {
        case U_SPACE_SEPARATOR:
        case U_LINE_SEPARATOR:
        case U_PARAGRAPH_SEPARATOR:
        case U_CONTROL_CHAR:
        case U_FORMAT_CHAR:
        case U_SURROGATE:
        case U_PRIVATE_USE_CHAR:
        case U_UNASSIGNED:
            return true;
        default:
            return false;
    }
}

}  // namespace

std::string string(const std::string& text) {
    const std::vector<char32_t> scalars = utf8::decode(text);
    bool hasSingle = false, hasDouble = false;
    for (char32_t c : scalars) {
        hasSingle |= c == '\'';
        hasDouble |= c == '"';
    }
    const char quote = hasSingle && !hasDouble ? '"' : '\'';

    std::string out(1, quote);
    out.reserve(text.size() + 2);
    for (char32_t c : scalars) {
        if (c == static_cast<char32_t>(quote)) {
            out += '\\';
            out += quote;
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == ' ') {
            out += ' ';
        } else if (c == '\\') {
            out += "\\\\";
        } else if (mustEscape(c)) {
            char buffer[16];
            if (c < 0x100)
                std::snprintf(buffer, sizeof buffer, "\\x%02x", static_cast<unsigned>(c));
            else if (c < 0x10000)
                std::snprintf(buffer, sizeof buffer, "\\u%04x", static_cast<unsigned>(c));
            else
                std::snprintf(buffer, sizeof buffer, "\\U%08x", static_cast<unsigned>(c));
            out += buffer;
        } else {
            utf8::append(out, c);
        }
    }
    out += quote;
    return out;
}

std::string windowContentDict(const std::string& ocrText, const std::string& description) {
    return "{'ocr_text': " + string(ocrText) + ", 'description': " + string(description) + "}";
}

}  // namespace aimwise::PyRepr
