#pragma once
// One period of the event log as numbered lines for the digest prompt: what was declared and what
// was said, each line carrying the number the model cites and the time it traces back to.
#include <cstdint>
#include <filesystem>
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

// The event log as a pass needs it: only the kinds a digest renders, sorted by time (most lines are
// ruled out by a byte search, never parsed), and the time of the first event of any kind at or after
// `floorMs`, which is where the periods start. Throws std::filesystem::filesystem_error when the log
// exists and cannot be read; a missing log is empty.
struct LogForDigests {
    std::vector<EventLogEvent> events;
    std::optional<int64_t> earliestEventMs;
};
LogForDigests readForDigests(const std::filesystem::path& eventsLog, int64_t floorMs);

}  // namespace aimwise::PeriodRendering
