#include "AimwiseCore/coach/coach_gate.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "AimwiseCore/coach/coach_gate_schema.h"
#include "AimwiseCore/privacy/secret_redaction.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise {

bool GateUnconstrainedBreaker::allowsUnconstrained() {
    std::lock_guard guard(lock_);
    ++counters_.ticksSinceLastSuccess;
    if (counters_.skipsRemaining < 1) return true;
    --counters_.skipsRemaining;
    return false;
}

void GateUnconstrainedBreaker::recordSuccess() {
    std::lock_guard guard(lock_);
    counters_ = {};
}

GateUnconstrainedBreaker::Backoff GateUnconstrainedBreaker::recordParseFailure() {
    std::lock_guard guard(lock_);
    ++counters_.consecutiveFailures;
    const int64_t exponent = std::clamp<int64_t>(counters_.consecutiveFailures - 1, 0, 30);
    counters_.skipsRemaining = std::max<int64_t>(0, std::min<int64_t>(int64_t{1} << exponent, maxBackoffTicks_));
    return {counters_.skipsRemaining, counters_.consecutiveFailures, counters_.ticksSinceLastSuccess};
}

std::string GateUnconstrainedBreaker::ceilingWarning(const Backoff& backoff) const {
    if (maxBackoffTicks_ < 1 || backoff.skipTicks != maxBackoffTicks_) return "";
    const auto firstAtCeiling = static_cast<int64_t>(std::floor(std::log2(static_cast<double>(maxBackoffTicks_)))) + 1;
    return backoff.consecutiveFailures > firstAtCeiling ? "GATE UNCONSTRAINED STUCK AT CEILING: " : "";
}

GateUnconstrainedBreaker::Counters GateUnconstrainedBreaker::counters() const {
    std::lock_guard guard(lock_);
    return counters_;
}

bool GateUnconstrainedFlag::isArmed(const Environment& environment) {
    const auto value = lookup(environment, variable);
    if (!value) return true;
    std::string word = trimWhitespaceAndNewlines(*value);
    std::transform(word.begin(), word.end(), word.begin(), [](unsigned char c) { return std::tolower(c); });
    return word != "0" && word != "false" && word != "off" && word != "no";
}

std::string rawTextPreview(std::string_view text, size_t limit) {
    const std::string scrubbed = SecretRedaction::redact(std::string(text));
    const size_t total = utf8::scalarCount(scrubbed);
    if (total <= limit) return scrubbed;
    return utf8::prefix(scrubbed, limit) + "…(" + std::to_string(total) + " chars)";
}

CoachGate::CoachGate(std::shared_ptr<ModelBackend> backend, int64_t maxTokens)
    : backend_(std::move(backend)), maxTokens_(maxTokens) {}

ChatOptions CoachGate::options(bool constrained, const std::string& sessionID) const {
    ChatOptions options;
    options.maxTokens = maxTokens_;
    options.think = true;
    options.logprobs = false;
    options.sessionID = sessionID;
    options.turn = ChatTurn::background;
    if (constrained) options.responseSchemaJSON = CoachGateSchema::schemaJSON();
    return options;
}

CoachGate::Attempt CoachGate::attempt(const std::string& message, const ChatOptions& options,
                                      const Callbacks& callbacks) const {
    ChatResponse response;
    try {
        response = backend_->chat({ChatMessage::user(message)}, std::nullopt, options);
    } catch (const ModelBackendError& error) {
        if (callbacks.onBackendError) callbacks.onBackendError(error);
        return {GateOutcome::failed("backend: " + error.description()), true, {}};
    }
    if (callbacks.onUsage) callbacks.onUsage(response);
    if (response.truncated) return {GateOutcome::failed("truncated response"), false, response.text};
    return {CoachGateSchema::parse(response.text), false, response.text};
}

GateOutcome CoachGate::decide(const std::string& message, const std::string& sessionID, bool unconstrained,
                              GateUnconstrainedBreaker* breaker, const Callbacks& callbacks,
                              Attempts* attempts) const {
    Attempts ran;
    const auto finish = [&](GateOutcome outcome) {
        if (attempts) *attempts = ran;
        return outcome;
    };
    const auto constrained = [&] {
        ran.constrained = true;
        return finish(attempt(message, options(true, sessionID), callbacks).outcome);
    };

    if (!unconstrained) return constrained();
    if (breaker && !breaker->allowsUnconstrained()) {
        ran.skippedByBreaker = true;
        return constrained();
    }

    ran.unconstrained = true;
    Attempt first = attempt(message, options(false, sessionID), callbacks);
    if (first.outcome.decision()) {
        if (breaker) breaker->recordSuccess();
        return finish(std::move(first.outcome));
    }
    // A backend failure is not the model's fault: no second attempt, and the breaker stays as it is.
    if (first.backendThrew) return finish(std::move(first.outcome));
    const std::string reason = *first.outcome.failureReason();
    ran.unconstrainedFailure = reason;

    const std::string described = reason + " (raw: " + rawTextPreview(first.rawText) + ")";
    if (!breaker) {
        if (callbacks.onUnconstrainedRetry) callbacks.onUnconstrainedRetry(described);
    } else {
        const auto backoff = breaker->recordParseFailure();
        if (callbacks.onUnconstrainedRetry)
            callbacks.onUnconstrainedRetry(
                breaker->ceilingWarning(backoff) + described + " — skipping the unconstrained attempt for the next " +
                std::to_string(backoff.skipTicks) + " tick(s) [consecutiveFailures=" +
                std::to_string(backoff.consecutiveFailures) +
                ", ticksSinceLastUnconstrainedSuccess=" + std::to_string(backoff.ticksSinceLastSuccess) + "]");
    }
    return constrained();
}

}  // namespace aimwise
