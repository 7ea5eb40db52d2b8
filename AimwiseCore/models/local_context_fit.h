#pragma once
// What the local backend does when a conversation no longer fits the server's context.
//
// The server answers such a request with HTTP 400 and an error of type "exceed_context_size_error"
// carrying the prompt's and the context's token counts. The fit then drops the oldest whole turns
// (a user message and everything up to the next one) that are not system messages, sized by those
// counts, and tries again, at most maxRetries times. System messages and the latest turn are never
// dropped, and a tool result never loses the call it answers. When nothing more can go, the
// server's error stands. Nothing is counted in advance: the server is the only judge of its context.
#include <cstdint>
#include <optional>
#include <vector>

#include "AimwiseCore/models/chat_types.h"
#include "AimwiseCore/models/model_backend_error.h"

namespace aimwise {

namespace LocalContextFit {

inline constexpr int maxRetries = 3;
// Only this share of the context is aimed at, because the byte-to-token estimate is rough.
inline constexpr double targetShare = 0.85;

struct Overflow {
    std::optional<int64_t> promptTokens;
    std::optional<int64_t> contextTokens;
};

// The overflow an error reports, or nothing when it is some other error. Matched on the error's
// type and numbers, never on its message, which differs between server builds.
std::optional<Overflow> overflow(const ModelBackendError& error);

struct Trimmed {
    std::vector<ChatMessage> messages;
    size_t droppedMessages = 0;
};

// The conversation with enough of its oldest turns gone that an estimate of its prompt fits
// `contextTokens` less the reply budget; at least one turn goes. Nothing when no turn can go.
std::optional<Trimmed> dropOldestTurns(const std::vector<ChatMessage>& messages, const Overflow& overflow,
                                       std::optional<int64_t> contextTokens, int64_t maxTokens);

}  // namespace LocalContextFit
}  // namespace aimwise
