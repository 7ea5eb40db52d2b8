#pragma once
// The backend for a remote model behind an OpenAI-style chat-completions endpoint. It is the only
// code through which conversation text leaves the computer, so outbound redaction is enforced here.
// It owns the request body, the sticky choice of provider with one retry on another, the event
// stream, and the mapping of the router's failures. The hosted coach route reuses it whole through
// OpenRouterWireHooks.
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/models/chat_wire.h"
#include "AimwiseCore/models/http_session.h"
#include "AimwiseCore/models/model_backend.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "AimwiseCore/models/openrouter_request.h"
#include "AimwiseCore/models/outbound_redaction.h"
#include "AimwiseCore/models/request_conformance.h"
#include "AimwiseCore/models/sticky_provider_selector.h"
#include "CaptureShared/common/environment.h"
#include "CaptureShared/common/error.h"

namespace aimwise {

struct OpenRouterWireHooks {
    using ServiceErrorDecoder = std::function<std::exception_ptr(
        int status, const std::optional<std::string>& errorHeader, const std::string& body)>;
    using RouteDirectiveDecoder =
        std::function<std::exception_ptr(const std::optional<std::string>& routeHeader, const std::string& body)>;

    HTTPHeaders extraHeaders;
    // Turns the hosted route's own error replies into its errors; null for a reply it does not own.
    ServiceErrorDecoder decodeServiceError;
    // Turns a routing directive into the error that carries it; null when the reply holds none.
    RouteDirectiveDecoder decodeRouteDirective;
    // True only on the hosted route, which fills the placeholders itself.
    bool allowsServerPromptPlaceholders = false;
};

// A failure that blames the provider the call was pinned to.
class ProviderAttributedFailure : public Error {
public:
    ProviderAttributedFailure(ModelBackendError underlying, std::string provider, std::string reason)
        : Error(underlying.description()),
          underlying_(std::move(underlying)),
          provider_(std::move(provider)),
          reason_(std::move(reason)) {}
    const ModelBackendError& underlying() const { return underlying_; }
    const std::string& provider() const { return provider_; }
    const std::string& reason() const { return reason_; }

private:
    ModelBackendError underlying_;
    std::string provider_;
    std::string reason_;
};

class OpenRouterBackend : public ModelBackend {
public:
    using Log = std::function<void(const std::string& line)>;

    using StreamAccumulator = ChatStreamAccumulator;

    static constexpr const char* backendName = "openrouter";
    // Error bodies are read only this far.
    static constexpr size_t errorBodyLimit = 0x2000;

    OpenRouterBackend(OpenRouterConfig config, std::shared_ptr<HTTPSession> session,
                      std::optional<std::filesystem::path> dumpDirectory,
                      std::shared_ptr<StickyProviderSelector> providerSelector, Log log, OpenRouterWireHooks hooks = {},
                      RequestConformance::Mode conformance = RequestConformance::mode(processEnvironment()));

    ChatResponse chat(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                      const ChatOptions& options) override;
    ChatResponse chatStream(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                            const ChatOptions& options, const StreamDeltaHandler& onDelta) override;

    // The common reply parser. Throws ModelBackendError.
    static ChatResponse parseResponse(std::string_view body);
    // As much of `bytes` as fits under `limit`.
    static std::string drainErrorBody(std::string_view bytes, size_t limit);
    static OutboundRedaction::Result redactOutbound(const std::vector<ChatMessage>& messages);

    // The body exactly as it would be sent for already redacted messages. Throws ModelBackendError,
    // a conformance Violation or ServerPrompt::PlaceholderLeak.
    std::string prepare(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                        const ChatOptions& options, const std::optional<std::string>& pinned, bool stream) const;

    const OpenRouterConfig& config() const { return config_; }

private:
    using Attempt = std::function<ChatResponse(const std::optional<std::string>& pinned)>;

    std::vector<ChatMessage> redactingOutbound(const std::vector<ChatMessage>& messages) const;
    ChatResponse withStickyProvider(const ChatOptions& options, const Attempt& attempt);
    ChatResponse exchange(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                          const ChatOptions& options, const std::optional<std::string>& pinned,
                          const StreamDeltaHandler* onDelta);
    HTTPHeaders requestHeaders(bool stream) const;
    [[noreturn]] void raiseHTTPFailure(int status, const HTTPHeaders& headers, const std::string& drained,
                                       const std::optional<std::string>& pinned) const;
    [[noreturn]] void raiseProviderError(const ChatJSON& error, const std::optional<std::string>& pinned) const;
    std::string scoreNote(const std::string& provider) const;
    void emit(const std::string& line) const;

    OpenRouterConfig config_;
    std::shared_ptr<HTTPSession> session_;
    std::optional<std::filesystem::path> dumpDirectory_;
    std::shared_ptr<StickyProviderSelector> providerSelector_;
    Log log_;
    OpenRouterWireHooks hooks_;
    RequestConformance::Mode conformance_;
};

}  // namespace aimwise
