#include "AimwiseCore/models/model_backend_factory.h"

#include "AimwiseCore/events/event_log_writer.h"
#include "AimwiseCore/models/endpoint_override_policy.h"
#include "AimwiseCore/models/fallback_model_backend.h"
#include "AimwiseCore/models/local_inference_endpoint.h"
#include "AimwiseCore/models/local_inference_wire.h"
#include "AimwiseCore/models/non_thinking_model_backend.h"
#include "AimwiseCore/models/offline_mode.h"
#include "AimwiseCore/models/openrouter_backend.h"
#include "AimwiseCore/models/proxy_model_backend.h"
#include "AimwiseCore/models/retrying_model_backend.h"
#include "AimwiseCore/models/thinking_overflow_retry_backend.h"
#include "AimwiseCore/models/unavailable_model_backend.h"
#include "CaptureShared/common/text.h"

namespace aimwise {

OnboardingBackendError::OnboardingBackendError(Kind kind)
    : Error("onboarding backend: no OPENROUTER_API_KEY configured"), kind_(kind) {}

namespace ModelBackendFactory {

namespace {

constexpr const char* endpointVar = "AIMCAP_MODEL_ENDPOINT";
constexpr const char* localName = LocalModelBackend::displayName;

std::string setting(const Environment& environment, const std::string& key) {
    return trimWhitespaceAndNewlines(lookup(environment, key).value_or(""));
}

std::string firstSetting(const Environment& environment, std::initializer_list<const char*> keys,
                         const std::string& otherwise) {
    for (const char* key : keys)
        if (std::string value = setting(environment, key); !value.empty()) return value;
    return otherwise;
}

void emit(const Log& log, const std::string& line) {
    if (log) log(line);
}

std::vector<std::string> providerOrder(const Environment& environment) {
    std::vector<std::string> providers;
    const std::string text = setting(environment, "AIMCAP_MODEL_PROVIDER");
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        if (comma == std::string::npos) comma = text.size();
        std::string provider = trimWhitespaceAndNewlines(std::string_view(text).substr(start, comma - start));
        if (!provider.empty()) providers.push_back(std::move(provider));
        start = comma + 1;
    }
    return providers;
}

std::string apiKey(const Environment& environment) { return setting(environment, "OPENROUTER_API_KEY"); }

EndpointURL localChatURL(const Environment& environment) {
    try {
        return LocalInferenceWire::chatCompletionsURL(LocalInferenceEndpoint::resolveOrThrow(environment));
    } catch (const LocalInferenceEndpoint::ResolutionError& error) {
        throw ModelBackendConfigurationError(error.description());
    }
}

bool isLocalDestination(const EndpointURL& url) {
    return url.isUnixSocket() || (url.scheme == "http" && url.host == "127.0.0.1");
}

// The override of AIMCAP_MODEL_ENDPOINT when it may be used; a refusal is logged and the fixed
// address stays. A local primary takes only an address on this computer's model server.
std::optional<EndpointURL> endpointOverride(const Environment& environment, bool local, const std::string& fixed,
                                            const Log& log) {
    const std::string value = setting(environment, endpointVar);
    if (value.empty()) return std::nullopt;
    const auto decision = EndpointOverridePolicy::validatedOverride(endpointVar, value);
    std::string refusal;
    if (const auto* refused = std::get_if<EndpointOverridePolicy::Refused>(&decision))
        refusal = refused->description;
    else if (local && !isLocalDestination(std::get<EndpointURL>(decision)))
        refusal = std::string(endpointVar) + "=" + value +
                  " ignored: the local model is reached only on 127.0.0.1 or its unix socket";
    if (!refusal.empty()) {
        emit(log, "model backend: " + refusal + "; keeping " + fixed);
        return std::nullopt;
    }
    return EndpointOverridePolicy::chatCompletionsURL(std::get<EndpointURL>(decision));
}

OpenRouterConfig onlineConfig(const Environment& environment, const Log& log,
                              const std::optional<std::vector<std::string>>& providerSlugs) {
    OpenRouterConfig config;
    config.endpoint = endpointOverride(environment, false, openRouterEndpoint, log)
                          .value_or(*EndpointURL::parse(openRouterEndpoint));
    config.model = firstSetting(environment, {"AIMCAP_MODEL"}, defaultRemoteModel);
    config.apiKey = apiKey(environment);
    config.reasoningEffort = firstSetting(environment, {"AIMCAP_REASONING_EFFORT"}, defaultReasoningEffort);
    config.timeoutSec = remoteTimeoutSec;
    // Until measurements exist, the observed ranking is the configured order itself.
    config.providerOrder = providerOrder(environment);
    config.acceptableProviders = providerSlugs;
    return config;
}

std::shared_ptr<ModelBackend> openRouterBackend(OpenRouterConfig config, const Environment& environment,
                                                const Log& log, const DumpDirectory& dumpDirectory,
                                                const Services& services) {
    return std::make_shared<OpenRouterBackend>(std::move(config), services.session, dumpDirectory,
                                               services.providerSelector, log, OpenRouterWireHooks{},
                                               RequestConformance::mode(environment));
}

std::shared_ptr<ModelBackend> withLocalFallback(std::shared_ptr<ModelBackend> primary, const std::string& primaryName,
                                                const Environment& environment, const Log& log,
                                                const DumpDirectory& dumpDirectory, const Services& services) {
    auto fallback = coachLocalBackend(fallbackLocalConfig(environment), dumpDirectory, log, services);
    return std::make_shared<FallbackModelBackend>(std::move(primary), std::move(fallback), primaryName, localName,
                                                  FallbackModelBackend::Options{reachabilityCooldownSec},
                                                  *services.clock, log);
}

std::optional<ProxyConfig> proxyConfig(const Environment& environment, const Log& log,
                                       const std::optional<std::vector<std::string>>& providerSlugs) {
    if (auto refusal = ProxyConfig::overrideRefusal(environment)) emit(log, "model backend: " + *refusal);
    std::optional<EndpointURL> base = ProxyConfig::resolveBaseURL(environment);
    if (!base) return std::nullopt;
    ProxyConfig config;
    config.baseURL = *base;
    config.model = firstSetting(environment, {"AIMCAP_MODEL"}, defaultRemoteModel);
    config.reasoningEffort = firstSetting(environment, {"AIMCAP_REASONING_EFFORT"}, defaultReasoningEffort);
    config.timeoutSec = remoteTimeoutSec;
    config.providerOrder = providerOrder(environment);
    config.acceptableProviders = providerSlugs;
    config.appVersion = EventLogWriter::defaultBuildVersion();
    if (std::string build = setting(environment, "AIMCAP_BUILD_VERSION"); !build.empty()) config.buildVersion = build;
    config.promptSetID = defaultPromptSetID;
    return config;
}

std::shared_ptr<ModelBackend> proxyBackend(const Environment& environment, const Log& log,
                                           const DumpDirectory& dumpDirectory,
                                           const std::optional<std::vector<std::string>>& providerSlugs,
                                           const Services& services) {
    std::optional<ProxyConfig> config = proxyConfig(environment, log, providerSlugs);
    if (!config) {
        emit(log, "model backend: proxy selected but no usable AIMCAP_PROXY_URL and no compiled-in URL");
        return std::make_shared<UnavailableModelBackend>(MerlProxyError::proxyNotConfigured());
    }
    ServerPromptCatalog catalog = ServerPromptCatalog::registered(config->promptSetID);
    return std::make_shared<ProxyModelBackend>(std::move(*config), services.credentials, services.session,
                                               dumpDirectory, log, services.providerSelector, std::move(catalog),
                                               RequestConformance::mode(environment));
}

// The local model that consolidation leads with: the coach's own when the coach runs locally,
// otherwise the local fallback's.
LocalModelConfig consolidationLocalConfig(const Environment& environment, const Log& log) {
    LocalModelConfig config =
        coachPrimaryIsLocal(environment) ? primaryLocalConfig(environment, log) : fallbackLocalConfig(environment);
    config.timeoutSec = localConsolidationTimeoutSec;
    return config;
}

}  // namespace

Services Services::process() {
    return Services{&Clock::system(), std::make_shared<HTTPSession>(), StickyProviderSelector::shared(),
                    std::make_shared<FileLicenseCredentialSource>(FileLicenseCredentialSource::defaultPath())};
}

std::string backendName(const Environment& environment) {
    const std::string value = setting(environment, "AIMCAP_MODEL_BACKEND");
    return value.empty() || value == "local" ? "ollama" : value;
}

bool fallbackEnabled(const Environment& environment) {
    const std::string value = setting(environment, "AIMCAP_MODEL_FALLBACK");
    return value != "0" && value != "false" && value != "off";
}

bool coachPrimaryIsLocal(const Environment& environment) {
    return OfflineMode::isEnabled(environment) || backendName(environment) == "ollama";
}

bool selectsDeepSeek(const Environment& environment) {
    if (coachPrimaryIsLocal(environment)) return false;
    const std::string name = backendName(environment);
    return (name == "openrouter" || name == "proxy") &&
           firstSetting(environment, {"AIMCAP_MODEL"}, defaultRemoteModel).starts_with("deepseek/");
}

bool isLocallyServed(const std::optional<std::string>& servedBy, const Environment& environment) {
    if (servedBy) return *servedBy == localName;
    return coachPrimaryIsLocal(environment);
}

bool proxyWithoutFallback(const Environment& environment) {
    return !OfflineMode::isEnabled(environment) && backendName(environment) == "proxy" &&
           !fallbackEnabled(environment);
}

std::vector<std::string> coachDriverRequiredConfigKeys(const Environment& environment,
                                                       const std::optional<std::string>& productionBaseURL) {
    if (OfflineMode::isEnabled(environment)) return {};
    const std::string name = backendName(environment);
    if (name == "openrouter") return {"OPENROUTER_API_KEY"};
    if (name == "proxy" && (!productionBaseURL || productionBaseURL->empty()) && ProxyConfig::compiledInOrigin().empty())
        return {ProxyConfig::envVar};
    return {};
}

LocalModelConfig primaryLocalConfig(const Environment& environment, const Log& log) {
    LocalModelConfig config;
    config.model = firstSetting(environment, {"AIMCAP_MODEL", "AIMCHECK_MODEL"}, defaultLocalModel);
    const EndpointURL fixed = localChatURL(environment);
    config.endpoint = endpointOverride(environment, true, fixed.string(), log).value_or(fixed);
    config.timeoutSec = localCoachTimeoutSec;
    return config;
}

LocalModelConfig fallbackLocalConfig(const Environment& environment) {
    return LocalModelConfig{localChatURL(environment),
                            firstSetting(environment, {"AIMCAP_FALLBACK_MODEL", "AIMCHECK_MODEL"}, defaultLocalModel),
                            localCoachTimeoutSec};
}

LocalModelConfig localCheckLocalConfig(const Environment& environment) {
    return LocalModelConfig{
        localChatURL(environment),
        firstSetting(environment, {"AIMCAP_LOCAL_CHECK_MODEL", "AIMCHECK_MODEL"}, defaultLocalModel),
        localCheckTimeoutSec};
}

std::shared_ptr<ModelBackend> coachLocalBackend(const LocalModelConfig& config, const DumpDirectory& dumpDirectory,
                                                const Log& log, const Services& services) {
    return std::make_shared<NonThinkingModelBackend>(
        std::make_shared<LocalModelBackend>(config, services.session, dumpDirectory, log));
}

std::shared_ptr<ModelBackend> fromEnvironment(const Environment& environment, const Log& log,
                                              const DumpDirectory& dumpDirectory,
                                              const std::optional<std::filesystem::path>&,
                                              const std::optional<std::vector<std::string>>& providerSlugs,
                                              const Services& services) {
    if (OfflineMode::isEnabled(environment)) {
        emit(log,
             "model backend: offline mode is on -- local model only; AIMCAP_MODEL_BACKEND, OPENROUTER_API_KEY and "
             "AIMCAP_MODEL_FALLBACK are all ignored");
        return coachLocalBackend(primaryLocalConfig(environment, log), dumpDirectory, log, services);
    }
    const std::string name = backendName(environment);
    if (name == "ollama") return coachLocalBackend(primaryLocalConfig(environment, log), dumpDirectory, log, services);
    if (name == "openrouter") {
        if (apiKey(environment).empty())
            throw ModelBackendConfigurationError(
                "AIMCAP_MODEL_BACKEND=openrouter but OPENROUTER_API_KEY is not set — refusing to start rather than "
                "silently falling back to the local model.");
        auto primary = openRouterBackend(onlineConfig(environment, log, providerSlugs), environment, log,
                                         dumpDirectory, services);
        if (!fallbackEnabled(environment)) return primary;
        return withLocalFallback(std::move(primary), OpenRouterBackend::backendName, environment, log, dumpDirectory,
                                 services);
    }
    if (name == "proxy") {
        auto proxy = proxyBackend(environment, log, dumpDirectory, providerSlugs, services);
        if (!fallbackEnabled(environment) || dynamic_cast<UnavailableModelBackend*>(proxy.get())) return proxy;
        return withLocalFallback(std::move(proxy), ProxyModelBackend::backendName, environment, log, dumpDirectory,
                                 services);
    }
    throw ModelBackendConfigurationError("AIMCAP_MODEL_BACKEND=\"" + name +
                                         "\" is not a recognized backend (expected \"ollama\", \"openrouter\" or "
                                         "\"proxy\").");
}

std::shared_ptr<ModelBackend> forConsolidation(const Environment& environment,
                                               std::function<bool()> shouldKeepWaiting, const Log& log,
                                               const DumpDirectory& dumpDirectory, const Services& services) {
    const LocalModelConfig local = consolidationLocalConfig(environment, log);
    std::shared_ptr<ModelBackend> stack = std::make_shared<ThinkingOverflowRetryBackend>(
        std::make_shared<RetryingModelBackend>(
            std::make_shared<LocalModelBackend>(local, services.session, dumpDirectory, log), localName,
            consolidationRetryAttempts, consolidationBackoffSeconds, std::move(shouldKeepWaiting), *services.clock,
            log),
        localName, log);
    const std::string lead = "consolidation backend: local (" + local.model + ")";
    if (OfflineMode::isEnabled(environment)) {
        emit(log, lead + ", no remote fallback (offline mode is on)");
        return stack;
    }
    if (!fallbackEnabled(environment)) {
        emit(log, lead + ", no remote fallback (AIMCAP_MODEL_FALLBACK disables it)");
        return stack;
    }
    const FallbackModelBackend::Options options{reachabilityCooldownSec};
    if (backendName(environment) == "proxy") {
        auto proxy = proxyBackend(environment, log, dumpDirectory, std::nullopt, services);
        emit(log, lead + " primary, retried; proxy fallback");
        return std::make_shared<FallbackModelBackend>(std::move(stack), std::move(proxy), localName,
                                                      ProxyModelBackend::backendName, options, *services.clock, log);
    }
    if (!apiKey(environment).empty()) {
        OpenRouterConfig remote = onlineConfig(environment, log, std::nullopt);
        remote.model = defaultRemoteModel;
        emit(log, lead + " primary, retried; openrouter (" + remote.model + ") fallback");
        return std::make_shared<FallbackModelBackend>(
            std::move(stack), openRouterBackend(std::move(remote), environment, log, dumpDirectory, services),
            localName, OpenRouterBackend::backendName, options, *services.clock, log);
    }
    emit(log, lead + ", no remote fallback (no OPENROUTER_API_KEY, or AIMCAP_MODEL_FALLBACK disables it)");
    return stack;
}

std::shared_ptr<ModelBackend> forOnboarding(bool forceLocalOnly, const Environment& environment, const Log& log,
                                            const DumpDirectory& dumpDirectory, const Services& services) {
    if (forceLocalOnly) {
        emit(log, "onboarding backend: local model (local-only was chosen)");
        return coachLocalBackend(fallbackLocalConfig(environment), dumpDirectory, log, services);
    }
    if (apiKey(environment).empty()) {
        emit(log,
             "onboarding backend: no OPENROUTER_API_KEY -- refusing to silently fall back to the local model "
             "(onboarding must never run on the local model, #770)");
        throw OnboardingBackendError(OnboardingBackendError::Kind::noAPIKey);
    }
    OpenRouterConfig config = onlineConfig(environment, log, std::nullopt);
    emit(log, "onboarding backend: openrouter (" + config.model + ")");
    return openRouterBackend(std::move(config), environment, log, dumpDirectory, services);
}

std::shared_ptr<LocalModelBackend> localCheckBackend(const Environment& environment,
                                                     const DumpDirectory& dumpDirectory, const Services& services) {
    return std::make_shared<LocalModelBackend>(localCheckLocalConfig(environment), services.session, dumpDirectory,
                                               LocalModelBackend::Log{}, RequestConformance::mode(environment));
}

std::string describeSelection(const Environment& environment,
                              const std::optional<std::filesystem::path>& usageLogURL, const Log& log) {
    const std::string usage = usageLogURL ? "; turn usage recorded in " + usageLogURL->string() : "";
    const auto localStack = [&](const std::string& why) {
        const LocalModelConfig config = primaryLocalConfig(environment, log);
        return "model backend: the local model (" + config.model + " at " + config.endpoint.string() + ", thinking off) -- " +
               why;
    };
    const auto fallbackNote = [&] {
        if (!fallbackEnabled(environment))
            return std::string("; no local fallback (AIMCAP_MODEL_FALLBACK=") +
                   setting(environment, "AIMCAP_MODEL_FALLBACK") + ")";
        return "; the local model (" + fallbackLocalConfig(environment).model + ") answers when it is unreachable, " +
               "then for " + std::to_string(int(reachabilityCooldownSec)) + "s before it is tried again";
    };
    if (OfflineMode::isEnabled(environment))
        return localStack(
            "offline mode is on (AIMCAP_OFFLINE_MODE=1); AIMCAP_MODEL_BACKEND, OPENROUTER_API_KEY and "
            "AIMCAP_MODEL_FALLBACK are ignored");
    const std::string name = backendName(environment);
    if (name == "ollama")
        return localStack("AIMCAP_MODEL_BACKEND is " +
                          (setting(environment, "AIMCAP_MODEL_BACKEND").empty()
                               ? std::string("not set")
                               : "\"" + setting(environment, "AIMCAP_MODEL_BACKEND") + "\""));
    if (name == "openrouter") {
        if (apiKey(environment).empty())
            return "model backend: openrouter is selected but OPENROUTER_API_KEY is not set -- the coach refuses to "
                   "start rather than silently falling back to the local model";
        const OpenRouterConfig config = onlineConfig(environment, log, std::nullopt);
        const std::string providers = config.providerOrder.empty()
                                          ? "the router chooses the provider"
                                          : "providers " + join(config.providerOrder, " < ") +
                                                " (AIMCAP_MODEL_PROVIDER), one kept per model until it fails";
        return "model backend: openrouter (" + config.model + ", reasoning effort " + *config.reasoningEffort +
               ") at " + config.endpoint.string() + "; " + providers + "; conversation text is redacted before it " +
               "leaves this computer" + fallbackNote() + usage;
    }
    if (name == "proxy") {
        const std::optional<ProxyConfig> config = proxyConfig(environment, log, std::nullopt);
        if (!config)
            return "model backend: proxy selected but no usable AIMCAP_PROXY_URL and no compiled-in URL -- every "
                   "coach call fails until one is set (set AIMCAP_PROXY_URL)";
        return "model backend: proxy (" + config->model + ") at " + config->baseURL.string() + ", prompt set " +
               config->promptSetID + fallbackNote() + usage;
    }
    return "model backend: AIMCAP_MODEL_BACKEND=\"" + name +
           "\" is not a recognized backend (expected \"ollama\", \"openrouter\" or \"proxy\") -- the coach refuses "
           "to start";
}

}  // namespace ModelBackendFactory
}  // namespace aimwise
