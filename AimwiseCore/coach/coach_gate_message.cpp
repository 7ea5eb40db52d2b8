#include "AimwiseCore/coach/coach_gate_message.h"

#include <algorithm>

#include "AimwiseCore/coach/coach_gate_rules.h"
#include "CaptureShared/common/text.h"

namespace aimwise {

namespace CoachGateMessage {

std::string assemble(const std::string& timeline, int64_t nowMs, bool lowEffort,
                     const std::optional<std::string>& standingNotes,
                     const std::optional<std::string>& userInstructions,
                     const std::optional<std::string>& medsContext) {
    std::string message = CoachGateRules::prefix(lowEffort);
    if (userInstructions) message += "\n\n" + *userInstructions;
    if (standingNotes) message += "\n\n" + *standingNotes;
    message += "\n\nTimeline:\n";
    message += timeline.empty() ? emptyTimeline : timeline;
    message += "\nit is now " + CoachGateTimeline::formatTime(nowMs) + ".";
    if (medsContext) message += "\n\n" + *medsContext;
    message += "\n\n" + CoachGateQuestion::text();
    return message;
}

std::string build(const std::vector<EventLogEvent>& events, const std::vector<ClassifierTick>& ticks,
                  int64_t floorMs, int64_t nowMs, double boundHours,
                  const std::optional<CaptureWindowSummary>& capture, double startStep, bool lowEffort,
                  const std::optional<std::string>& standingNotes,
                  const std::optional<std::string>& userInstructions, const std::optional<std::string>& medsContext) {
    const std::string timeline =
        CoachGateTimeline::render(events, ticks, floorMs, nowMs, boundHours, capture, startStep);
    return assemble(timeline, nowMs, lowEffort, standingNotes, userInstructions, medsContext);
}

}  // namespace CoachGateMessage

namespace GateStandingNotes {

std::optional<std::string> render(const std::optional<StandingMemory>& memory,
                                  const std::vector<CoachCorrection>& corrections, CoachCorrection::Scope scope) {
    std::vector<std::string> lines;
    if (memory) {
        for (const MemoryFact& fact : memory->facts) lines.push_back("- " + fact.text);
        for (const std::string& lesson : memory->lessons) lines.push_back("- " + lesson);
    }
    std::vector<const CoachCorrection*> standing;
    for (const CoachCorrection& correction : corrections)
        if (!correction.foldedAtMs && (!correction.scope || *correction.scope == scope))
            standing.push_back(&correction);
    std::stable_sort(standing.begin(), standing.end(),
                     [](const CoachCorrection* a, const CoachCorrection* b) { return a->atMs < b->atMs; });
    for (const CoachCorrection* correction : standing)
        lines.push_back("- " + correction->text + " (they told you this directly)");
    if (lines.empty()) return std::nullopt;
    return "What you have been told before, and still applies:\n" + join(lines, "\n");
}

}  // namespace GateStandingNotes

}  // namespace aimwise
