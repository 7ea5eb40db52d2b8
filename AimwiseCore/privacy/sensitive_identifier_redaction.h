#pragma once
// Finds government, bank and card numbers and credentials in free text and replaces each with a token.
#include <optional>
#include <string>

#include "AimwiseCore/privacy/redaction_report.h"

namespace aimwise {

struct RedactionResult {
    std::string text;
    RedactionReport report;
};

namespace SensitiveIdentifierRedaction {

enum class Scope { lifeLevel, outbound };

RedactionResult redact(const std::string& text, Scope scope);
// Absent in, absent out; otherwise the report is merged into `into`.
std::optional<std::string> redact(const std::optional<std::string>& text, Scope scope, RedactionReport& into);

}  // namespace SensitiveIdentifierRedaction
}  // namespace aimwise
