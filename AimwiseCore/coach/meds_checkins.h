#pragma once
// Medication check-ins, off unless coach-preferences.json sets medsRemindersEnabled. Deliberately
// small: the person writes what they take and when as events, and the coach is only told which of
// today's doses are due and not yet marked, so that it can ask once in a message that goes out anyway.
//   {"type": "meds_schedule_set", "detail": {"name": "methylphenidate", "times": ["08:00", "13:00"]}}
//     the newest for a name (case and outer blanks ignored) replaces the last; "times": [] ends it.
//   {"type": "meds_taken", "detail": {"name": "methylphenidate"}}   also with "skipped": true
//     closes that name's due check-in; without a name, every due one. An hour early still counts.
//   {"type": "meds_ask_offered", "detail": {"names": [...], "due_at_ms": [...]}}
//     written by the coach when it spoke while check-ins were due, so it asks once.
// A dose is due from its time (local, today or yesterday) for four hours.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "AimwiseCore/events/event_log_event.h"

namespace aimwise {

struct MedsCheckin {
    std::string name;
    int64_t dueAtMs = 0;
    std::optional<int64_t> askedAtMs;
    bool operator==(const MedsCheckin&) const = default;
};

namespace MedsCheckins {

inline constexpr const char* scheduleType = "meds_schedule_set";
inline constexpr const char* takenType = "meds_taken";
inline constexpr const char* askOfferedType = "meds_ask_offered";
inline constexpr int64_t dueForMs = 4 * 3'600'000;
inline constexpr int64_t earlyTakeMs = 3'600'000;

// Due and unmarked at `asOfMs`, oldest first; none when the check-ins are off. Events in time order.
std::vector<MedsCheckin> outstanding(std::span<const EventLogEvent> events, int64_t asOfMs, bool enabled);
// The text the gate and the coach read (medsContext, medsStatus); nothing when none is due.
std::optional<std::string> context(const std::vector<MedsCheckin>& due);
EventLogEvent askOfferedEvent(const std::vector<MedsCheckin>& due, int64_t asOfMs);

}  // namespace MedsCheckins

}  // namespace aimwise
