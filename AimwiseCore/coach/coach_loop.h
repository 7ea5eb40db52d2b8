#pragma once
// One coach turn on either path: the messages go to the model, streamed when someone is watching,
// and when the reply only called tools (or asked a question) the model is called once more, without
// tools, with each call's answer, so that the person gets words. There is never a third call.
//
// Streaming consumers see a replacement, not a concatenation, when a second call follows the first:
// the ResetBox is armed before the second call, and its first delta carries the reset.
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "AimwiseCore/coach/coach_projection.h"
#include "AimwiseCore/coach/coach_turn_effects.h"
#include "AimwiseCore/models/model_backend.h"

namespace aimwise {

namespace CoachLoop {

// What a streaming consumer drops when a later call replaces the text.
enum class ResetPolicy { none, everything, thinkingWhenReplaced };

// Shared with the stream callback, which may run on another thread.
class ResetBox {
public:
    explicit ResetBox(ResetPolicy policy = ResetPolicy::everything) : policy_(policy) {}
    void arm() {
        std::lock_guard lock(mutex_);
        armed_ = true;
    }
    bool armed() const {
        std::lock_guard lock(mutex_);
        return armed_;
    }
    // Marks `delta` as a reset when armed, and disarms.
    void mark(ModelStreamDelta& delta);

private:
    mutable std::mutex mutex_;
    bool armed_ = false;
    ResetPolicy policy_;
};

struct TurnResult {
    ChatResponse response;
    CoachProjection::Result projection;
};

// What a driver turn sends, before it is sent: built where the logs are, called where the model is.
struct PreparedTurn {
    std::vector<ChatMessage> messages;
    CoachChannel channel = CoachChannel::checker;
    ChatOptions options;
    CoachProjection::Result projection;
};

inline constexpr const char* appChatNotice =
    "THIS TURN: an APP_CHAT message. They just messaged you directly, or this is a continuing conversation they "
    "opened themselves \xE2\x80\x94 they are already looking at it right now. Do NOT call open_ui; there is nothing to "
    "bring in front of them that isn't already in front of them.";
inline constexpr const char* checkerNotice =
    "THIS TURN: the system noticed something on its own, without them prompting you \xE2\x80\x94 they has NOT seen this "
    "conversation and doesn't know you're considering saying anything. If you decide to speak \xE2\x80\x94 a real reply, "
    "not the silence character and not do_not_disturb \xE2\x80\x94 call open_ui with `message` set to what you want to "
    "say, or your reply lands silently in a log they may never check \xE2\x80\x94 that is the one thing this system "
    "exists to prevent. open_ui with an empty `message` is suppressed and never opens anything. Calling open_ui costs "
    "nothing if they happen to already be looking at the app; the app itself won't force anything new in front of "
    "them in that case.";
const char* turnNotice(CoachChannel channel);

// Tools whose answer the model is waiting for: "check_ui_state".
bool isQueryTool(const std::string& name);
// The answer a follow-up call shows for a call of the first.
std::string toolAck(const ToolCall& call, const std::string& uiStateAnswer,
                    const CoachTurnEffects::CorrectJudgment& correctJudgment);

// A run of user messages with nothing between them becomes one message: within the run only the
// newest of each system-written family is kept (older copies are stale), the person's own words all
// stay, in order, joined by blank lines. Many chat templates refuse two user turns in a row.
std::vector<ChatMessage> collapseConsecutiveUserTurns(const std::vector<ChatMessage>& messages);

// The backend's stream, each delta forwarded to `onDelta` (marked by `reset` when armed).
ChatResponse streaming(ModelBackend& backend, const std::vector<ChatMessage>& messages,
                       const std::optional<std::vector<ToolSpec>>& tools, const ChatOptions& options,
                       const StreamDeltaHandler& onDelta, ResetBox& reset);

ChatResponse roundTripIfNeeded(const ChatResponse& firstResponse, const std::vector<ChatMessage>& priorMessages,
                               ModelBackend& backend, const ChatOptions& options, const std::string& uiStateAnswer,
                               const CoachTurnEffects::CorrectJudgment& correctJudgment,
                               const StreamDeltaHandler& onDelta, ResetBox* reset = nullptr);

// The driver path's request. Throws ModelBackendError when the projection ends without a user turn.
PreparedTurn prepare(std::span<const EventLogEvent> events, std::span<const CoachProjection::TimedTick> ticks,
                     const std::optional<std::string>& consolidatedNotes, int64_t asOfMs,
                     const std::string& systemPrompt, const CoachProjection::Window& window, const ChatOptions& options,
                     CoachProjection::DeadToolCallPolicy deadCalls);
// The prepared request sent, with its round trip.
ChatResponse complete(const PreparedTurn& turn, const std::vector<ToolSpec>& tools, ModelBackend& backend,
                      const std::string& uiStateAnswer, const CoachTurnEffects::CorrectJudgment& correctJudgment,
                      const StreamDeltaHandler& onDelta);

TurnResult runTurn(std::span<const EventLogEvent> events, std::span<const CoachProjection::TimedTick> ticks,
                   const std::optional<std::string>& consolidatedNotes, int64_t asOfMs,
                   const std::string& systemPrompt, const std::vector<ToolSpec>& tools, ModelBackend& backend,
                   const CoachProjection::Window& window, const ChatOptions& options,
                   CoachProjection::DeadToolCallPolicy deadCalls, const std::string& uiStateAnswer,
                   const CoachTurnEffects::CorrectJudgment& correctJudgment, const StreamDeltaHandler& onDelta);

}  // namespace CoachLoop

namespace Layer3CoachLoop {
// `messages` include the system prompt. A reply that wrote a state-changing tool call into its text
// is asked for once more, and that second reply stands.
ChatResponse runTurn(const std::vector<ChatMessage>& messages, const std::vector<ToolSpec>& tools,
                     ModelBackend& backend, const ChatOptions& options,
                     const CoachTurnEffects::CorrectJudgment& correctJudgment, const StreamDeltaHandler& onDelta);
}  // namespace Layer3CoachLoop

// Both paths inside the watchdog: TurnTimeout::Exceeded after `timeoutSeconds`, and no reply.
namespace Layer3TurnRunner {
ChatResponse run(const std::vector<ChatMessage>& messages, const std::vector<ToolSpec>& tools, ModelBackend& backend,
                 const ChatOptions& options, double timeoutSeconds,
                 const CoachTurnEffects::CorrectJudgment& correctJudgment, const StreamDeltaHandler& onDelta);
}  // namespace Layer3TurnRunner

namespace DriverTurnRunner {
ChatResponse run(const CoachLoop::PreparedTurn& turn, const std::vector<ToolSpec>& tools, ModelBackend& backend,
                 double timeoutSeconds, const std::string& uiStateAnswer,
                 const CoachTurnEffects::CorrectJudgment& correctJudgment, const StreamDeltaHandler& onDelta);
}  // namespace DriverTurnRunner

}  // namespace aimwise
