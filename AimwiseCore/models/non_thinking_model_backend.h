#pragma once
// Forces thinking off: the coach never waits for a local model's reasoning trace.
#include <memory>

#include "AimwiseCore/models/model_backend.h"

namespace aimwise {

class NonThinkingModelBackend : public ModelBackend {
public:
    explicit NonThinkingModelBackend(std::shared_ptr<ModelBackend> wrapped) : wrapped_(std::move(wrapped)) {}

    ChatResponse chat(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                      const ChatOptions& options) override {
        return wrapped_->chat(messages, tools, withoutThinking(options));
    }
    ChatResponse chatStream(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                            const ChatOptions& options, const StreamDeltaHandler& onDelta) override {
        return wrapped_->chatStream(messages, tools, withoutThinking(options), onDelta);
    }

    const std::shared_ptr<ModelBackend>& wrapped() const { return wrapped_; }

private:
    static ChatOptions withoutThinking(ChatOptions options) {
        options.think = false;
        return options;
    }
    std::shared_ptr<ModelBackend> wrapped_;
};

}  // namespace aimwise
