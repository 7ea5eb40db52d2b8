#include "AimwiseCore/coach/prompt_stack.h"

#include <cmath>

namespace aimwise {

std::vector<ChatMessage> PromptStack::request(const ChatMessage& system, const std::vector<ChatMessage>& tail) const {
    std::vector<ChatMessage> messages;
    messages.reserve(1 + stable.size() + tail.size());
    messages.push_back(system);
    messages.insert(messages.end(), stable.begin(), stable.end());
    messages.insert(messages.end(), tail.begin(), tail.end());
    return messages;
}

void PromptStack::append(ChatMessage message) { stable.push_back(std::move(message)); }

void PromptStack::rotate(int64_t newIndex, std::string reason, std::vector<ChatMessage> messages) {
    stable = std::move(messages);
    rotationIndex = newIndex;
    lastRotationReason = std::move(reason);
}

namespace PromptWindowQuantization {

int64_t floor(int64_t ms, double stepSec) {
    if (stepSec <= 0) return ms;
    const double seconds = std::trunc(static_cast<double>(ms) / 1000.0 / stepSec) * stepSec;
    return static_cast<int64_t>(std::llround(seconds * 1000.0));
}

int64_t index(int64_t ms, double stepSec) {
    if (stepSec <= 0) return ms;
    return static_cast<int64_t>(std::trunc(static_cast<double>(ms) / 1000.0 / stepSec));
}

}  // namespace PromptWindowQuantization

}  // namespace aimwise
