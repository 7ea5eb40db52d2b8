#pragma once
// The invariants a projected conversation must keep, checked over real logs. Each failure is a
// finding; the sweep changes nothing and guards nothing. It exists so that a long-running coach
// whose history went wrong is noticed by a diagnostic rather than by the person.
#include <cstdint>
#include <string>
#include <vector>

#include "AimwiseCore/coach/coach_projection.h"

namespace aimwise::ProjectionSweep {

struct Finding {
    std::string property;
    int64_t tsMs = 0;
    std::string detail;
    bool operator==(const Finding&) const = default;
};

// The projection the sweep looks through, unless a depth is being varied.
inline constexpr CoachProjection::Window defaultWindow{};
inline constexpr const char* sweepNotes = "(consolidated notes)";

// "no-leak-at-write-time": every logged coach text is already clean.
std::vector<Finding> leakedWriteFindings(const std::vector<EventLogEvent>& events);
// "tool-calls-preserved": every decision with calls since `sinceMs` has them in the history
// projected at the newest event.
std::vector<Finding> toolCallsPreservedFindings(const std::vector<EventLogEvent>& events,
                                                const std::vector<ClassifierTick>& ticks, int64_t sinceMs);
// "context-seed-not-first-assistant": no seed or context block under the assistant role.
std::vector<Finding> contextSeedFindings(const std::vector<EventLogEvent>& events,
                                         const std::vector<ClassifierTick>& ticks,
                                         const std::vector<int64_t>& sampleAsOfs);
// "monotonic-no-new-leaks-with-depth": deeper full history never shows more leaked calls.
std::vector<Finding> monotonicityFindings(const std::vector<EventLogEvent>& events,
                                          const std::vector<ClassifierTick>& ticks,
                                          const std::vector<int64_t>& sampleAsOfs,
                                          const std::vector<double>& depthsHours);
// "no-adjacent-assistant-messages".
std::vector<Finding> adjacentAssistantFindings(const std::vector<EventLogEvent>& events,
                                               const std::vector<ClassifierTick>& ticks,
                                               const std::vector<int64_t>& sampleAsOfs);
// "retired_tool_mention": no message calls or names a retired tool.
std::vector<Finding> retiredToolMentionFindings(const std::vector<ChatMessage>& messages);

// The same checks over one projection already made.
std::vector<Finding> seedFindings(const std::vector<ChatMessage>& messages, int64_t asOfMs);
std::vector<Finding> adjacencyFindings(const std::vector<ChatMessage>& messages, int64_t asOfMs);
// Assistant messages whose text shows a state-changing call.
int64_t leakedCallCount(const std::vector<ChatMessage>& messages);

}  // namespace aimwise::ProjectionSweep
