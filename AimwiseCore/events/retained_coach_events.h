#pragma once
// The slice of the event log that the long-running coach keeps in memory. Chat messages keep only
// their role: their text is the bulk of the log and the coach re-reads it from disk when needed.
#include <set>
#include <string>
#include <vector>

#include "AimwiseCore/events/delta_fold.h"
#include "AimwiseCore/events/event_log_event.h"

namespace aimwise {

class RetainedCoachEvents {
public:
    RetainedCoachEvents();

    // The types kept with their whole detail.
    static const std::set<std::string>& retainedTypesWithFullDetail();

    void apply(IncrementalReadResult<EventLogEvent> result);
    const std::vector<EventLogEvent>& events() const { return fold_.committed; }

    // Applies the retention rule to rows; exposed for callers that fold elsewhere.
    static std::vector<EventLogEvent> retained(std::vector<EventLogEvent> rows);

private:
    DeltaFold<EventLogEvent> fold_;
};

}  // namespace aimwise
