#pragma once
// A model's reply changes nothing by itself. The turn effects read what a turn returned and give the
// events that record what it did; the caller appends them, in order, after the turn ends, and the log
// is the only state. Nothing here throws: a reply that cannot be used becomes a logged rejection, a
// call that cannot run a denial, and the turn is still recorded so that the next projection can tell
// the model what happened.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/coach/coach_correction.h"
#include "AimwiseCore/coach/coach_tool_arguments.h"
#include "AimwiseCore/coach/driver_coach_prompt.h"
#include "AimwiseCore/coach/meds_checkins.h"
#include "AimwiseCore/coach/projection_signals.h"
#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/models/chat_types.h"

namespace aimwise {

namespace ToolCallDeniedEvent {
struct Denial {
    enum class Reason { unknownTool, duplicateCall };
    std::string tool;
    Reason reason = Reason::unknownTool;
    bool operator==(const Denial&) const = default;
};
std::string_view rawValue(Denial::Reason reason);
// "tool_call_denied" with `denials`: [{"tool", "reason"}].
EventLogEvent make(const std::vector<Denial>& denials, int64_t asOfMs);
}  // namespace ToolCallDeniedEvent

namespace AppChatEvents {
EventLogEvent coachMessage(const std::string& text, const std::string& thinking, bool truncated, int64_t asOfMs,
                           const std::optional<std::string>& servedBy, bool servedByFallback,
                           const std::optional<ChatProvenance>& provenance, std::optional<FallbackCause> fallbackCause);
EventLogEvent userMessage(const std::string& text, int64_t asOfMs);
// "turn_failed" with `reason` for the record and `user_reason` for the person.
EventLogEvent turnFailed(const std::string& reason, const std::string& userReason, int64_t asOfMs);
}  // namespace AppChatEvents

namespace TurnTruncatedEvent {
EventLogEvent make(std::optional<int64_t> completionTokens, std::optional<int64_t> reasoningTokens, int64_t asOfMs);
}

namespace EmptyOpenUIEvent {
EventLogEvent make(int64_t asOfMs);
}

// What the person told the coach about how it behaves, as an event, and as the line the corrections
// file keeps (the format documented with CoachCorrection).
namespace CoachCorrectionRecordedEvent {
inline constexpr const char* type = "coach_correction_recorded";
// `lasts`: "rest_of_today" ends the next morning, "next_few_hours" in three hours, anything else
// (and nothing) stands until changed.
EventLogEvent make(const std::string& text, std::optional<CoachCorrection::Scope> scope,
                   const std::optional<std::string>& lasts, int64_t asOfMs);
std::optional<CoachCorrection> correction(const EventLogEvent& event);
std::string correctionLine(const CoachCorrection& correction);
}  // namespace CoachCorrectionRecordedEvent

namespace CoachTurnEffects {

using Channel = CoachChannel;

// What the caller knows about the correct_judgment guard for this turn.
struct CorrectJudgment {
    CorrectJudgmentGuard::Verdict verdict = CorrectJudgmentGuard::Verdict::allowed;
    // The front window the link is about, as the newest classifier look saw it.
    std::optional<std::string> windowSignature;
};

inline constexpr const char* truncationUserReason = "The coach's reply got cut off, so it wasn't shown.";
std::string truncationReasonText(const ChatResponse& response);
// "Firefox | YouTube": the app and title a link is recorded against.
std::optional<std::string> windowSignature(const ClassifierTick& tick);

// On the checker channel, words without open_ui would land where nobody looks.
bool missingOpenUIForACheckerCheckIn(Channel channel, const ChatResponse& response);

// The events of one driver turn, in the order they are to be appended. `messages` are what the model
// was sent; `outstandingMeds` the medication check-ins due this turn.
std::vector<EventLogEvent> events(const ChatResponse& response, const std::vector<ChatMessage>& messages,
                                  int64_t asOfMs, Channel channel, const std::vector<MedsCheckin>& outstandingMeds,
                                  const CorrectJudgment& correctJudgment);

struct TrailingSignal {
    Channel channel = Channel::checker;
    int64_t tsMs = 0;
    bool operator==(const TrailingSignal&) const = default;
};
// What a turn now would answer: the newest signal since the last "coach_decision", or nothing.
std::optional<TrailingSignal> latestTrailingSignal(std::span<const EventLogEvent> events,
                                                   std::span<const CoachProjection::TimedTick> ticks, int64_t asOfMs,
                                                   int onTaskCheckinEveryTicks);
std::optional<TrailingSignal> latestTrailingSignal(const std::vector<EventLogEvent>& events,
                                                   const std::vector<ClassifierTick>& ticks, int64_t asOfMs,
                                                   int onTaskCheckinEveryTicks);

}  // namespace CoachTurnEffects

// The conversation path: the same table over its smaller tool set. The person is in the check-in
// window, so there is no channel to surface on.
namespace Layer3TurnEffects {
std::vector<EventLogEvent> events(const ChatResponse& response, const std::vector<ChatMessage>& messages,
                                  int64_t asOfMs, const std::vector<MedsCheckin>& outstandingMeds,
                                  const CoachTurnEffects::CorrectJudgment& correctJudgment);
}  // namespace Layer3TurnEffects

}  // namespace aimwise
