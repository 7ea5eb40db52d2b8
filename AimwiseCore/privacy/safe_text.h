#pragma once
// Text from the screen or a model, made fit to quote in a prompt or keep in a log. Sanitising collapses
// blanks and drops invisible characters, which can join the groups of a number that redaction saw apart,
// and cutting to a cap can end a number where it looked like something else. So the text is redacted, then
// sanitised, redacted again, and after a cut redacted once more: no identifier survives in whichever order
// the two steps are thought of. Every caller that does both uses this.
#include <optional>
#include <string>

#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"

namespace aimwise::SafeText {

// `cap` counts user-perceived characters; a longer result is cut and ends with "…".
RedactionResult clean(const std::string& text, SensitiveIdentifierRedaction::Scope scope,
                      std::optional<int> cap = std::nullopt);
// Absent in, absent out; otherwise the report is merged into `into`.
std::optional<std::string> clean(const std::optional<std::string>& text, SensitiveIdentifierRedaction::Scope scope,
                                 RedactionReport& into, std::optional<int> cap = std::nullopt);
// A reason the classifier wrote, for its log: life-level identifiers and the values of labelled references
// are both withheld, and it is cut to the reason cap.
RedactionResult cleanReason(const std::string& reason);

}  // namespace aimwise::SafeText
