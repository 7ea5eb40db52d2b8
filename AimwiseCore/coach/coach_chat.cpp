#include "AimwiseCore/coach/coach_chat.h"

#include "AimwiseCore/coach/coach_output_guards.h"
#include "AimwiseCore/coach/coach_tool_arguments.h"
#include "AimwiseCore/coach/coach_tools.h"
#include "AimwiseCore/coach/write_intention_tool.h"
#include "AimwiseCore/privacy/screen_text.h"

namespace aimwise {

namespace {

// The words of a reply as the person may read them.
std::string readable(const std::string& text) {
    const ScreenedReply screened = CoachOutputGuards::screened(text);
    if (screened.degenerationReason) return {};
    return CoachOutputGuards::withoutSilenceSentinel(screened.stripped);
}

}  // namespace

CoachChat::CoachChat(ModelBackend& backend, CoachContext context, ChatOptions options, std::string system)
    : backend_(backend), context_(std::move(context)), options_(std::move(options)), system_(std::move(system)) {}

std::string CoachChat::contextText(const CoachContext& context) {
    std::string text = "COACH CONTEXT";
    if (context.declaredTask) text += "\ndeclared_task: \"" + ScreenText::sanitize(*context.declaredTask, 240) + "\"";
    else text += "\ndeclared_task: none";
    if (context.estimateMinutes) text += "\nestimate_minutes: " + std::to_string(*context.estimateMinutes);
    return text;
}

std::vector<ChatMessage> CoachChat::request(const std::vector<ChatMessage>& conversation) const {
    std::vector<ChatMessage> out{ChatMessage::system(system_), ChatMessage::system(contextText(context_))};
    out.insert(out.end(), conversation.begin(), conversation.end());
    return out;
}

CoachTurn CoachChat::send(const std::string& text) {
    std::vector<ChatMessage> conversation = messages_;
    conversation.push_back(ChatMessage::user(text));
    const std::vector<ToolSpec> tools{CoachPrompt::writeCurrentIntentionTool()};
    const ChatResponse first = backend_.chat(request(conversation), tools, options_);

    CoachTurn turn{.thinking = first.thinking, .truncated = first.truncated};
    if (first.truncated) {
        // Cut off mid-way: neither its words nor a call whose arguments may be cut short are used.
        messages_ = std::move(conversation);
        return turn;
    }
    std::vector<ToolCall> calls;
    std::vector<ChatMessage> results;
    for (const ToolCall& call : first.toolCalls) {
        if (!CoachTools::isWriteIntention(call.name) || turn.proposedWrite || turn.malformedWriteReason) {
            calls.push_back(call);
            results.push_back(ChatMessage::toolResult("Not run: only one write_current_intention call is used per turn.",
                                                      call.name));
            continue;
        }
        const auto parsed = parseWriteCurrentIntentionArguments(call.arguments);
        ToolCall logged{CoachTools::writeCurrentIntention, call.arguments};
        calls.push_back(logged);
        if (const auto* usable = std::get_if<WriteCurrentIntentionArguments::Usable>(&parsed.value)) {
            turn.proposedWrite = ProposedWrite{usable->notes, usable->horizonMinutes};
            results.push_back(ChatMessage::toolResult("Noted.", logged.name));
        } else {
            turn.malformedWriteReason = std::get<WriteCurrentIntentionArguments::Malformed>(parsed.value).reason;
            results.push_back(ChatMessage::toolResult("Not set " + *turn.malformedWriteReason, logged.name));
        }
    }
    turn.assistantText = readable(first.text);
    conversation.push_back(ChatMessage::assistant(turn.assistantText, calls.empty() ? std::nullopt : std::optional(calls)));
    conversation.insert(conversation.end(), results.begin(), results.end());

    if (!calls.empty() && turn.assistantText.empty()) {
        const ChatResponse second = backend_.chat(request(conversation), std::nullopt, options_);
        if (!second.truncated) {
            turn.assistantText = readable(second.text);
            if (!second.thinking.empty()) turn.thinking = second.thinking;
            if (!turn.assistantText.empty()) conversation.push_back(ChatMessage::assistant(turn.assistantText));
        }
    }
    messages_ = std::move(conversation);
    return turn;
}

}  // namespace aimwise
