#pragma once
// Refuses a malformed conversation before it is sent: a server may accept one and answer nonsense.
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/models/chat_json.h"
#include "AimwiseCore/models/chat_types.h"
#include "CaptureShared/common/environment.h"
#include "CaptureShared/common/error.h"

namespace aimwise {

namespace RequestConformance {

inline constexpr const char* environmentKey = "AIMCAP_VALIDATE_REQUESTS";

enum class Rule {
    unansweredToolCall,
    orphanToolMessage,
    toolCallIdMismatch,
    systemNotFirst,
    malformedToolSchema,
    unsupportedResponseFormat,
};
std::string_view text(Rule rule);

// Not a transport failure: never retried, never a reason to fall back.
class Violation : public Error {
public:
    Violation(Rule rule, std::string detail);
    Rule rule() const { return rule_; }
    const std::string& detail() const { return detail_; }

private:
    Rule rule_;
    std::string detail_;
};

enum class Mode { off, enforced };
// On when the key is present in the environment.
Mode mode(const Environment& environment);

// Tool results are matched to pending calls by tool name (a nameless result takes the oldest).
void validate(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools);
// The same discipline over the encoded messages, where ids must answer calls in order.
void validateEncodedOpenAIShape(const ChatJSON& encodedMessages);

// Whether a route constrains the reply to a requested schema.
enum class SchemaEnforcement { enforced, notKnownToEnforce };
void validateResponseFormat(bool schemaRequested, SchemaEnforcement route);

}  // namespace RequestConformance
}  // namespace aimwise
