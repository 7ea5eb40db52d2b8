#include "AimwiseCore/models/proxy_model_backend.h"

#include "AimwiseCore/models/merl_proxy_error.h"
#include "AimwiseCore/models/merl_route_directive.h"

namespace aimwise {

ProxyModelBackend::ProxyModelBackend(ProxyConfig config, std::shared_ptr<LicenseCredentialSource> credentials,
                                     std::shared_ptr<HTTPSession> session,
                                     std::optional<std::filesystem::path> dumpDirectory, Log log,
                                     std::shared_ptr<StickyProviderSelector> providerSelector,
                                     ServerPromptCatalog catalog, RequestConformance::Mode conformance)
    : config_(std::move(config)),
      credentials_(std::move(credentials)),
      session_(session ? std::move(session) : std::make_shared<HTTPSession>()),
      dumpDirectory_(std::move(dumpDirectory)),
      log_(std::move(log)),
      providerSelector_(providerSelector ? std::move(providerSelector) : std::make_shared<StickyProviderSelector>()),
      catalog_(std::move(catalog)),
      conformance_(conformance) {}

ProxyModelBackend::Prepared ProxyModelBackend::prepare(const std::vector<ChatMessage>& messages,
                                                       const ChatOptions& options) const {
    if (!credentials_) throw MerlProxyError::licenseMissing("this build has no licence credential source");
    LicenseCredential credential = credentials_->credential();
    ServerPromptCatalog::Rewritten rewritten = catalog_.rewrite(messages);
    if (rewritten.anchors.empty())
        throw MerlProxyError::unsupportedRequest(
            "this request carries none of the proxy's anchor prompts (layer 3, the gate, or consolidation). It was "
            "refused here; nothing was sent.");
    return Prepared{std::move(credential), std::move(rewritten.messages), options, rewritten.anchors.front()};
}

OpenRouterWireHooks ProxyModelBackend::hooks(const ProxyConfig& config, const LicenseCredential& credential,
                                             ChatTurn turn) {
    OpenRouterWireHooks hooks;
    hooks.extraHeaders = {{"X-Merl-Instance", credential.instance},
                          {"X-Merl-App-Version", config.appVersion},
                          {"X-Merl-Prompt-Set", config.promptSetID},
                          {"X-Merl-Turn", std::string(rawValue(turn))}};
    if (config.buildVersion) hooks.extraHeaders.emplace_back("X-Merl-Build", *config.buildVersion);
    hooks.decodeServiceError = [](int status, const std::optional<std::string>& errorHeader,
                                  const std::string& body) -> std::exception_ptr {
        if (!errorHeader) return nullptr;
        return std::make_exception_ptr(MerlProxyError::decode(status, errorHeader, body));
    };
    hooks.decodeRouteDirective = [](const std::optional<std::string>& route,
                                    const std::string& body) -> std::exception_ptr {
        if (auto directive = MerlRouteDirective::decode(route, body)) return std::make_exception_ptr(*directive);
        return nullptr;
    };
    hooks.allowsServerPromptPlaceholders = true;
    return hooks;
}

std::unique_ptr<OpenRouterBackend> ProxyModelBackend::transport(const Prepared& prepared, ChatTurn turn) const {
    OpenRouterConfig wire;
    wire.endpoint = config_.baseURL.appendingPath("v1/chat/completions");
    wire.model = config_.model;
    wire.apiKey = prepared.credential.secret;
    wire.reasoningEffort = config_.reasoningEffort;
    wire.timeoutSec = config_.timeoutSec;
    wire.providerOrder = config_.providerOrder;
    wire.acceptableProviders = config_.acceptableProviders;
    return std::make_unique<OpenRouterBackend>(std::move(wire), session_, dumpDirectory_, providerSelector_, log_,
                                               hooks(config_, prepared.credential, turn), conformance_);
}

ChatResponse ProxyModelBackend::chat(const std::vector<ChatMessage>& messages,
                                     const std::optional<std::vector<ToolSpec>>& tools, const ChatOptions& options) {
    const Prepared prepared = prepare(messages, options);
    return transport(prepared, options.turn)->chat(prepared.messages, tools, prepared.options);
}

ChatResponse ProxyModelBackend::chatStream(const std::vector<ChatMessage>& messages,
                                           const std::optional<std::vector<ToolSpec>>& tools,
                                           const ChatOptions& options, const StreamDeltaHandler& onDelta) {
    const Prepared prepared = prepare(messages, options);
    return transport(prepared, options.turn)->chatStream(prepared.messages, tools, prepared.options, onDelta);
}

}  // namespace aimwise
