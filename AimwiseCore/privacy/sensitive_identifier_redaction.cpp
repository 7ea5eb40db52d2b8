#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"

namespace aimwise::SensitiveIdentifierRedaction {

// Placeholder until the detectors land: the text passes through unchanged.
RedactionResult redact(const std::string& text, Scope) { return {text, {}}; }

std::optional<std::string> redact(const std::optional<std::string>& text, Scope scope, RedactionReport& into) {
    if (!text) return std::nullopt;
    auto result = redact(*text, scope);
    into.merge(result.report);
    return std::move(result.text);
}

}  // namespace aimwise::SensitiveIdentifierRedaction
