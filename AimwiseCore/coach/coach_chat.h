#pragma once
// The conversation the person opens themselves. It keeps its messages for as long as it is open and
// offers one tool, writing down what they mean to do; whether a proposed write is recorded is the
// caller's business, so that the person can see it first.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/models/model_backend.h"

namespace aimwise {

struct ProposedWrite {
    std::string notes;
    std::optional<int64_t> horizonMinutes;
    bool operator==(const ProposedWrite&) const = default;
};

struct CoachTurn {
    std::string assistantText;  // what the person reads; empty when the coach said nothing usable
    std::string thinking;
    bool truncated = false;
    std::optional<ProposedWrite> proposedWrite;
    std::optional<std::string> malformedWriteReason;
    bool operator==(const CoachTurn&) const = default;
};

struct CoachContext {
    std::optional<std::string> declaredTask;
    std::optional<int64_t> estimateMinutes;
    bool operator==(const CoachContext&) const = default;
};

class CoachChat {
public:
    // `system` is the direct-conversation prompt (CoachPrompt::system). The backend must outlive this.
    CoachChat(ModelBackend& backend, CoachContext context, ChatOptions options, std::string system);

    // The person's words in, the coach's turn out. A reply that only called the tool owes them words,
    // so the model is asked once more, without tools, with the call's result. Throws what the backend
    // throws (ModelBackendError); the conversation then stays as it was before the call.
    CoachTurn send(const std::string& text);

    // "COACH CONTEXT", then `declared_task` and `estimate_minutes` when known.
    static std::string contextText(const CoachContext& context);

    const std::vector<ChatMessage>& messages() const { return messages_; }
    const CoachContext& context() const { return context_; }
    void setContext(CoachContext context) { context_ = std::move(context); }

private:
    std::vector<ChatMessage> request(const std::vector<ChatMessage>& conversation) const;

    ModelBackend& backend_;
    CoachContext context_;
    ChatOptions options_;
    std::string system_;
    std::vector<ChatMessage> messages_;
};

}  // namespace aimwise
