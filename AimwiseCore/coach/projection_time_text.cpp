#include "AimwiseCore/coach/projection_time_text.h"

#include <memory>
#include <unordered_map>

#include "AimwiseCore/coach/projection_date_parsing.h"
#include "CaptureShared/common/icu_date_format.h"
#include "CaptureShared/common/local_time.h"

namespace aimwise::ProjectionTimeText {

namespace {

constexpr const char16_t* patterns[2] = {u"MM-dd HH:mm", u"H:mm"};
constexpr size_t rememberedMinutes = 100'000;

struct Formatting {
    std::optional<std::u16string> zone;
    std::unique_ptr<ICUDateFormat> formatters[2];
    std::unordered_map<int64_t, std::string> minutes[2];
};

Formatting& formatting() {
    thread_local Formatting state;
    return state;
}

std::string formatted(int64_t ms, int pattern) {
    Formatting& state = formatting();
    if (!state.zone) followDefaultZone();
    const int64_t minute = ms >= 0 ? ms / 60'000 : -((-ms + 59'999) / 60'000);
    auto& minutes = state.minutes[pattern];
    if (const auto it = minutes.find(minute); it != minutes.end()) return it->second;
    auto& formatter = state.formatters[pattern];
    if (!formatter) formatter = ICUDateFormat::make(patterns[pattern]);
    if (!formatter) return {};
    std::string utf8 = formatter->format(static_cast<double>(minute * 60'000));
    if (minutes.size() >= rememberedMinutes) minutes.clear();
    minutes.emplace(minute, utf8);
    return utf8;
}

}  // namespace

void followDefaultZone() {
    Formatting& state = formatting();
    std::u16string zone = ICUDateFormat::defaultZone();
    if (state.zone == zone) return;
    // A format takes the zone that is the default when it is made.
    for (auto& formatter : state.formatters) formatter.reset();
    for (auto& minutes : state.minutes) minutes.clear();
    state.zone = std::move(zone);
}

std::string monthDayTime(int64_t ms) { return formatted(ms, 0); }
std::string hourMinute(int64_t ms) { return formatted(ms, 1); }

}  // namespace aimwise::ProjectionTimeText

namespace aimwise::LocalDay {

namespace {
constexpr int64_t hourMs = 3'600'000;
}

int64_t nextMorningMs(int64_t ms) {
    // Local noons are a day apart give or take an hour, so they walk through the dates honestly even
    // across a change of daylight saving.
    const std::string today = LocalTime::format(ms);
    const auto noon = today.size() >= 10 ? ProjectionDateParsing::parseLocal(today.substr(0, 10) + "T12:00:00")
                                         : std::nullopt;
    if (!noon) return ms + 12 * hourMs;
    for (int day = 0; day < 3; ++day) {
        const std::string date = LocalTime::format(*noon + day * 24 * hourMs).substr(0, 10);
        const auto morning = ProjectionDateParsing::parseLocal(date + "T06:00:00");
        if (morning && *morning > ms + 2 * hourMs) return *morning;
    }
    return ms + 12 * hourMs;
}

}  // namespace aimwise::LocalDay
