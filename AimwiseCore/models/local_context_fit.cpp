#include "AimwiseCore/models/local_context_fit.h"

#include <algorithm>

#include "AimwiseCore/models/chat_json.h"

namespace aimwise::LocalContextFit {

namespace {

size_t estimatedBytes(const ChatMessage& message) {
    size_t bytes = message.content.size() + message.thinking.value_or("").size() + 16;
    if (message.toolCalls)
        for (const ToolCall& call : *message.toolCalls) bytes += call.name.size() + 64;
    return bytes;
}

}  // namespace

std::optional<Overflow> overflow(const ModelBackendError& error) {
    const ModelBackendError::HTTPError* http = error.asHTTPError();
    if (!http || http->status != 400) return std::nullopt;
    ChatJSON body = ChatJSON::parse(http->body, nullptr, false);
    if (!body.is_object()) return std::nullopt;
    auto found = body.find("error");
    if (found == body.end() || !found->is_object()) return std::nullopt;
    const ChatJSON& object = *found;
    auto type = object.find("type");
    if (type == object.end() || !type->is_string() || *type != "exceed_context_size_error") return std::nullopt;
    auto number = [&](const char* key) -> std::optional<int64_t> {
        auto value = object.find(key);
        if (value == object.end() || !value->is_number_integer()) return std::nullopt;
        return value->get<int64_t>();
    };
    return Overflow{number("n_prompt_tokens"), number("n_ctx")};
}

std::optional<Trimmed> dropOldestTurns(const std::vector<ChatMessage>& messages, const Overflow& overflow,
                                       std::optional<int64_t> contextTokens, int64_t maxTokens) {
    // Turns start at each user message; the latest one is what is being answered and stays.
    std::vector<size_t> turnStarts;
    for (size_t i = 0; i < messages.size(); ++i)
        if (messages[i].role == ChatRole::user) turnStarts.push_back(i);
    if (turnStarts.empty()) return std::nullopt;
    size_t firstKept = turnStarts.back();
    // Anything before the first user message that is not a system message is a turn of its own.
    std::vector<size_t> boundaries;
    for (size_t i = 0; i < firstKept; ++i)
        if (messages[i].role != ChatRole::system) {
            boundaries.push_back(i);
            break;
        }
    for (size_t start : turnStarts)
        if (start < firstKept && (boundaries.empty() || start > boundaries.front())) boundaries.push_back(start);
    if (boundaries.empty()) return std::nullopt;
    boundaries.push_back(firstKept);

    size_t totalBytes = 0;
    for (const ChatMessage& message : messages) totalBytes += estimatedBytes(message);

    std::optional<int64_t> context = overflow.contextTokens ? overflow.contextTokens : contextTokens;
    size_t bytesToDrop = 0;
    if (context && overflow.promptTokens && *overflow.promptTokens > 0) {
        // In doubles: the server's figures can be anything, and must not overflow.
        double room = std::max<double>(
            0.0, (static_cast<double>(*context) - static_cast<double>(std::max<int64_t>(maxTokens, 0))) * targetShare);
        double keepShare = std::clamp(room / static_cast<double>(*overflow.promptTokens), 0.0, 1.0);
        bytesToDrop = static_cast<size_t>(static_cast<double>(totalBytes) * (1.0 - keepShare));
    }

    size_t dropEnd = boundaries[1];
    size_t dropped = 0;
    for (size_t i = boundaries[0]; i < dropEnd; ++i)
        if (messages[i].role != ChatRole::system) dropped += estimatedBytes(messages[i]);
    for (size_t next = 2; next < boundaries.size() && dropped < bytesToDrop; ++next) {
        for (size_t i = dropEnd; i < boundaries[next]; ++i)
            if (messages[i].role != ChatRole::system) dropped += estimatedBytes(messages[i]);
        dropEnd = boundaries[next];
    }

    Trimmed trimmed;
    for (size_t i = 0; i < messages.size(); ++i) {
        if (i >= boundaries[0] && i < dropEnd && messages[i].role != ChatRole::system) {
            ++trimmed.droppedMessages;
            continue;
        }
        trimmed.messages.push_back(messages[i]);
    }
    return trimmed;
}

}  // namespace aimwise::LocalContextFit
