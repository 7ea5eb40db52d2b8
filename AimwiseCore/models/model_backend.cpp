#include "AimwiseCore/models/model_backend.h"

namespace aimwise {

ChatResponse ModelBackend::chatStream(const std::vector<ChatMessage>& messages,
                                      const std::optional<std::vector<ToolSpec>>& tools, const ChatOptions& options,
                                      const StreamDeltaHandler& onDelta) {
    ChatResponse response = chat(messages, tools, options);
    if (onDelta) onDelta(ModelStreamDelta{response.text, response.thinking, false, false});
    return response;
}

}  // namespace aimwise
