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

enum class Scope {
    // Stays on the machine but lands in a lasting record: ordinary life identifiers only.
    lifeLevel,
    // About to leave the machine: credentials as well.
    outbound,
};

// Text is UTF-8; ill-formed sequences come back as U+FFFD.
RedactionResult redact(const std::string& text, Scope scope);
// Absent in, absent out; otherwise the report is merged into `into`.
std::optional<std::string> redact(const std::optional<std::string>& text, Scope scope, RedactionReport& into);

// The same result, found by letting every pattern scan the whole text instead of only the positions
// where a match can begin. Slower; it exists so tests and the fuzzer can hold the two to each other.
RedactionResult redactByFullScan(const std::string& text, Scope scope);

// Compiles every detector now rather than on first use, e.g. before a latency-sensitive loop.
void prepare();

}  // namespace SensitiveIdentifierRedaction
}  // namespace aimwise
