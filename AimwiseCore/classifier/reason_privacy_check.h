#pragma once
// The classifier's reason leaves the machine with the log a remote coach reads. After a banking,
// medical or identifier-bearing screen, a second small call asks the local model whether the sentence
// carries private details; when it does, or when the check cannot say, the sentence is replaced.
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "AimwiseCore/classifier/classifier_backend.h"
#include "AimwiseCore/classifier/classifier_state.h"
#include "AimwiseCore/privacy/sensitive_sites.h"

namespace aimwise::ClassifierReasonPrivacyCheck {

struct Site {
    SensitiveSites::Category category;
    bool operator==(const Site&) const = default;
};
struct IdentifiersOnScreen {
    bool operator==(const IdentifiersOnScreen&) const = default;
};
using Trigger = std::variant<Site, IdentifiersOnScreen>;

struct Failed {
    std::string errorKind;
    bool operator==(const Failed&) const = default;
};
struct Flagged {
    bool operator==(const Flagged&) const = default;
};
struct NoVerdict {
    bool operator==(const NoVerdict&) const = default;
};
using ReplacedBecause = std::variant<Failed, Flagged, NoVerdict>;

struct Kept {
    Trigger trigger;
    bool operator==(const Kept&) const = default;
};
struct Replaced {
    Trigger trigger;
    ReplacedBecause because;
    bool operator==(const Replaced&) const = default;
};
struct NotRun {
    bool operator==(const NotRun&) const = default;
};
using Result = std::variant<Kept, Replaced, NotRun>;

// The check's own call: few tokens, short wait.
inline constexpr int numPredict = 40;
inline constexpr double maxTimeoutSec = 30.0;

std::string systemPrompt(const Trigger& trigger);
std::string userMessage(const std::string& reason, const std::optional<std::string>& declaredTask);
std::string genericReason(const Trigger& trigger);

// The boolean under "private", and nothing for any other shape. Throws
// ModelBackendError::invalidResponse for text that is not JSON.
std::optional<bool> strictBool(std::string_view content);
// "unparseable reply", "http 503", "transport error", "error".
std::string errorKind(const std::exception& error);
// From the frontmost title, and the browser title when the browser is in front.
std::optional<Trigger> titleOutcomeTrigger(const ClassifierState& state);

// The value of `reason_check` in the classifier log; nothing leaves the key out.
std::optional<std::string> recordValue(const Result& result);
std::optional<std::string> logLine(const Result& result);

// Throws only CancellationError: a failed call fails closed, costing the sentence and never the verdict. The config
// is used as given; the caller sets the check's limits.
std::pair<Result, std::string> check(const std::string& reason, const std::optional<std::string>& declaredTask,
                                     const Trigger& trigger, const ClassifierBackend::Config& config,
                                     HTTPSession& session);

}  // namespace aimwise::ClassifierReasonPrivacyCheck
