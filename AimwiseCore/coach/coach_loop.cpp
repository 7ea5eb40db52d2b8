#include "AimwiseCore/coach/coach_loop.h"

#include <algorithm>
#include <map>

#include "AimwiseCore/coach/coach_output_guards.h"
#include "AimwiseCore/coach/coach_tools.h"
#include "AimwiseCore/coach/historical_tool_results.h"
#include "AimwiseCore/coach/synthetic_user_markers.h"
#include "AimwiseCore/coach/turn_timeout.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "AimwiseCore/models/openrouter_session_id.h"
#include "CaptureShared/common/local_time.h"

namespace aimwise {

namespace CoachLoop {

namespace {

ChatResponse call(ModelBackend& backend, const std::vector<ChatMessage>& messages,
                  const std::optional<std::vector<ToolSpec>>& tools, const ChatOptions& options,
                  const StreamDeltaHandler& onDelta, ResetBox& reset) {
    if (onDelta) return streaming(backend, messages, tools, options, onDelta, reset);
    return backend.chat(messages, tools, options);
}

std::vector<ToolCall> withoutSilence(const std::vector<ToolCall>& calls) {
    std::vector<ToolCall> kept;
    for (const ToolCall& toolCall : calls)
        if (!CoachTools::unreplayableToolNames().contains(toolCall.name)) kept.push_back(toolCall);
    return kept;
}

void collapseRun(std::vector<ChatMessage>::const_iterator begin, std::vector<ChatMessage>::const_iterator end,
                 std::vector<ChatMessage>& out) {
    if (end - begin == 1) {
        out.push_back(*begin);
        return;
    }
    // The newest copy of each system-written family stands for the run; the person's words all stay.
    std::map<SyntheticUserMarkers::Family, const ChatMessage*> newest;
    for (auto message = begin; message != end; ++message)
        if (auto family = SyntheticUserMarkers::familyOf(message->content);
            family && *family != SyntheticUserMarkers::Family::user)
            newest[*family] = &*message;
    std::string joined;
    for (auto message = begin; message != end; ++message) {
        auto family = SyntheticUserMarkers::familyOf(message->content);
        if (family && *family != SyntheticUserMarkers::Family::user && newest[*family] != &*message) continue;
        if (!joined.empty()) joined += "\n\n";
        joined += message->content;
    }
    out.push_back(ChatMessage::user(std::move(joined)));
}

// The local date of the newest exchange, so a conversation keeps one session key through its day.
std::string lastRealTurnDate(std::span<const EventLogEvent> events, int64_t asOfMs) {
    int64_t newest = asOfMs;
    for (auto event = events.rbegin(); event != events.rend(); ++event) {
        if (event->tsMs > asOfMs) continue;
        if (event->type == "app_chat_message" || event->type == "checker_output_sent" ||
            event->type == "checker_input_received") {
            newest = event->tsMs;
            break;
        }
    }
    return LocalTime::format(newest).substr(0, 10);
}

}  // namespace

void ResetBox::mark(ModelStreamDelta& delta) {
    std::lock_guard lock(mutex_);
    if (!armed_) return;
    armed_ = false;
    switch (policy_) {
        case ResetPolicy::none:
            return;
        case ResetPolicy::everything:
            delta.resetsPrevious = true;
            delta.resetsThinking = true;
            return;
        case ResetPolicy::thinkingWhenReplaced:
            delta.resetsPrevious = true;
            delta.resetsThinking = !delta.thinking.empty();
            return;
    }
}

const char* turnNotice(CoachChannel channel) {
    return channel == CoachChannel::appChat ? appChatNotice : checkerNotice;
}

bool isQueryTool(const std::string& name) { return name == "check_ui_state"; }

std::string toolAck(const ToolCall& toolCall, const std::string& uiStateAnswer,
                    const CoachTurnEffects::CorrectJudgment& correctJudgment) {
    const std::string name = CoachTools::canonicalToolName(toolCall.name);
    if (name == "check_ui_state") return uiStateAnswer;
    if (name == "open_ui") return CoachProjection::openUIWithoutMessageResult;
    if (name == "close_ui") return "UI closed.";
    if (name == CoachTools::writeCurrentIntention) return "Noted.";
    if (name == "correct_judgment")
        return correctJudgment.verdict == CorrectJudgmentGuard::Verdict::allowed ? "Noted."
                                                                                 : CorrectJudgmentGuard::refusalResult;
    if (name == "do_not_disturb" || name == "back_off") return "Got it.";
    return "Done.";
}

std::vector<ChatMessage> collapseConsecutiveUserTurns(const std::vector<ChatMessage>& messages) {
    std::vector<ChatMessage> out;
    out.reserve(messages.size());
    for (auto at = messages.begin(); at != messages.end();) {
        if (at->role != ChatRole::user) {
            out.push_back(*at++);
            continue;
        }
        auto end = std::find_if(at, messages.end(), [](const ChatMessage& m) { return m.role != ChatRole::user; });
        collapseRun(at, end, out);
        at = end;
    }
    return out;
}

ChatResponse streaming(ModelBackend& backend, const std::vector<ChatMessage>& messages,
                       const std::optional<std::vector<ToolSpec>>& tools, const ChatOptions& options,
                       const StreamDeltaHandler& onDelta, ResetBox& reset) {
    return backend.chatStream(messages, tools, options, [&](const ModelStreamDelta& delta) {
        ModelStreamDelta shown = delta;
        reset.mark(shown);
        onDelta(shown);
    });
}

ChatResponse roundTripIfNeeded(const ChatResponse& firstResponse, const std::vector<ChatMessage>& priorMessages,
                               ModelBackend& backend, const ChatOptions& options, const std::string& uiStateAnswer,
                               const CoachTurnEffects::CorrectJudgment& correctJudgment,
                               const StreamDeltaHandler& onDelta, ResetBox* reset) {
    const std::vector<ToolCall> calls = withoutSilence(firstResponse.toolCalls);
    if (calls.empty()) return firstResponse;
    const bool asked = std::any_of(calls.begin(), calls.end(), [](const ToolCall& c) { return isQueryTool(c.name); });
    if (!asked) {
        const bool owesWords = !CoachSanityChecks::hasAnySpokenContent(firstResponse) &&
                               firstResponse.text.find(CoachTools::silenceSentinel) == std::string::npos;
        if (!owesWords) return firstResponse;
    }
    std::vector<ChatMessage> followUp = priorMessages;
    followUp.push_back(ChatMessage::assistant(firstResponse.text, calls));
    for (const ToolCall& toolCall : calls)
        followUp.push_back(ChatMessage::toolResult(toolAck(toolCall, uiStateAnswer, correctJudgment), toolCall.name));

    ResetBox ownReset;
    ResetBox& box = reset ? *reset : ownReset;
    if (onDelta) box.arm();
    ChatResponse second = call(backend, followUp, std::nullopt, options, onDelta, box);
    // The words are the second reply's; what the turn did is what the first one called.
    std::vector<ToolCall> allCalls = firstResponse.toolCalls;
    allCalls.insert(allCalls.end(), second.toolCalls.begin(), second.toolCalls.end());
    second.toolCalls = std::move(allCalls);
    second.usage = ChatUsage::combining(firstResponse.usage, second.usage);
    return second;
}

PreparedTurn prepare(std::span<const EventLogEvent> events, std::span<const CoachProjection::TimedTick> ticks,
                     const std::optional<std::string>& consolidatedNotes, int64_t asOfMs,
                     const std::string& systemPrompt, const CoachProjection::Window& window, const ChatOptions& options,
                     CoachProjection::DeadToolCallPolicy deadCalls) {
    PreparedTurn turn;
    turn.projection = CoachProjection::project(events, ticks, consolidatedNotes, asOfMs, window, deadCalls);
    const auto conversation = collapseConsecutiveUserTurns(turn.projection.messages);
    if (const auto signal = CoachTurnEffects::latestTrailingSignal(events, ticks, asOfMs, window.onTaskCheckinEveryTicks))
        turn.channel = signal->channel;
    if (conversation.empty() || conversation.back().role != ChatRole::user)
        throw ModelBackendError::invalidResponse(
            "CoachLoop.runTurn: projection produced no trailing user turn to respond to (message count: " +
            std::to_string(conversation.size()) + ")");
    turn.messages.reserve(conversation.size() + 2);
    turn.messages.push_back(ChatMessage::system(systemPrompt));
    turn.messages.push_back(ChatMessage::system(turnNotice(turn.channel)));
    turn.messages.insert(turn.messages.end(), conversation.begin(), conversation.end());
    turn.options = options;
    if (!turn.options.sessionID) turn.options.sessionID = OpenRouterSessionID::hash(lastRealTurnDate(events, asOfMs));
    return turn;
}

ChatResponse complete(const PreparedTurn& turn, const std::vector<ToolSpec>& tools, ModelBackend& backend,
                      const std::string& uiStateAnswer, const CoachTurnEffects::CorrectJudgment& correctJudgment,
                      const StreamDeltaHandler& onDelta) {
    ResetBox reset;
    const std::optional<std::vector<ToolSpec>> offered = tools.empty() ? std::nullopt : std::optional(tools);
    const ChatResponse first = call(backend, turn.messages, offered, turn.options, onDelta, reset);
    return roundTripIfNeeded(first, turn.messages, backend, turn.options, uiStateAnswer, correctJudgment, onDelta,
                             &reset);
}

TurnResult runTurn(std::span<const EventLogEvent> events, std::span<const CoachProjection::TimedTick> ticks,
                   const std::optional<std::string>& consolidatedNotes, int64_t asOfMs,
                   const std::string& systemPrompt, const std::vector<ToolSpec>& tools, ModelBackend& backend,
                   const CoachProjection::Window& window, const ChatOptions& options,
                   CoachProjection::DeadToolCallPolicy deadCalls, const std::string& uiStateAnswer,
                   const CoachTurnEffects::CorrectJudgment& correctJudgment, const StreamDeltaHandler& onDelta) {
    PreparedTurn turn = prepare(events, ticks, consolidatedNotes, asOfMs, systemPrompt, window, options, deadCalls);
    ChatResponse response = complete(turn, tools, backend, uiStateAnswer, correctJudgment, onDelta);
    return {std::move(response), std::move(turn.projection)};
}

}  // namespace CoachLoop

namespace Layer3CoachLoop {

ChatResponse runTurn(const std::vector<ChatMessage>& messages, const std::vector<ToolSpec>& tools,
                     ModelBackend& backend, const ChatOptions& options,
                     const CoachTurnEffects::CorrectJudgment& correctJudgment, const StreamDeltaHandler& onDelta) {
    CoachLoop::ResetBox reset;
    const std::optional<std::vector<ToolSpec>> offered = tools.empty() ? std::nullopt : std::optional(tools);
    auto ask = [&] {
        return onDelta ? CoachLoop::streaming(backend, messages, offered, options, onDelta, reset)
                       : backend.chat(messages, offered, options);
    };
    ChatResponse response = ask();
    if (offered && response.toolCalls.empty() && CoachSanityChecks::showsLeakedStateChangingToolCall(response.text)) {
        reset.arm();
        response = ask();
    }
    return CoachLoop::roundTripIfNeeded(response, messages, backend, options, "", correctJudgment, onDelta, &reset);
}

}  // namespace Layer3CoachLoop

namespace Layer3TurnRunner {

ChatResponse run(const std::vector<ChatMessage>& messages, const std::vector<ToolSpec>& tools, ModelBackend& backend,
                 const ChatOptions& options, double timeoutSeconds,
                 const CoachTurnEffects::CorrectJudgment& correctJudgment, const StreamDeltaHandler& onDelta) {
    ChatResponse response;
    TurnTimeout::run(timeoutSeconds, [&] {
        response = Layer3CoachLoop::runTurn(messages, tools, backend, options, correctJudgment, onDelta);
    });
    return response;
}

}  // namespace Layer3TurnRunner

namespace DriverTurnRunner {

ChatResponse run(const CoachLoop::PreparedTurn& turn, const std::vector<ToolSpec>& tools, ModelBackend& backend,
                 double timeoutSeconds, const std::string& uiStateAnswer,
                 const CoachTurnEffects::CorrectJudgment& correctJudgment, const StreamDeltaHandler& onDelta) {
    ChatResponse response;
    TurnTimeout::run(timeoutSeconds, [&] {
        response = CoachLoop::complete(turn, tools, backend, uiStateAnswer, correctJudgment, onDelta);
    });
    return response;
}

}  // namespace DriverTurnRunner

}  // namespace aimwise
