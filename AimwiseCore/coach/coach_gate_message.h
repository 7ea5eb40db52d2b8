#pragma once
// The whole text of one gate call. Everything up to the timeline is stable from call to call, so a
// provider's prompt cache can hold it; the changing facts come last.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/coach/coach_correction.h"
#include "AimwiseCore/coach/coach_gate_timeline.h"
#include "AimwiseCore/memory/memory_records.h"

namespace aimwise {

namespace CoachGateMessage {

inline constexpr const char* emptyTimeline = "(nothing has happened yet)";

std::string build(const std::vector<EventLogEvent>& events, const std::vector<ClassifierTick>& ticks,
                  int64_t floorMs, int64_t nowMs, double boundHours,
                  const std::optional<CaptureWindowSummary>& capture, double startStep, bool lowEffort,
                  const std::optional<std::string>& standingNotes,
                  const std::optional<std::string>& userInstructions, const std::optional<std::string>& medsContext);

// The rules, the person's note, the standing notes, the rendered timeline, the time, the medication
// check-ins and the question, in that order.
std::string assemble(const std::string& timeline, int64_t nowMs, bool lowEffort,
                     const std::optional<std::string>& standingNotes,
                     const std::optional<std::string>& userInstructions,
                     const std::optional<std::string>& medsContext);

}  // namespace CoachGateMessage

namespace GateStandingNotes {
// What the person has taught the system: the memory's facts and lessons, then the corrections not yet
// folded into memory whose scope is `scope` or unset, oldest first. Nothing when there is none.
std::optional<std::string> render(const std::optional<StandingMemory>& memory,
                                  const std::vector<CoachCorrection>& corrections, CoachCorrection::Scope scope);
}  // namespace GateStandingNotes

}  // namespace aimwise
