#pragma once
// A conversation's messages kept so that each request extends the last one's prefix: between
// rotations the stack only grows at the end, which is what a provider's prompt cache rewards.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/models/chat_types.h"

namespace aimwise {

struct PromptStack {
    std::vector<ChatMessage> stable;
    int64_t rotationIndex = 0;
    std::optional<std::string> lastRotationReason;

    // The system message, then `stable`, then `tail`.
    std::vector<ChatMessage> request(const ChatMessage& system, const std::vector<ChatMessage>& tail) const;
    void append(ChatMessage message);
    // Starts a new prefix: the only change that is not an append.
    void rotate(int64_t newIndex, std::string reason, std::vector<ChatMessage> messages);
};

// Window starts that move only by whole steps, so the head of a prompt stays put between polls.
namespace PromptWindowQuantization {
// `ms` rounded down to a whole multiple of `stepSec` seconds since the epoch; a step of zero or less
// leaves it as it is.
int64_t floor(int64_t ms, double stepSec);
// Seconds since the epoch divided by `stepSec`, truncated; milliseconds for a step of zero or less.
int64_t index(int64_t ms, double stepSec);
}  // namespace PromptWindowQuantization

}  // namespace aimwise
