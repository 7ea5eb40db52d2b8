#pragma once
// ICU, opened on first use. Linking it costs every process two large libraries and a 30 MB data
// file mapped and relocated before main, and most starts never touch Unicode data: the classifier's
// tick usually skips. Its C API is reached through pointers resolved here (its C++ API cannot be
// reached through dlopen). Internal: it brings ICU's C headers, so only .cpp files include it.
#include <unicode/ubrk.h>
#include <unicode/uchar.h>
#include <unicode/ucal.h>
#include <unicode/udat.h>
#include <unicode/uregex.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

// Every ICU function this system calls. ICU's headers rename each one for its version (u_charType
// becomes u_charType_72), which also renames the members below, consistently; the symbol looked up
// is the plain name with the suffix of the library actually opened.
#define AIMWISE_ICU_FUNCTIONS(X)                                                                           \
    X(u_errorName)                                                                                         \
    X(u_charType)                                                                                          \
    X(u_hasBinaryProperty)                                                                                 \
    X(u_getIntPropertyValue)                                                                               \
    X(u_getNumericValue)                                                                                   \
    X(u_isdigit)                                                                                           \
    X(u_isalpha)                                                                                           \
    X(u_isUWhiteSpace)                                                                                     \
    X(u_countChar32)                                                                                       \
    X(u_strFromUTF8WithSub)                                                                                \
    X(u_strToUTF8WithSub)                                                                                  \
    X(u_strToLower)                                                                                        \
    X(u_strToUpper)                                                                                        \
    X(u_strFoldCase)                                                                                       \
    X(uregex_open)                                                                                         \
    X(uregex_clone)                                                                                        \
    X(uregex_close)                                                                                        \
    X(uregex_setText)                                                                                      \
    X(uregex_find)                                                                                         \
    X(uregex_findNext)                                                                                     \
    X(uregex_lookingAt)                                                                                    \
    X(uregex_start)                                                                                        \
    X(uregex_end)                                                                                          \
    X(uregex_setRegion)                                                                                    \
    X(uregex_useTransparentBounds)                                                                         \
    X(uregex_useAnchoringBounds)                                                                           \
    X(ubrk_open)                                                                                           \
    X(ubrk_close)                                                                                          \
    X(ubrk_setText)                                                                                        \
    X(ubrk_first)                                                                                          \
    X(ubrk_next)                                                                                           \
    X(ucal_getDefaultTimeZone)                                                                             \
    X(udat_open)                                                                                           \
    X(udat_close)                                                                                          \
    X(udat_setLenient)                                                                                     \
    X(udat_format)                                                                                         \
    X(udat_parse)

namespace aimwise {

struct ICU {
#define AIMWISE_ICU_MEMBER(name) decltype(&::name) name = nullptr;
    AIMWISE_ICU_FUNCTIONS(AIMWISE_ICU_MEMBER)
#undef AIMWISE_ICU_MEMBER
    // The major version of the library opened, which names its symbols.
    int version = 0;

    // Opens libicuuc and libicui18n on the first call; throws SharedLibraryError naming the
    // package when they are missing or lack a function.
    static const ICU& get() {
        static const ICU& loaded = load();
        return loaded;
    }

private:
    static const ICU& load();
};

// Owns an ICU object, closed through the member `Close` (&ICU::uregex_close, ...).
template <auto Close>
struct ICUCloser {
    template <class Handle>
    void operator()(Handle* handle) const {
        if (handle) (ICU::get().*Close)(handle);
    }
};
template <class Handle, auto Close>
using ICUHandle = std::unique_ptr<Handle, ICUCloser<Close>>;

namespace unicode {

// Each ill-formed UTF-8 sequence or lone surrogate becomes U+FFFD, as ICU's own conversions do.
std::u16string toUTF16(std::string_view utf8);
std::string toUTF8(std::u16string_view utf16);

// `locale` nullptr is the process's default locale and "" the root locale.
std::u16string toLower(std::u16string_view text, const char* locale);
std::u16string toUpper(std::u16string_view text, const char* locale);
std::u16string foldCase(std::u16string_view text);

// The code point that contains `offset`, or U+FFFF past the end.
inline UChar32 char32At(std::u16string_view text, int32_t offset) {
    if (offset < 0 || offset >= int32_t(text.size())) return 0xFFFF;
    UChar32 c;
    U16_GET(text.data(), 0, offset, int32_t(text.size()), c);
    return c;
}

// `c` as UTF-16: a lone surrogate stays one unit, and a value that is no code point gives nothing.
inline std::u16string units(UChar32 c) {
    char16_t buffer[2];
    int32_t length = 0;
    [[maybe_unused]] UBool error = false;
    U16_APPEND(buffer, length, 2, c, error);
    return std::u16string(buffer, size_t(length));
}

// What an ICU function writes into a buffer it may find too small, saying how much it needs; empty
// on failure. `write(buffer, capacity, status)` returns the length.
template <class Write>
std::u16string written(size_t guess, Write write) {
    std::u16string out(guess, u'\0');
    for (int attempt = 0; attempt < 2; ++attempt) {
        UErrorCode status = U_ZERO_ERROR;
        const int32_t length = write(out.data(), int32_t(out.size()), &status);
        out.resize(size_t(std::max(length, 0)));
        if (status == U_BUFFER_OVERFLOW_ERROR) continue;
        if (U_FAILURE(status)) return {};
        return out;
    }
    return {};
}

// ICU refuses a null text even when it is empty.
inline const char16_t* nonNull(std::u16string_view text) { return text.data() ? text.data() : u""; }

}  // namespace unicode

}  // namespace aimwise
