#include "CaptureShared/common/local_time.h"

#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <cmath>
#include <memory>

namespace aimwise::LocalTime {

namespace {

constexpr size_t maxDateLength = 64;
constexpr const char16_t* pattern = u"yyyy-MM-dd'T'HH:mm:ss";

// Building an ICU formatter costs far more than a parse, so each thread keeps one, following the
// default zone if it is changed.
icu::SimpleDateFormat* formatter() {
    thread_local std::unique_ptr<icu::SimpleDateFormat> cached;
    std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createDefault());
    if (!cached) {
        UErrorCode status = U_ZERO_ERROR;
        auto made = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString(pattern),
                                                            icu::Locale("en_US_POSIX"), status);
        if (U_FAILURE(status)) return nullptr;
        made->setLenient(false);
        cached = std::move(made);
    }
    if (zone && cached->getTimeZone() != *zone) cached->adoptTimeZone(zone.release());
    return cached.get();
}

}  // namespace

std::string format(int64_t ms) {
    auto* format = formatter();
    if (!format) return {};
    icu::UnicodeString out;
    format->format(static_cast<UDate>(ms), out);
    std::string utf8;
    out.toUTF8String(utf8);
    return utf8;
}

std::optional<int64_t> parse(std::string_view text) {
    // Every character of the format is ASCII; anything else cannot be a match, and checking first
    // keeps bytes that are not UTF-8 away from ICU.
    if (text.size() > maxDateLength) return std::nullopt;
    for (const char c : text)
        if (static_cast<unsigned char>(c) >= 0x80) return std::nullopt;
    auto* format = formatter();
    if (!format) return std::nullopt;
    const icu::UnicodeString input =
        icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    icu::ParsePosition position(0);
    const UDate date = format->parse(input, position);
    if (position.getErrorIndex() >= 0 || position.getIndex() != input.length()) return std::nullopt;
    if (!std::isfinite(date)) return std::nullopt;
    return static_cast<int64_t>(std::llround(date));
}

}  // namespace aimwise::LocalTime
