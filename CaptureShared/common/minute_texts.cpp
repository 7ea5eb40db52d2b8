#include "CaptureShared/common/minute_texts.h"

namespace aimwise {

namespace {
constexpr size_t rememberedMinutes = 100'000;
}

MinuteTexts::MinuteTexts(std::vector<std::u16string> patterns) {
    for (auto& pattern : patterns) patterns_.push_back(Pattern{std::move(pattern), nullptr, {}});
}

std::string MinuteTexts::format(int64_t ms, size_t index) {
    if (!zone_) followDefaultZone();
    Pattern& pattern = patterns_.at(index);
    const int64_t minute = ms >= 0 ? ms / 60'000 : -((-ms + 59'999) / 60'000);
    if (const auto it = pattern.minutes.find(minute); it != pattern.minutes.end()) return it->second;
    if (!pattern.formatter) pattern.formatter = ICUDateFormat::make(pattern.text);
    if (!pattern.formatter) return {};
    std::string utf8 = pattern.formatter->format(static_cast<double>(minute * 60'000));
    if (pattern.minutes.size() >= rememberedMinutes) pattern.minutes.clear();
    pattern.minutes.emplace(minute, utf8);
    return utf8;
}

void MinuteTexts::followDefaultZone() {
    std::u16string zone = ICUDateFormat::defaultZone();
    if (zone_ == zone) return;
    // A format takes the zone that is the default when it is made.
    for (auto& pattern : patterns_) {
        pattern.formatter.reset();
        pattern.minutes.clear();
    }
    zone_ = std::move(zone);
}

}  // namespace aimwise
