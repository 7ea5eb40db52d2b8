#pragma once
// How far a consumer has read the event log by time. The margin keeps it behind now, so that an
// event logged late with a slightly older stamp is still picked up next time.
#include <cstdint>
#include <vector>

namespace aimwise::EventLogCursor {

// Never moves backwards and never passes now less the margin.
int64_t advance(int64_t from, const std::vector<int64_t>& newEventTimestamps, int64_t nowMs, int64_t safetyMarginMs);

}  // namespace aimwise::EventLogCursor
