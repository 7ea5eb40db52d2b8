#pragma once
// The backend for the model server on this machine. Nothing sent through it leaves the machine,
// which is why it carries neither redaction nor provider routing.
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "AimwiseCore/models/chat_json.h"
#include "AimwiseCore/models/endpoint_url.h"
#include "AimwiseCore/models/http_session.h"
#include "AimwiseCore/models/local_inference_wire.h"
#include "AimwiseCore/models/model_backend.h"
#include "AimwiseCore/models/request_conformance.h"
#include "CaptureShared/common/environment.h"

namespace aimwise {

struct LocalModelConfig {
    // The full chat-completions URL.
    EndpointURL endpoint;
    std::string model;
    double timeoutSec = 120.0;
};

class LocalModelBackend : public ModelBackend {
public:
    using Log = std::function<void(const std::string& line)>;

    static constexpr const char* backendName = "local";
    static constexpr const char* displayName = "the local model";

    LocalModelBackend(LocalModelConfig config, std::shared_ptr<HTTPSession> session,
                      std::optional<std::filesystem::path> dumpDirectory, Log log,
                      RequestConformance::Mode conformance = RequestConformance::mode(processEnvironment()));

    ChatResponse chat(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                      const ChatOptions& options) override;
    ChatResponse chatStream(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                            const ChatOptions& options, const StreamDeltaHandler& onDelta) override;

    // The request body as the server will get it. Throws ModelBackendError, a conformance Violation, or
    // ServerPrompt::PlaceholderLeak for a prompt meant for the hosted route.
    std::string prepare(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                        const ChatOptions& options, bool stream) const;
    static ChatJSON buildRequestBody(const std::vector<ChatMessage>& messages,
                                     const std::optional<std::vector<ToolSpec>>& tools, const ChatOptions& options,
                                     const LocalModelConfig& config);
    // Strips what a local reply must not claim: usage, provenance beyond the finish reason, reasoning details.
    static ChatResponse localOnly(ChatResponse response);

    const LocalModelConfig& config() const { return config_; }
    // The server's context size once it is known (from an overflow error or from /props).
    std::optional<int64_t> cachedContextSize() const;
    void setClockForTesting(const Clock& clock) { clock_ = &clock; }

private:
    using Attempt = std::function<ChatResponse(const std::vector<ChatMessage>& messages)>;
    ChatResponse withContextFit(const std::vector<ChatMessage>& messages, const ChatOptions& options,
                                const Attempt& attempt);
    ChatResponse chatOnce(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                          const ChatOptions& options);
    ChatResponse streamOnce(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                            const ChatOptions& options, const StreamDeltaHandler& onDelta);
    HTTPRequest chatRequest(std::string body, bool stream) const;
    std::optional<int64_t> contextSize(std::optional<int64_t> reported);
    void emit(const std::string& line) const;

    LocalModelConfig config_;
    std::shared_ptr<HTTPSession> session_;
    std::optional<std::filesystem::path> dumpDirectory_;
    Log log_;
    RequestConformance::Mode conformance_;
    const Clock* clock_ = &Clock::system();

    mutable std::mutex contextMutex_;
    std::optional<int64_t> contextCache_;
};

}  // namespace aimwise
