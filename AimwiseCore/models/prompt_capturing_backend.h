#pragma once
// A backend that sends nothing: it keeps every request it is handed and answers with replies given
// in advance. It is how the exact prompts a caller builds are taken out of it (to list the hosted
// route's fixed prompts, or to check what a caller would send) without any model.
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "AimwiseCore/models/model_backend.h"

namespace aimwise {

class PromptCapturingBackend : public ModelBackend {
public:
    struct Captured {
        std::vector<ChatMessage> messages;
        std::optional<std::vector<ToolSpec>> tools;
        ChatOptions options;
        bool streamed = false;
    };

    // Replies are used in order; when they run out, the last one repeats (an empty reply if none).
    explicit PromptCapturingBackend(std::vector<ChatResponse> replies = {}) : replies_(replies.begin(), replies.end()) {}

    ChatResponse chat(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                      const ChatOptions& options) override {
        return capture({messages, tools, options, false});
    }
    ChatResponse chatStream(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                            const ChatOptions& options, const StreamDeltaHandler& onDelta) override {
        ChatResponse reply = capture({messages, tools, options, true});
        if (onDelta) onDelta(ModelStreamDelta{reply.text, reply.thinking, false, false});
        return reply;
    }

    std::vector<Captured> captured() const {
        std::lock_guard lock(mutex_);
        return captured_;
    }

private:
    ChatResponse capture(Captured call) {
        std::lock_guard lock(mutex_);
        captured_.push_back(std::move(call));
        if (replies_.size() > 1) {
            ChatResponse reply = std::move(replies_.front());
            replies_.pop_front();
            return reply;
        }
        return replies_.empty() ? ChatResponse{} : replies_.front();
    }

    mutable std::mutex mutex_;
    std::deque<ChatResponse> replies_;
    std::vector<Captured> captured_;
};

}  // namespace aimwise
