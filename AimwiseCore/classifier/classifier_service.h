#pragma once
// Turns the newest signals row into a verdict: the state from the database and the event log, the
// guards that need no model, one model call, and the reason made safe to leave the machine. The same
// code serves the production tick and every tool that shows or measures the classifier.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/classifier/classifier_backend.h"
#include "AimwiseCore/classifier/classifier_state.h"
#include "AimwiseCore/classifier/content_withheld_reason.h"
#include "AimwiseCore/classifier/reason_privacy_check.h"
#include "AimwiseCore/events/classifier_tick.h"
#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/privacy/redaction_report.h"
#include "CaptureShared/signals/signals_reader.h"

namespace aimwise::ClassifierService {

inline constexpr double idleAwaySec = 300.0;
inline constexpr int64_t staleGapLookbackMs = 14'400'000;
inline constexpr int64_t hardResetGapMs = 14'400'000;

struct Outcome {
    ClassifierState state;
    ClassifierJudgment judgment;
    bool calledModel = false;
    // What was removed from the classifier's input and from its reason.
    RedactionReport redactions;
    ClassifierReasonPrivacyCheck::Result reasonCheck = ClassifierReasonPrivacyCheck::NotRun{};
    std::optional<ContentWithheldReason> contentWithheldForDenylist;

    // Counts and classifications only, never a redacted value: zero, one or two lines.
    std::vector<std::string> privacyLogLines() const;
};

// Nothing when the database has no row at or before `asOfMs`. A declaration whose estimate is not
// cached yet costs one model call, whose answer is cached in `signalsPath`. Throws SignalsReaderError.
std::optional<ClassifierState> buildState(const SignalsReader& signals, const std::vector<EventLogEvent>* jsonlEvents,
                                          const std::filesystem::path& signalsPath, std::optional<int64_t> asOfMs,
                                          LazyHTTPSession& session);

// `buildState` in two steps, for the tick: the presence walk behind the three gap fields reads up to
// 100 000 rows, and a tick that decides to skip needs none of them.
struct StateWithoutPresence {
    ClassifierState state;  // gap fields not yet filled in
    std::optional<int64_t> declaredAtMs;
};
std::optional<StateWithoutPresence> buildStateWithoutPresence(const SignalsReader& signals,
                                                              const std::vector<EventLogEvent>* jsonlEvents,
                                                              const std::filesystem::path& signalsPath,
                                                              std::optional<int64_t> asOfMs, LazyHTTPSession& session);
// Throws SignalsReaderError.
ClassifierState withPresence(StateWithoutPresence partial, const SignalsReader& signals);

// A verdict from the guards (lock screen, away, own window, stale declaration) calls no model.
// Throws what the main chat call throws; a failed privacy check never throws.
Outcome judge(const ClassifierState& state, const std::optional<std::string>& taskOverride,
              const std::optional<std::string>& windowContent, const std::optional<std::string>& userInstructions,
              const RedactionReport& upstreamRedactions,
              std::optional<ContentWithheldReason> contentWithheldForDenylist, const ClassifierBackend::Config& config,
              HTTPSession& session);

// The guards alone: the verdict they give, or nothing when the model must decide.
std::optional<ClassifierJudgment> guardVerdict(const ClassifierState& state,
                                               const std::optional<std::string>& taskOverride);

ClassifierTick loggedTick(const std::string& at, const Outcome& outcome, std::optional<int64_t> screenshotAtMs,
                          const std::string& model);

}  // namespace aimwise::ClassifierService
