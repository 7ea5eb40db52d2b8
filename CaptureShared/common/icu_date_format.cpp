#include "CaptureShared/common/icu_date_format.h"

#include "CaptureShared/common/icu_library.h"

namespace aimwise {

namespace {

UDateFormat* handle(void* format) { return static_cast<UDateFormat*>(format); }

}  // namespace

std::unique_ptr<ICUDateFormat> ICUDateFormat::make(std::u16string_view pattern, Parsing parsing) {
    const ICU& icu = ICU::get();
    UErrorCode status = U_ZERO_ERROR;
    UDateFormat* format = icu.udat_open(UDAT_PATTERN, UDAT_PATTERN, "en_US_POSIX", nullptr, 0,
                                        unicode::nonNull(pattern), int32_t(pattern.size()), &status);
    if (U_FAILURE(status) || !format) {
        if (format) icu.udat_close(format);
        return nullptr;
    }
    if (parsing == Parsing::strict) icu.udat_setLenient(format, false);
    return std::unique_ptr<ICUDateFormat>(new ICUDateFormat(format));
}

ICUDateFormat::~ICUDateFormat() { ICU::get().udat_close(handle(format_)); }

std::string ICUDateFormat::format(double ms) const {
    return unicode::toUTF8(unicode::written(64, [&](char16_t* out, int32_t capacity, UErrorCode* status) {
        return ICU::get().udat_format(handle(format_), ms, out, capacity, nullptr, status);
    }));
}

std::optional<double> ICUDateFormat::parse(std::string_view text) const {
    const std::u16string input = unicode::toUTF16(text);
    int32_t position = 0;
    UErrorCode status = U_ZERO_ERROR;
    const UDate date =
        ICU::get().udat_parse(handle(format_), unicode::nonNull(input), int32_t(input.size()), &position, &status);
    if (U_FAILURE(status) || position != int32_t(input.size())) return std::nullopt;
    return date;
}

std::u16string ICUDateFormat::defaultZone() {
    return unicode::written(64, [](char16_t* out, int32_t capacity, UErrorCode* status) {
        return ICU::get().ucal_getDefaultTimeZone(out, capacity, status);
    });
}

}  // namespace aimwise
