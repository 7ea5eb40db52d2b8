#pragma once
// The body of an online chat request: the shared message encoding plus the router's own keys, the
// provider object that pins or restricts where the call may go, and the cache-control breakpoints.
// Also the rules that decide which failures are a provider's fault.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/models/chat_json.h"
#include "AimwiseCore/models/chat_types.h"
#include "AimwiseCore/models/endpoint_url.h"

namespace aimwise {

struct OpenRouterConfig {
    // The chat-completions URL.
    EndpointURL endpoint;
    std::string model;
    std::string apiKey;
    std::optional<std::string> reasoningEffort;
    double timeoutSec = 300;
    // Provider slugs in order of preference.
    std::vector<std::string> providerOrder;
    // The pool; absent means that providerOrder is the pool.
    std::optional<std::vector<std::string>> acceptableProviders;
    bool allowProviderFallbacks = true;
};

namespace OpenRouterRequest {

inline constexpr size_t maxSessionIDCharacters = 256;

// Providers approved for calls that carry a response schema: those whose structured-output mode
// keeps the model reasoning. Sorted. A fixed list until measurements replace it.
const std::vector<std::string>& schemaApprovedProviders();

// `providers` kept only where approved, in their order; with no providers configured, the whole
// approved list.
std::vector<std::string> schemaBearingPool(const std::vector<std::string>& providers);

// The configured pool: acceptableProviders when present, else providerOrder.
std::vector<std::string> configuredPool(const OpenRouterConfig& config);

// The ordered pool the sticky selector chooses from: providerOrder within acceptableProviders (then
// the acceptable ones not ordered), reduced to approved providers for a schema-bearing call. Empty
// means no pin.
std::vector<std::string> stickyPool(const ChatOptions& options, const OpenRouterConfig& config);

// Throws ModelBackendError::invalidResponse when a configured pool holds no approved provider.
void validateSchemaBearingRouting(const ChatOptions& options, const OpenRouterConfig& config);

// The `provider` object, or nothing when the router may choose freely.
std::optional<ChatJSON> providerObject(const ChatOptions& options, const OpenRouterConfig& config,
                                       const std::optional<std::string>& pinned);

// For "anthropic/" models only: index 0 when it is a system message and the second-to-last message
// carry their text as one block with a one-hour ephemeral cache mark.
void applyCacheControlBreakpoints(ChatJSON& encodedMessages, std::string_view model);

// The first `maxSessionIDCharacters` characters (not bytes) of a session id.
std::string sessionIDPrefix(std::string_view sessionID);

ChatJSON buildRequestBody(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                          const ChatOptions& options, const OpenRouterConfig& config,
                          const std::optional<std::string>& pinned);

// An error object's numeric `code`: an integer, or a string of digits with an optional sign.
std::optional<int64_t> errorCode(const ChatJSON& errorObject);

// Why a failure is the pinned provider's fault, or nothing when it is not and no rotation should happen.
std::optional<std::string> providerFailureReason(std::optional<int64_t> code, std::string_view detail);

}  // namespace OpenRouterRequest
}  // namespace aimwise
