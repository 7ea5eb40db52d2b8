#pragma once
// The one interface to any language model. Transports and decorators all implement it, so a caller
// never knows how deep the stack below it is.
#include <functional>
#include <optional>
#include <vector>

#include "AimwiseCore/models/chat_types.h"

namespace aimwise {

using StreamDeltaHandler = std::function<void(const ModelStreamDelta&)>;

class ModelBackend {
public:
    virtual ~ModelBackend() = default;

    // Both may block and throw ModelBackendError (or pass CancellationError through).
    virtual ChatResponse chat(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                              const ChatOptions& options) = 0;

    // For backends that cannot stream: the whole reply as one delta after `chat` returns.
    virtual ChatResponse chatStream(const std::vector<ChatMessage>& messages,
                                    const std::optional<std::vector<ToolSpec>>& tools, const ChatOptions& options,
                                    const StreamDeltaHandler& onDelta);
};

}  // namespace aimwise
