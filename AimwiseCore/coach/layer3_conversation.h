#pragma once
// The conversation path's view of the log: the last day of check-ins and chat, from a start that moves
// only by whole steps (and never before the floor), rendered as model messages. Between steps the
// rendered messages only grow at the end, so a provider can keep serving the cached prefix.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/models/chat_types.h"

namespace aimwise {

namespace Layer3TimeGap {
inline constexpr int64_t minimumMs = 600'000;
// "— 25 minutes later —" for a gap longer than ten minutes; nothing otherwise.
std::optional<std::string> marker(int64_t fromMs, int64_t toMs);
// "1 minute", "25 minutes", "1 hour", "1.5 hours": whole minutes below an hour, then hours rounded
// down to a half.
std::string describe(int64_t ms);
}  // namespace Layer3TimeGap

namespace Layer3Conversation {

inline constexpr int64_t spanMs = 86'400'000;
inline constexpr double defaultStepSec = 3600;

// Where the span starts: a day before `asOfMs`, rounded down to a whole step, moved up to the floor.
int64_t spanStart(int64_t floorMs, int64_t asOfMs, double stepSec);
// Events from the start to `asOfMs`, both ends included, sorted by time (stable).
std::vector<EventLogEvent> span(std::span<const EventLogEvent> events, int64_t floorMs, int64_t asOfMs,
                                double stepSec);
int64_t rotationIndex(int64_t floorMs, int64_t asOfMs, double stepSec);

// "It's 14:05. The system's summary of what it observed: "..."", the summary sanitised.
std::string checkinText(const std::string& summary, int64_t atMs);
// What the model is shown as the result of a replayed call.
std::string toolResultText(const ToolCall& call, bool correctJudgmentRefused);

// The span's events as messages, in time order, with gap markers.
std::vector<ChatMessage> renderSpan(std::span<const EventLogEvent> span);
std::vector<ChatMessage> project(std::span<const EventLogEvent> events, int64_t floorMs, int64_t asOfMs,
                                 double stepSec);
// The projection with a new check-in at `asOfMs` after it, marked by the gap since the last message.
std::vector<ChatMessage> projectNewCheckin(std::span<const EventLogEvent> events, int64_t floorMs, int64_t asOfMs,
                                           const std::string& summary, double stepSec);

}  // namespace Layer3Conversation

// The messages of one conversation-path turn, less the system prompt. The medication status, when
// there is one, rides at the very end so that it never disturbs the cached prefix.
namespace Layer3Request {
std::vector<ChatMessage> forReply(std::span<const EventLogEvent> events, int64_t floorMs, int64_t asOfMs,
                                  const std::optional<std::string>& medsStatus,
                                  double stepSec = Layer3Conversation::defaultStepSec);
std::vector<ChatMessage> forCheckin(std::span<const EventLogEvent> events, int64_t floorMs, int64_t asOfMs,
                                    const std::string& summary, const std::optional<std::string>& medsStatus,
                                    double stepSec = Layer3Conversation::defaultStepSec);
void applyTail(std::vector<ChatMessage>& messages, const std::optional<std::string>& medsStatus);
}  // namespace Layer3Request

}  // namespace aimwise
