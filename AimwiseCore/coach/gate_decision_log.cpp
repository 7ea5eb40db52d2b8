#include "AimwiseCore/coach/gate_decision_log.h"

#include <algorithm>
#include <cctype>

#include "AimwiseCore/coach/coach_gate_schema.h"
#include "AimwiseCore/events/jsonl_append.h"
#include "AimwiseCore/privacy/outbound_title_privacy.h"
#include "AimwiseCore/privacy/safe_text.h"
#include "AimwiseCore/privacy/secret_redaction.h"
#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"
#include "CaptureShared/common/text.h"

namespace aimwise::GateDecisionLog {

namespace {

// The summary stays on the machine but lands in a lasting record.
std::string filteredSummary(const std::string& summary) {
    const auto cleaned = SafeText::clean(summary, SensitiveIdentifierRedaction::Scope::lifeLevel);
    return SecretRedaction::redact(OutboundTitlePrivacy::redactIdentifierValues(cleaned.text));
}

JSONValue usageObject(const ChatUsage& usage) {
    JSONValue::Object object{{"prompt_tokens", usage.promptTokens},
                             {"completion_tokens", usage.completionTokens},
                             {"calls", usage.callCount}};
    if (usage.cachedPromptTokens) object["cached_prompt_tokens"] = *usage.cachedPromptTokens;
    if (usage.reasoningTokens) object["reasoning_tokens"] = *usage.reasoningTokens;
    if (usage.costUSD) object["cost_usd"] = *usage.costUSD;
    return object;
}

}  // namespace

std::filesystem::path defaultURL(const std::filesystem::path& dataRoot) { return dataRoot / fileName; }

bool isEnabled(const Environment& environment) {
    const auto value = lookup(environment, variable);
    if (!value) return false;
    std::string word = trimWhitespaceAndNewlines(*value);
    std::transform(word.begin(), word.end(), word.begin(), [](unsigned char c) { return std::tolower(c); });
    return !word.empty() && word != "0" && word != "false" && word != "off" && word != "no";
}

void UsageTally::add(const ChatResponse& response) {
    usage = ChatUsage::combining(usage, response.usage);
    if (response.servedBy) servedBy = response.servedBy;
}

JSONValue::Object row(const Record& record) {
    JSONValue::Object row{{"ts_ms", record.tsMs},
                          {"low_effort", record.lowEffort},
                          {"message_chars", record.messageCharacters},
                          {"unconstrained_skipped", record.attempts.skippedByBreaker}};
    JSONValue::Array attempts;
    if (record.attempts.unconstrained) attempts.emplace_back("unconstrained");
    if (record.attempts.constrained) attempts.emplace_back("constrained");
    row["attempts"] = std::move(attempts);
    if (record.attempts.unconstrainedFailure) row["unconstrained_failure"] = *record.attempts.unconstrainedFailure;
    if (const GateDecision* decision = record.outcome.decision()) {
        row["outcome"] = "decided";
        row["should_check_in"] = decision->shouldCheckIn;
        row["summary_for_coach"] = filteredSummary(decision->summaryForCoach);
        row["summary_second_person"] = CoachGateSchema::summaryAddressesSecondPerson(decision->summaryForCoach);
    } else {
        row["outcome"] = "failed";
        row["failure_reason"] = SecretRedaction::redact(*record.outcome.failureReason());
    }
    if (record.breaker)
        row["breaker"] = JSONValue::Object{{"consecutive_failures", record.breaker->consecutiveFailures},
                                           {"skips_remaining", record.breaker->skipsRemaining},
                                           {"ticks_since_last_success", record.breaker->ticksSinceLastSuccess}};
    if (record.usage) row["usage"] = usageObject(*record.usage);
    if (record.servedBy) row["served_by"] = *record.servedBy;
    return row;
}

void append(const Record& record, const std::filesystem::path& to) { JSONLAppend::append(row(record), to); }

}  // namespace aimwise::GateDecisionLog
