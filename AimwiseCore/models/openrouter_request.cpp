#include "AimwiseCore/models/openrouter_request.h"

#include <algorithm>
#include <charconv>

#include "AimwiseCore/models/chat_wire.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise::OpenRouterRequest {

namespace {

bool contains(const std::vector<std::string>& list, const std::string& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

ChatJSON stringArray(const std::vector<std::string>& values) {
    ChatJSON out = ChatJSON::array();
    for (const std::string& value : values) out.push_back(value);
    return out;
}

ChatJSON cachedText(const std::string& text) {
    return ChatJSON::array({ChatJSON{{"type", "text"},
                                     {"text", text},
                                     {"cache_control", ChatJSON{{"type", "ephemeral"}, {"ttl", "1h"}}}}});
}

}  // namespace

const std::vector<std::string>& schemaApprovedProviders() {
    static const std::vector<std::string> approved{"deepinfra", "fireworks", "together"};
    return approved;
}

std::vector<std::string> schemaBearingPool(const std::vector<std::string>& providers) {
    if (providers.empty()) return schemaApprovedProviders();
    std::vector<std::string> out;
    for (const std::string& provider : providers)
        if (contains(schemaApprovedProviders(), provider)) out.push_back(provider);
    return out;
}

std::vector<std::string> configuredPool(const OpenRouterConfig& config) {
    return config.acceptableProviders ? *config.acceptableProviders : config.providerOrder;
}

std::vector<std::string> stickyPool(const ChatOptions& options, const OpenRouterConfig& config) {
    std::vector<std::string> pool;
    for (const std::string& provider : config.providerOrder)
        if ((!config.acceptableProviders || contains(*config.acceptableProviders, provider)) && !contains(pool, provider))
            pool.push_back(provider);
    if (config.acceptableProviders)
        for (const std::string& provider : *config.acceptableProviders)
            if (!contains(pool, provider)) pool.push_back(provider);
    if (pool.empty() || !options.responseSchemaJSON) return pool;
    return schemaBearingPool(pool);
}

void validateSchemaBearingRouting(const ChatOptions& options, const OpenRouterConfig& config) {
    if (!options.responseSchemaJSON) return;
    const std::vector<std::string> pool = configuredPool(config);
    if (pool.empty() || !schemaBearingPool(pool).empty()) return;
    std::vector<std::string> approved = schemaApprovedProviders();
    std::sort(approved.begin(), approved.end());
    throw ModelBackendError::invalidResponse(
        "schema-bearing call has no approved provider: the configured pool [" + join(pool, ", ") +
        "] contains none of " + join(approved, ", ") +
        ". Refusing to send rather than routing a response_format request to a provider measured to stop "
        "reasoning under schema (#398). Unset AIMCAP_MODEL_PROVIDER or pin an approved provider.");
}

std::optional<ChatJSON> providerObject(const ChatOptions& options, const OpenRouterConfig& config,
                                       const std::optional<std::string>& pinned) {
    if (pinned)
        return ChatJSON{{"only", ChatJSON::array({*pinned})}, {"allow_fallbacks", false}, {"require_parameters", true}};
    const bool acceptableGiven = config.acceptableProviders && !config.acceptableProviders->empty();
    ChatJSON provider = ChatJSON::object();
    if (!options.responseSchemaJSON) {
        if (config.providerOrder.empty() && !config.acceptableProviders) return std::nullopt;
        provider["allow_fallbacks"] = config.allowProviderFallbacks;
        if (!config.providerOrder.empty()) provider["order"] = stringArray(config.providerOrder);
        if (acceptableGiven) provider["only"] = stringArray(*config.acceptableProviders);
    } else {
        provider["allow_fallbacks"] = config.allowProviderFallbacks;
        if (!config.providerOrder.empty()) {
            std::vector<std::string> order = schemaBearingPool(config.providerOrder);
            if (!order.empty()) provider["order"] = stringArray(order);
        }
        provider["only"] = stringArray(schemaBearingPool(configuredPool(config)));
    }
    provider["require_parameters"] = true;
    return provider;
}

void applyCacheControlBreakpoints(ChatJSON& encodedMessages, std::string_view model) {
    if (!model.starts_with("anthropic/") || !encodedMessages.is_array() || encodedMessages.empty()) return;
    std::vector<size_t> positions;
    if (encodedMessages[0].value("role", "") == "system") positions.push_back(0);
    if (encodedMessages.size() >= 2) positions.push_back(encodedMessages.size() - 2);
    for (size_t position : positions) {
        ChatJSON& message = encodedMessages[position];
        auto content = message.find("content");
        if (content != message.end() && content->is_string() && !content->get_ref<const std::string&>().empty())
            *content = cachedText(content->get<std::string>());
    }
}

std::string sessionIDPrefix(std::string_view sessionID) { return utf8::prefix(sessionID, maxSessionIDCharacters); }

ChatJSON buildRequestBody(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                          const ChatOptions& options, const OpenRouterConfig& config,
                          const std::optional<std::string>& pinned) {
    ChatJSON encoded = ChatWire::encodeMessages(messages, ChatWire::Dialect::openRouter);
    applyCacheControlBreakpoints(encoded, config.model);
    ChatJSON body = ChatJSON::object();
    body["model"] = config.model;
    body["messages"] = std::move(encoded);
    body["stream"] = false;
    body["max_tokens"] = options.maxTokens;
    body["usage"] = ChatJSON{{"include", true}};
    if (options.sessionID && !options.sessionID->empty()) body["session_id"] = sessionIDPrefix(*options.sessionID);
    if (auto provider = providerObject(options, config, pinned)) body["provider"] = std::move(*provider);
    if (options.think)
        body["reasoning"] = config.reasoningEffort ? ChatJSON{{"effort", *config.reasoningEffort}}
                                                   : ChatJSON{{"enabled", true}};
    if (options.logprobs) {
        body["logprobs"] = true;
        if (options.topLogprobs) body["top_logprobs"] = *options.topLogprobs;
    }
    if (options.seed) body["seed"] = *options.seed;
    if (tools && !tools->empty()) body["tools"] = ChatWire::encodeTools(*tools);
    return body;
}

std::optional<int64_t> errorCode(const ChatJSON& errorObject) {
    const ChatJSON* code = ChatWire::member(errorObject, "code");
    if (!code) return std::nullopt;
    if (code->is_number_integer()) {
        if (code->is_number_unsigned() && code->get<uint64_t>() > uint64_t(INT64_MAX)) return std::nullopt;
        return code->get<int64_t>();
    }
    if (!code->is_string()) return std::nullopt;
    std::string_view text = code->get_ref<const std::string&>();
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<std::string> providerFailureReason(std::optional<int64_t> code, std::string_view detail) {
    if (!code) return std::nullopt;
    if (*code == 429) return "HTTP 429 (provider rate-limited)";
    if (*code == 408) return "HTTP 408 (provider timed out)";
    if (*code >= 500 && *code <= 599) return "HTTP " + std::to_string(*code) + " (provider error)";
    if (*code == 404 && (detail.find("No allowed providers are available") != std::string_view::npos ||
                         detail.find("No endpoints found") != std::string_view::npos))
        return "HTTP 404 (OpenRouter has no available endpoint for this provider)";
    return std::nullopt;
}

}  // namespace aimwise::OpenRouterRequest
