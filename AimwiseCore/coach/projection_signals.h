#pragma once
// The classifier's signals that can wake the coach, read from the logs: the latest sign of drift from
// the declared task and the on-task check-ins that keep the coach from being silent through a long
// focused stretch. Also how each becomes the trailing turn of a projected conversation.
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "AimwiseCore/coach/coach_gate_timeline.h"
#include "AimwiseCore/events/classifier_tick.h"
#include "AimwiseCore/events/event_log_event.h"

namespace aimwise::CoachProjection {

using TimedTick = CoachGateTimeline::TimedTick;

struct DriftSignal {
    const ClassifierTick* tick = nullptr;  // the newest drift tick
    int64_t tsMs = 0;
    // Drift ticks counted from the later of the last back-off and the `countSinceMs` asked for.
    int64_t firstMs = 0;
    int64_t count = 0;
};

struct OnTaskSignal {
    const ClassifierTick* tick = nullptr;
    int64_t tsMs = 0;
    bool isReturnFromDrift = false;
};

// An ABSTAINED verdict, or the login window in front (a locked screen), says nothing about drift; nor
// does the system's own window.
bool isNotEvidenceOfDrift(const ClassifierTick& tick);

// The newest NOT_ALIGNED tick at or before `asOfMs` that is evidence, after the newest quiet window
// began. Events and ticks in time order. A caller that only wants a signal after some time (the last
// turn) passes it as `countSinceMs`: older drift is then neither looked for nor counted.
std::optional<DriftSignal> latestOffTaskDriftSignal(std::span<const EventLogEvent> events,
                                                    std::span<const TimedTick> ticks, int64_t asOfMs,
                                                    std::optional<int64_t> countSinceMs = std::nullopt);
// Counting ON_TASK ticks after the later of the last "coach_decision" and the last quiet window: every
// `everyTicks`-th is a check-in, and so is one whose previous judged tick was NOT_ALIGNED (a return
// from drift). The newest such tick. `everyTicks` of zero or less leaves only the returns.
std::optional<OnTaskSignal> latestOnTaskCheckinSignal(std::span<const EventLogEvent> events,
                                                      std::span<const TimedTick> ticks, int64_t asOfMs,
                                                      int everyTicks);

// "[classifier drift time=...]" blocks: one look that was off task, or a queue of them since a time.
std::string renderClassifierDriftTurn(const DriftSignal& signal);
std::string renderClassifierDriftQueueTurn(const DriftSignal& signal);
// The queue form when more than one drift tick was counted.
std::string renderTrailingDriftTurn(const DriftSignal& signal);
// "[classifier checkin time=...]": "back on task" after drift, "still on task" otherwise.
std::string renderClassifierOnTaskCheckinTurn(const OnTaskSignal& signal);
// "Firefox / "title" — "reason"": what a tick saw, with its screen text quoted and redacted.
std::string describeTick(const ClassifierTick& tick);

// The person's own words: a user "app_chat_message" or "checker_input_received" that is not a block
// the system wrote in their place.
bool isGenuineUserReply(const EventLogEvent& event);

}  // namespace aimwise::CoachProjection
