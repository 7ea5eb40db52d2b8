#include "CaptureShared/common/icu_library.h"

#include <climits>
#include <string>

#include "CaptureShared/common/shared_library.h"

namespace aimwise {

namespace {

constexpr const char* purpose = "Unicode text handling";

std::string debianPackage() { return "libicu" + std::to_string(U_ICU_VERSION_MAJOR_NUM); }

// The major version in the name of the file a library came from ("libicuuc.so.72.1"), which its
// symbols carry; the headers' own when the name does not tell.
int majorVersionOf(const std::string& file) {
    const size_t at = file.rfind(".so.");
    if (at == std::string::npos) return U_ICU_VERSION_MAJOR_NUM;
    int version = 0;
    for (size_t i = at + 4; i < file.size() && file[i] >= '0' && file[i] <= '9' && version < 10'000; ++i)
        version = version * 10 + (file[i] - '0');
    return version > 0 ? version : U_ICU_VERSION_MAJOR_NUM;
}

struct Loaded : ICU {
    std::unique_ptr<SharedLibrary> common, i18n;

    Loaded() {
        const std::string built = "libicuuc.so." + std::to_string(U_ICU_VERSION_MAJOR_NUM);
        common = std::make_unique<SharedLibrary>(built.c_str(), purpose, debianPackage());
        version = majorVersionOf(common->file());
        const std::string internationalisation = "libicui18n.so." + std::to_string(version);
        // Its own dependencies include libicuuc, so every function is found through it.
        i18n = std::make_unique<SharedLibrary>(internationalisation.c_str(), purpose, debianPackage());
#define AIMWISE_ICU_RESOLVE(name) resolve(name, #name);
        AIMWISE_ICU_FUNCTIONS(AIMWISE_ICU_RESOLVE)
#undef AIMWISE_ICU_RESOLVE
    }

    // A build of ICU without versioned names has the plain ones.
    template <class Function>
    void resolve(Function& slot, const char* name) {
        const std::string versioned = std::string(name) + "_" + std::to_string(version);
        slot = i18n->function<Function>(i18n->has(versioned.c_str()) ? versioned.c_str() : name);
    }
};

}  // namespace

// Never unloaded: patterns and formatters made from it live until exit.
const ICU& ICU::load() { return *new Loaded(); }

namespace unicode {

std::u16string toUTF16(std::string_view utf8) {
    if (utf8.size() > size_t(INT32_MAX)) utf8 = utf8.substr(0, size_t(INT32_MAX));
    // Never more UTF-16 units than UTF-8 bytes.
    std::u16string out(utf8.size(), u'\0');
    int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    ICU::get().u_strFromUTF8WithSub(out.data(), int32_t(out.size()), &length, utf8.data() ? utf8.data() : "",
                                    int32_t(utf8.size()), 0xFFFD, nullptr, &status);
    if (U_FAILURE(status)) return {};
    out.resize(size_t(length));
    return out;
}

std::string toUTF8(std::u16string_view utf16) {
    if (utf16.size() > size_t(INT32_MAX / 3)) utf16 = utf16.substr(0, size_t(INT32_MAX / 3));
    // At most three bytes for each UTF-16 unit.
    std::string out(utf16.size() * 3, '\0');
    int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    ICU::get().u_strToUTF8WithSub(out.data(), int32_t(out.size()), &length, nonNull(utf16), int32_t(utf16.size()),
                                  0xFFFD, nullptr, &status);
    if (U_FAILURE(status)) return {};
    out.resize(size_t(length));
    return out;
}

std::u16string toLower(std::u16string_view text, const char* locale) {
    return written(text.size(), [&](char16_t* out, int32_t capacity, UErrorCode* status) {
        return ICU::get().u_strToLower(out, capacity, nonNull(text), int32_t(text.size()), locale, status);
    });
}

std::u16string toUpper(std::u16string_view text, const char* locale) {
    return written(text.size(), [&](char16_t* out, int32_t capacity, UErrorCode* status) {
        return ICU::get().u_strToUpper(out, capacity, nonNull(text), int32_t(text.size()), locale, status);
    });
}

std::u16string foldCase(std::u16string_view text) {
    return written(text.size(), [&](char16_t* out, int32_t capacity, UErrorCode* status) {
        return ICU::get().u_strFoldCase(out, capacity, nonNull(text), int32_t(text.size()), U_FOLD_CASE_DEFAULT, status);
    });
}

}  // namespace unicode

}  // namespace aimwise
