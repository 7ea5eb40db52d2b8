#include "AimwiseCore/coach/projection_time_text.h"


#include "AimwiseCore/coach/projection_date_parsing.h"
#include "CaptureShared/common/minute_texts.h"
#include "CaptureShared/common/local_time.h"

namespace aimwise::ProjectionTimeText {

namespace {

MinuteTexts& minuteTexts() {
    thread_local MinuteTexts texts({u"MM-dd HH:mm", u"H:mm"});
    return texts;
}

}  // namespace

void followDefaultZone() { minuteTexts().followDefaultZone(); }

std::string monthDayTime(int64_t ms) { return minuteTexts().format(ms, 0); }
std::string hourMinute(int64_t ms) { return minuteTexts().format(ms, 1); }

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
