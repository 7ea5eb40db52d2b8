#pragma once
// Dates as text in ICU's pattern syntax ("yyyy-MM-dd h:mma"), in the en_US_POSIX locale and ICU's
// default time zone, which follows the process's TZ unless a test adopts another. ICU is opened on
// the first one made.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace aimwise {

class ICUDateFormat {
public:
    enum class Parsing { lenient, strict };

    // Takes the zone that is the default now; nothing if ICU refuses the pattern.
    static std::unique_ptr<ICUDateFormat> make(std::u16string_view pattern, Parsing parsing = Parsing::lenient);
    ~ICUDateFormat();
    ICUDateFormat(const ICUDateFormat&) = delete;
    ICUDateFormat& operator=(const ICUDateFormat&) = delete;

    std::string format(double ms) const;
    // Milliseconds since the epoch, when the whole of `text` (UTF-8) is a date in the pattern.
    std::optional<double> parse(std::string_view text) const;

    // The default zone's identifier: a format made earlier is stale when it has changed.
    static std::u16string defaultZone();

private:
    explicit ICUDateFormat(void* format) : format_(format) {}
    void* format_;
};

}  // namespace aimwise
