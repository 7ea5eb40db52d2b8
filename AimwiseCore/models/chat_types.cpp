#include "AimwiseCore/models/chat_types.h"

#include "CaptureShared/common/text.h"

namespace aimwise {

std::string_view rawValue(ChatRole role) {
    switch (role) {
        case ChatRole::system: return "system";
        case ChatRole::user: return "user";
        case ChatRole::assistant: return "assistant";
        case ChatRole::tool: return "tool";
    }
    return "user";
}

std::optional<ChatRole> chatRoleFromRaw(std::string_view raw) {
    for (ChatRole role : {ChatRole::system, ChatRole::user, ChatRole::assistant, ChatRole::tool})
        if (rawValue(role) == raw) return role;
    return std::nullopt;
}

JSONValue ToolCall::asLoggedJSON() const { return JSONValue::Object{{"name", name}, {"arguments", arguments}}; }

std::optional<ToolCall> ToolCall::decodeLogged(const JSONValue& value) {
    const JSONValue::Object* object = value.objectIfAny();
    if (!object) return std::nullopt;
    auto name = object->find("name");
    if (name == object->end() || !name->second.stringIfAny()) return std::nullopt;
    const std::string& text = *name->second.stringIfAny();
    if (trimWhitespaceAndNewlines(text).empty()) return std::nullopt;
    auto arguments = object->find("arguments");
    return ToolCall{text, arguments == object->end() ? JSONValue(JSONValue::Object{}) : arguments->second};
}

ChatMessage ChatMessage::system(std::string content) { return {ChatRole::system, std::move(content)}; }

ChatMessage ChatMessage::user(std::string content) { return {ChatRole::user, std::move(content)}; }

ChatMessage ChatMessage::assistant(std::string content, std::optional<std::vector<ToolCall>> toolCalls,
                                   std::optional<std::string> thinking,
                                   std::optional<std::string> reasoningDetailsJSON) {
    ChatMessage message{ChatRole::assistant, std::move(content)};
    message.toolCalls = std::move(toolCalls);
    message.thinking = std::move(thinking);
    message.reasoningDetailsJSON = std::move(reasoningDetailsJSON);
    return message;
}

ChatMessage ChatMessage::toolResult(std::string content, std::optional<std::string> name) {
    ChatMessage message{ChatRole::tool, std::move(content)};
    message.toolName = std::move(name);
    return message;
}

std::string_view rawValue(ChatTurn turn) { return turn == ChatTurn::reply ? "reply" : "background"; }

double ChatUsage::cacheHitRate() const {
    if (!cachedPromptTokens || promptTokens <= 0) return 0;
    return static_cast<double>(*cachedPromptTokens) / static_cast<double>(promptTokens);
}

namespace {
template <typename T>
std::optional<T> addPresent(const std::optional<T>& a, const std::optional<T>& b) {
    if (a && b) return *a + *b;
    return a ? a : b;
}
}  // namespace

std::optional<ChatUsage> ChatUsage::combining(const std::optional<ChatUsage>& a, const std::optional<ChatUsage>& b) {
    if (!a) return b;
    if (!b) return a;
    ChatUsage sum;
    sum.promptTokens = a->promptTokens + b->promptTokens;
    sum.completionTokens = a->completionTokens + b->completionTokens;
    sum.cachedPromptTokens = addPresent(a->cachedPromptTokens, b->cachedPromptTokens);
    sum.reasoningTokens = addPresent(a->reasoningTokens, b->reasoningTokens);
    sum.costUSD = addPresent(a->costUSD, b->costUSD);
    sum.callCount = a->callCount + b->callCount;
    return sum;
}

std::string_view rawValue(FallbackCause cause) {
    switch (cause) {
        case FallbackCause::unreachable: return "unreachable";
        case FallbackCause::paced: return "paced";
        case FallbackCause::licenseLapsed: return "license_lapsed";
        case FallbackCause::termsUpdateRequired: return "terms_update_required";
    }
    return "unreachable";
}

std::optional<FallbackCause> fallbackCauseFromRaw(std::string_view raw) {
    for (FallbackCause cause : {FallbackCause::unreachable, FallbackCause::paced, FallbackCause::licenseLapsed,
                                FallbackCause::termsUpdateRequired})
        if (rawValue(cause) == raw) return cause;
    return std::nullopt;
}

std::string disclosureLine(FallbackCause cause, std::string_view servedBy) {
    switch (cause) {
        case FallbackCause::unreachable:
            return "answered by " + std::string(servedBy) + " — the usual model was unreachable";
        case FallbackCause::paced: return "answered on this Mac — pacing your online coaching";
        case FallbackCause::licenseLapsed: return "answered on this Mac — your license isn't active";
        case FallbackCause::termsUpdateRequired: return "answered on this Mac — accept the updated terms to resume";
    }
    return {};
}

}  // namespace aimwise
