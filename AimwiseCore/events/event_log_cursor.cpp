#include "AimwiseCore/events/event_log_cursor.h"

#include <algorithm>

namespace aimwise::EventLogCursor {

int64_t advance(int64_t from, const std::vector<int64_t>& newEventTimestamps, int64_t nowMs, int64_t safetyMarginMs) {
    if (newEventTimestamps.empty()) return from;
    const int64_t newest = *std::max_element(newEventTimestamps.begin(), newEventTimestamps.end());
    return std::max(from, std::min(newest, nowMs - safetyMarginMs));
}

}  // namespace aimwise::EventLogCursor
