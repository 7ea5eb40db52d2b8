#pragma once
// The last cleaning of a conversation before it leaves the computer: identifiers and credentials in
// message text, in the reasoning sent back, and in tool-call arguments (numbers included) become
// their redaction tokens. Tool names stay; they are ours.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/models/chat_types.h"
#include "AimwiseCore/privacy/redaction_report.h"
#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"

namespace aimwise::OutboundRedaction {

struct Result {
    std::vector<ChatMessage> messages;
    RedactionReport report;
};

// A conversation goes out again whole on every turn, so each text's redaction is remembered (a
// bounded, process-wide memo; redaction is a pure function of the text) and only new text is scanned.
Result redactOutbound(const std::vector<ChatMessage>& messages);

// One text, through the memo.
RedactionResult redactText(const std::string& text);
// Forgets every remembered text (for measuring the first turn of a conversation).
void clearMemo();

// Strings are redacted, arrays and objects walked. A whole number long enough to be an identifier
// (six digits or more) is checked through its text without a fraction and, when it is one, replaced
// by the token as a string.
JSONValue scrub(const JSONValue& value, RedactionReport& report);

// "outbound redaction before sending to <model>: ssn x1", plus the withheld-title tokens the text
// carries ("; outbound titles to <model>: withheld_identifier x2"). Nothing when nothing was
// redacted. Counts only, never a value.
std::optional<std::string> logLine(const Result& result, std::string_view modelName);

}  // namespace aimwise::OutboundRedaction
