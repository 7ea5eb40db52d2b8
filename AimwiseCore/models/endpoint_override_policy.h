#pragma once
// Whether an address from the environment may replace a fixed online address. Conversation text goes
// there, so it must be https, or plain http only to a server on this computer. This is also how a
// person points the coach at another OpenAI-compatible server on their own machine.
#include <string>
#include <string_view>
#include <variant>

#include "AimwiseCore/models/endpoint_url.h"

namespace aimwise::EndpointOverridePolicy {

struct Refused {
    // "<variable>=<value> ignored: <why>"
    std::string description;
    bool operator==(const Refused&) const = default;
};
using Decision = std::variant<EndpointURL, Refused>;

// 127.0.0.0/8, ::1 or "localhost", in any case.
bool isLoopbackHost(std::string_view host);

// The URL when `value` (trimmed) may be used in place of the fixed address.
Decision validatedOverride(std::string_view variable, std::string_view value);

// A chat-completions URL from an override: a bare server address ("http://127.0.0.1:8080" or with a
// trailing "/") gets "v1/chat/completions"; any other path is taken as the route itself.
EndpointURL chatCompletionsURL(const EndpointURL& url);

}  // namespace aimwise::EndpointOverridePolicy
