#pragma once
// Stands in where no backend can exist (a hosted route with no address): every call fails with the
// same error, which says what to do about it.
#include "AimwiseCore/models/merl_proxy_error.h"
#include "AimwiseCore/models/model_backend.h"

namespace aimwise {

class UnavailableModelBackend : public ModelBackend {
public:
    explicit UnavailableModelBackend(MerlProxyError error) : error_(std::move(error)) {}

    ChatResponse chat(const std::vector<ChatMessage>&, const std::optional<std::vector<ToolSpec>>&,
                      const ChatOptions&) override {
        throw error_;
    }
    ChatResponse chatStream(const std::vector<ChatMessage>&, const std::optional<std::vector<ToolSpec>>&,
                            const ChatOptions&, const StreamDeltaHandler&) override {
        throw error_;
    }

    const MerlProxyError& error() const { return error_; }

private:
    MerlProxyError error_;
};

}  // namespace aimwise
