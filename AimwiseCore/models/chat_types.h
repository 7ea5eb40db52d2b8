#pragma once
// The vocabulary every language-model call speaks: messages, tools, options and the answer.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/events/json_value.h"

namespace aimwise {

enum class ChatRole { system, user, assistant, tool };
std::string_view rawValue(ChatRole role);
std::optional<ChatRole> chatRoleFromRaw(std::string_view raw);

struct ToolCall {
    std::string name;
    JSONValue arguments = JSONValue::Object{};

    // {"name": ..., "arguments": ...}: how a call stands in the event log.
    JSONValue asLoggedJSON() const;
    // Absent unless `value` is an object with a name that is not blank; the name stays untrimmed.
    static std::optional<ToolCall> decodeLogged(const JSONValue& value);

    bool operator==(const ToolCall&) const = default;
};

struct ToolSpec {
    std::string name;
    std::string description;
    JSONValue parameters = JSONValue::Object{};

    bool operator==(const ToolSpec&) const = default;
};

struct ChatMessage {
    ChatRole role = ChatRole::user;
    std::string content;
    std::optional<std::vector<ToolCall>> toolCalls;
    std::optional<std::string> toolName;
    std::optional<std::string> thinking;
    std::optional<std::string> reasoningDetailsJSON;

    static ChatMessage system(std::string content);
    static ChatMessage user(std::string content);
    static ChatMessage assistant(std::string content, std::optional<std::vector<ToolCall>> toolCalls = std::nullopt,
                                 std::optional<std::string> thinking = std::nullopt,
                                 std::optional<std::string> reasoningDetailsJSON = std::nullopt);
    static ChatMessage toolResult(std::string content, std::optional<std::string> name);

    bool hasToolCalls() const { return toolCalls && !toolCalls->empty(); }
    bool operator==(const ChatMessage&) const = default;
};

enum class ChatTurn { reply, background };
std::string_view rawValue(ChatTurn turn);
inline constexpr ChatTurn allChatTurns[] = {ChatTurn::reply, ChatTurn::background};

struct ChatOptions {
    int64_t maxTokens = 0;
    bool think = false;
    bool logprobs = false;
    std::optional<int> topLogprobs;
    std::optional<int> seed;
    std::optional<std::string> sessionID;
    // Kept as text: its key order must reach the wire byte for byte.
    std::optional<std::string> responseSchemaJSON;
    ChatTurn turn = ChatTurn::reply;

    bool operator==(const ChatOptions&) const = default;
};

struct ChatUsage {
    int64_t promptTokens = 0;
    int64_t completionTokens = 0;
    std::optional<int64_t> cachedPromptTokens;
    std::optional<int64_t> reasoningTokens;
    std::optional<double> costUSD;
    int64_t callCount = 1;

    double cacheHitRate() const;
    // Sums a turn's calls. A figure one side lacks is not evidence against the other side's.
    static std::optional<ChatUsage> combining(const std::optional<ChatUsage>& a, const std::optional<ChatUsage>& b);

    bool operator==(const ChatUsage&) const = default;
};

struct ChatProvenance {
    std::optional<std::string> provider;
    std::optional<std::string> generationID;
    std::optional<std::string> servedModel;
    std::optional<std::string> finishReason;

    bool isEmpty() const { return !provider && !generationID && !servedModel && !finishReason; }
    bool operator==(const ChatProvenance&) const = default;
};

struct TokenLogprob {
    struct Alternative {
        std::string token;
        double logprob = 0;
        bool operator==(const Alternative&) const = default;
    };
    std::string token;
    double logprob = 0;
    std::vector<Alternative> topAlternatives;
    bool operator==(const TokenLogprob&) const = default;
};

enum class FallbackCause { unreachable, paced, licenseLapsed, termsUpdateRequired };
std::string_view rawValue(FallbackCause cause);
std::optional<FallbackCause> fallbackCauseFromRaw(std::string_view raw);
// What the user sees beside a reply that a fallback served.
std::string disclosureLine(FallbackCause cause, std::string_view servedBy);

struct ChatResponse {
    std::string text;
    std::vector<ToolCall> toolCalls;
    std::string thinking;
    bool truncated = false;
    std::optional<ChatUsage> usage;
    std::optional<std::string> servedBy;
    bool servedByFallback = false;
    std::optional<FallbackCause> fallbackCause;
    std::optional<int64_t> termsUpdateVersion;
    std::optional<std::string> termsUpdateURL;
    std::optional<std::string> termsUpdateSummary;
    // Never stored empty.
    std::optional<ChatProvenance> provenance;
    std::vector<TokenLogprob> logprobs;
    std::optional<std::string> reasoningDetailsJSON;

    bool operator==(const ChatResponse&) const = default;
};

struct ModelStreamDelta {
    std::string text;
    std::string thinking;
    // How a decorator that retries mid-stream takes back what was already shown.
    bool resetsPrevious = false;
    bool resetsThinking = false;
    bool operator==(const ModelStreamDelta&) const = default;
};

}  // namespace aimwise
