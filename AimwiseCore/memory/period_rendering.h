#pragma once
// One period of the event log as numbered lines for the digest prompt: what was declared and what
// was said, each line carrying the number the model cites and the time it traces back to.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "AimwiseCore/events/event_log_event.h"

namespace aimwise::PeriodRendering {

// Longer texts (a pasted page) are cut, so that one message cannot crowd out a whole period.
inline constexpr size_t lineTextCap = 2000;

struct Rendered {
    // "[n] <time> <text>", n from 1.
    std::vector<std::string> lines;
    // The event time of line n at [n - 1].
    std::vector<int64_t> tsMsByLine;
    size_t characterCount() const;
};

// The text an event contributes, or nothing for the kinds a digest leaves out (and for a message with
// no words in it).
std::optional<std::string> text(const EventLogEvent& event);
// The time at the head of each line: local date and minute.
std::string indexTime(int64_t tsMs);
Rendered renderIndexed(std::span<const EventLogEvent> events);

}  // namespace aimwise::PeriodRendering
