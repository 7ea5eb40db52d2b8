#pragma once
// The classifier's system prompt and the exact user message of one judgment.
#include <optional>
#include <string>

#include "AimwiseCore/classifier/classifier_state.h"
#include "AimwiseCore/classifier/content_withheld_reason.h"
#include "AimwiseCore/privacy/redaction_report.h"

namespace aimwise::ClassifierPrompt {

extern const std::string systemPrompt;

struct RedactedMessage {
    std::string message;
    RedactionReport redactions;
};

struct RedactedContent {
    std::string content;
    RedactionReport redactions;
};

// Stable parts first and the changing facts last, so a provider's prompt cache stays warm.
RedactedMessage buildRedactedUserMessage(const ClassifierState& state,
                                         const std::optional<std::string>& taskOverride = std::nullopt,
                                         const std::optional<std::string>& windowContent = std::nullopt,
                                         const std::optional<std::string>& userInstructions = std::nullopt,
                                         std::optional<ContentWithheldReason> contentWithheldForDenylist = std::nullopt);

std::string buildUserMessage(const ClassifierState& state, const std::optional<std::string>& taskOverride = std::nullopt,
                             const std::optional<std::string>& windowContent = std::nullopt,
                             const std::optional<std::string>& userInstructions = std::nullopt,
                             std::optional<ContentWithheldReason> contentWithheldForDenylist = std::nullopt);

RedactedContent redactedWindowContent(const std::string& ocrText, const std::string& description);

}  // namespace aimwise::ClassifierPrompt
