#pragma once
// A thinking model can fill its whole budget with reasoning and be cut off before it answers. Such
// a reply is asked for once more with thinking off; the first reply stays when the second fails.
#include <functional>
#include <memory>
#include <string>

#include "AimwiseCore/models/model_backend.h"

namespace aimwise {

class ThinkingOverflowRetryBackend : public ModelBackend {
public:
    using Log = std::function<void(const std::string& line)>;

    ThinkingOverflowRetryBackend(std::shared_ptr<ModelBackend> wrapped, std::string name, Log log)
        : wrapped_(std::move(wrapped)), name_(std::move(name)), log_(std::move(log)) {}

    ChatResponse chat(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                      const ChatOptions& options) override;
    ChatResponse chatStream(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                            const ChatOptions& options, const StreamDeltaHandler& onDelta) override;

private:
    using Call = std::function<ChatResponse(const ChatOptions& options)>;
    ChatResponse run(const ChatOptions& options, const Call& call, const std::function<void()>& beforeRetry);
    void emit(const std::string& line) const;

    std::shared_ptr<ModelBackend> wrapped_;
    std::string name_;
    Log log_;
};

}  // namespace aimwise
