#pragma once
// The recent part of the coach's conversation, rebuilt from the event log: the person's words, the
// coach's replies with the calls they made and what each call did, the block that woke each turn the
// system started, and the system's notes on what went wrong in between (a call that could not run, a
// reply cut off, no answer for a while). Two assistant
// messages never stand side by side, and a tool result never appears without its call.
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "AimwiseCore/coach/historical_tool_results.h"
#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/models/chat_types.h"

namespace aimwise {

namespace RealTurnFold {

struct PendingAssistant {
    int64_t tsMs = 0;
    std::string text;
    std::vector<ToolCall> toolCalls;
    std::optional<std::string> thinking;
    bool correctJudgmentRefused = false;
};

struct Accumulator {
    std::vector<ChatMessage> messages;
    std::optional<PendingAssistant> pendingAssistant;
    // One note per kind, the newest; each made by the event kept here.
    std::map<std::string, EventLogEvent> pendingMarkers;
    std::set<std::pair<int64_t, std::string>> answeredCalls;
    // The newest event that became part of the conversation, or a decision the coach made.
    std::optional<int64_t> lastRealTurnMs;
};

// Folds `events` (time order) into messages. `earlier` are the events before them, consulted only to
// know whether the coach has ever spoken.
Accumulator run(std::span<const EventLogEvent> events, std::span<const EventLogEvent> earlier,
                CoachProjection::DeadToolCallPolicy deadCalls);

}  // namespace RealTurnFold

namespace CoachProjection {

// The notes the system adds between turns, as their marker events carry them.
std::string renderNoReplyTimeout(const EventLogEvent& event);
std::string renderToolCallDenied(const EventLogEvent& event);
std::string renderTurnTruncated(const EventLogEvent& event);
inline constexpr const char* emptyOpenUINote =
    "you called open_ui() last turn but didn't say anything — did you mean to actually say something, or was that "
    "meant to be stay_silent()?";
// A reply another model gave in the coach's place, told as such.
std::string renderFallbackTurn(const std::string& text, const std::optional<std::string>& servedBy,
                               std::optional<FallbackCause> cause);
// What the coach is told when setup finishes, from the detail of "onboarding_v3_setup_finished".
std::string renderOnboardingSetupFinished(const JSONValue& detail, bool coachHasSpoken);

}  // namespace CoachProjection

}  // namespace aimwise
