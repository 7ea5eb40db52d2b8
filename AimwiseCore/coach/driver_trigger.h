#pragma once
// Whether something new calls for the coach, and if not, why not, in words the driver logs.
//
// The conditions, in the order they are weighed here:
//   1. The coach surfaced something ("checker_output_sent", or "ui_opened") and nothing from the
//      person has come since, nor a recorded no-reply timeout: for ten minutes the coach waits
//      (waitingForReply); after that the check-in counts as unanswered (timedOutWaitingForReply),
//      which the driver records as "no_reply_timeout" so the coach can reassess.
//   2. No trailing signal newer than the last "coach_decision": nothingNew.
//   3. A signal from the person (the chat channel) is always answered: readyForTurn.
//   4. For a signal the system noticed on its own: a signal from the system's own window gives
//      noReactableTurn; a quiet window in force (the coach's back-off or the person's own quiet)
//      deferredBackOff; a lock screen frontmost in a tick under three minutes old
//      deferredMachineLocked; the person back on task since the drift was noticed deferredOnTask.
//   5. Otherwise readyForTurn.
// A reply from the person outranks every deferral: they are already looking at the conversation.
#include <cstdint>
#include <span>
#include <string>
#include <variant>

#include "AimwiseCore/coach/coach_projection.h"
#include "AimwiseCore/coach/coach_turn_effects.h"

namespace aimwise::DriverTrigger {

inline constexpr int64_t replyWaitMs = 600'000;
inline constexpr int64_t lockedTickFreshMs = 180'000;
inline constexpr const char* lockScreenApp = "loginwindow";

struct TimedOutWaitingForReply {
    int64_t sinceTsMs = 0;
    bool operator==(const TimedOutWaitingForReply&) const = default;
};
struct WaitingForReply {
    int64_t sinceTsMs = 0;
    int64_t untilTsMs = 0;
    bool operator==(const WaitingForReply&) const = default;
};
struct DeferredMachineLocked {
    int64_t sinceTsMs = 0;
    bool operator==(const DeferredMachineLocked&) const = default;
};
struct DeferredOnTask {
    int64_t sinceTsMs = 0;
    bool operator==(const DeferredOnTask&) const = default;
};
struct DeferredBackOff {
    int64_t sinceTsMs = 0;
    int64_t untilTsMs = 0;
    bool operator==(const DeferredBackOff&) const = default;
};
struct NothingNew {
    bool operator==(const NothingNew&) const = default;
};
struct ReadyForTurn {
    CoachTurnEffects::TrailingSignal signal;
    bool operator==(const ReadyForTurn&) const = default;
};
struct NoReactableTurn {
    int64_t sinceTsMs = 0;
    bool operator==(const NoReactableTurn&) const = default;
};

using Outcome = std::variant<TimedOutWaitingForReply, WaitingForReply, DeferredMachineLocked, DeferredOnTask,
                             DeferredBackOff, NothingNew, ReadyForTurn, NoReactableTurn>;

// Events and ticks in time order.
Outcome evaluate(std::span<const EventLogEvent> events, std::span<const CoachProjection::TimedTick> ticks,
                 int64_t asOfMs, const CoachProjection::Window& window);

// When the coach surfaced something still unanswered, and no timeout was recorded for it.
std::optional<int64_t> unansweredOutputMs(std::span<const EventLogEvent> events, int64_t asOfMs);

// The outcome in plain words, for the driver's log.
std::string describe(const Outcome& outcome);

}  // namespace aimwise::DriverTrigger
