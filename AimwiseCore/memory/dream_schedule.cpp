#include "AimwiseCore/memory/dream_schedule.h"

#include <algorithm>

#include "AimwiseCore/coach/projection_date_parsing.h"

namespace aimwise::DreamSchedule {

namespace {

// A clock set back must not print a negative age.
std::string wholeMinutes(int64_t ms) {
    return std::to_string(std::max<int64_t>(ms, 0) / 60'000);
}

}  // namespace

const char* rawValue(Presence presence) {
    switch (presence) {
        case Presence::away:
            return "away";
        case Presence::present:
            return "present";
        case Presence::unknown:
            return "unknown";
    }
    return "unknown";
}

Presence presence(const std::vector<ClassifierTick>& ticks, int64_t asOfMs) {
    const ClassifierTick* newest = nullptr;
    int64_t newestMs = 0;
    for (const ClassifierTick& tick : ticks) {
        const auto at = ProjectionDateParsing::parseLocal(tick.at);
        if (at && (!newest || *at >= newestMs)) {
            newest = &tick;
            newestMs = *at;
        }
    }
    if (!newest || asOfMs - newestMs > tickFreshMs) return Presence::unknown;
    if (!newest->frontmostApp) return Presence::unknown;
    return *newest->frontmostApp == lockScreenApp ? Presence::away : Presence::present;
}

Decision evaluate(const Snapshot& snapshot) {
    if (snapshot.pendingPeriodCount < 1) return Hold{"no pending periods -- memory is up to date"};
    if (snapshot.lastPassEndedAtMs) {
        const int64_t since = snapshot.asOfMs - *snapshot.lastPassEndedAtMs;
        if (since < passBackoffMs)
            return Hold{"last pass ended " + wholeMinutes(since) + " min ago -- backing off"};
    }
    switch (snapshot.presence) {
        case Presence::away:
            return Dream{snapshot.pendingPeriodCount};
        case Presence::present:
            return Hold{"he's at the machine -- dreaming can wait for a locked screen"};
        case Presence::unknown:
            break;
    }
    if (!snapshot.latestEventAtMs || snapshot.asOfMs - *snapshot.latestEventAtMs >= quietLogMs)
        return Dream{snapshot.pendingPeriodCount};
    return Hold{"no presence signal and the log was active " +
                wholeMinutes(snapshot.asOfMs - *snapshot.latestEventAtMs) + " min ago -- staying out"};
}

}  // namespace aimwise::DreamSchedule
