#include "CaptureShared/common/local_time.h"

#include <cmath>
#include <memory>

#include "CaptureShared/common/icu_date_format.h"

namespace aimwise::LocalTime {

namespace {

constexpr size_t maxDateLength = 64;
constexpr const char16_t* pattern = u"yyyy-MM-dd'T'HH:mm:ss";

// Building an ICU formatter costs far more than a parse, so each thread keeps one, following the
// default zone if it is changed.
const ICUDateFormat* formatter() {
    thread_local std::unique_ptr<ICUDateFormat> cached;
    thread_local std::u16string cachedZone;
    std::u16string zone = ICUDateFormat::defaultZone();
    if (!cached || zone != cachedZone) {
        cached = ICUDateFormat::make(pattern, ICUDateFormat::Parsing::strict);
        cachedZone = std::move(zone);
    }
    return cached.get();
}

}  // namespace

std::string format(int64_t ms) {
    const auto* format = formatter();
    if (!format) return {};
    return format->format(static_cast<double>(ms));
}

std::optional<int64_t> parse(std::string_view text) {
    // Every character of the format is ASCII; anything else cannot be a match, and checking first
    // keeps bytes that are not UTF-8 away from ICU.
    if (text.size() > maxDateLength) return std::nullopt;
    for (const char c : text)
        if (static_cast<unsigned char>(c) >= 0x80) return std::nullopt;
    const auto* format = formatter();
    if (!format) return std::nullopt;
    const std::optional<double> date = format->parse(text);
    if (!date || !std::isfinite(*date)) return std::nullopt;
    return static_cast<int64_t>(std::llround(*date));
}

}  // namespace aimwise::LocalTime
