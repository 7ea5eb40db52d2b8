#pragma once
// The paid coach's route: the online wire with headers of its own, through a hosted service that
// fills in the system's fixed prompts itself. Each call shows this computer's licence credential,
// sends placeholders in place of the fixed prompts, and is refused here, unsent, when it carries
// none of the prompts the service accepts.
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "AimwiseCore/models/http_session.h"
#include "AimwiseCore/models/license_credential_source.h"
#include "AimwiseCore/models/model_backend.h"
#include "AimwiseCore/models/openrouter_backend.h"
#include "AimwiseCore/models/proxy_config.h"
#include "AimwiseCore/models/request_conformance.h"
#include "AimwiseCore/models/server_prompt.h"
#include "AimwiseCore/models/sticky_provider_selector.h"

namespace aimwise {

class ProxyModelBackend : public ModelBackend {
public:
    using Log = std::function<void(const std::string& line)>;
    static constexpr const char* backendName = "proxy";

    struct Prepared {
        LicenseCredential credential;
        std::vector<ChatMessage> messages;
        ChatOptions options;
        // The id of the anchor prompt that admits the request.
        std::string kind;
    };

    ProxyModelBackend(ProxyConfig config, std::shared_ptr<LicenseCredentialSource> credentials,
                      std::shared_ptr<HTTPSession> session, std::optional<std::filesystem::path> dumpDirectory, Log log,
                      std::shared_ptr<StickyProviderSelector> providerSelector, ServerPromptCatalog catalog,
                      RequestConformance::Mode conformance = RequestConformance::mode(processEnvironment()));

    ChatResponse chat(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                      const ChatOptions& options) override;
    ChatResponse chatStream(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                            const ChatOptions& options, const StreamDeltaHandler& onDelta) override;

    // Throws MerlProxyError: licenseMissing without a credential, unsupportedRequest without an anchor.
    Prepared prepare(const std::vector<ChatMessage>& messages, const ChatOptions& options) const;
    // The online backend for one call, with the route's headers and error decoders.
    std::unique_ptr<OpenRouterBackend> transport(const Prepared& prepared, ChatTurn turn) const;
    static OpenRouterWireHooks hooks(const ProxyConfig& config, const LicenseCredential& credential, ChatTurn turn);

    const ProxyConfig& config() const { return config_; }

private:
    ProxyConfig config_;
    std::shared_ptr<LicenseCredentialSource> credentials_;
    std::shared_ptr<HTTPSession> session_;
    std::optional<std::filesystem::path> dumpDirectory_;
    Log log_;
    std::shared_ptr<StickyProviderSelector> providerSelector_;
    ServerPromptCatalog catalog_;
    RequestConformance::Mode conformance_;
};

}  // namespace aimwise
