#include "AimwiseCore/classifier/classifier_service.h"

#include <algorithm>
#include <cmath>

#include "AimwiseCore/classifier/classifier_prompt.h"
#include "AimwiseCore/classifier/estimate_extractor.h"
#include "AimwiseCore/classifier/self_observation.h"
#include "AimwiseCore/models/local_inference_endpoint.h"
#include "AimwiseCore/privacy/safe_text.h"
#include "AimwiseCore/privacy/screen_text.h"
#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"
#include "AimwiseCore/privacy/sensitive_sites.h"
#include "CaptureShared/common/saturating.h"

namespace aimwise::ClassifierService {

namespace {

namespace Check = ClassifierReasonPrivacyCheck;
using Scope = SensitiveIdentifierRedaction::Scope;

constexpr int64_t recentAppsWindowMs = 600'000;
constexpr int64_t maxContinuityGapMs = 180'000;
constexpr int64_t presenceWalkLimit = 100'000;
constexpr double staleAfterMinutes = 240.0;

double minutesBetween(int64_t fromMs, int64_t toMs) {
    return truncatedToOneDecimal(static_cast<double>(Saturating::subtract(toMs, fromMs)) / 60000.0);
}

struct Declaration {
    std::optional<int64_t> tsMs;
    std::optional<double> horizonMinutes;
};

Declaration findDeclaration(const SignalsReader& signals, const std::vector<EventLogEvent>* events, int64_t rowTsMs) {
    if (events) {
        for (auto it = events->rbegin(); it != events->rend(); ++it) {
            if (it->type != "task_declared" || it->tsMs > rowTsMs) continue;
            Declaration found{it->tsMs, std::nullopt};
            if (const JSONValue* horizon = it->detail.member("horizon_minutes"))
                if (const double* minutes = horizon->numberIfAny()) found.horizonMinutes = *minutes;
            return found;
        }
    }
    return {signals.taskDeclaredTsMsFromSQLiteEvents(rowTsMs), std::nullopt};
}

std::optional<double> estimateFor(const SignalsReader& signals, const std::string& declaredText,
                                  const std::filesystem::path& signalsPath, LazyHTTPSession& session) {
    const SignalsReader::CachedEstimate cached = signals.cachedEstimateMinutes(declaredText);
    if (cached.found) return cached.minutes;
    EstimateExtractor::Config config;
    try {
        config = EstimateExtractor::Config::standard();
    } catch (const LocalInferenceEndpoint::ResolutionError&) {
        // No model may be asked at a refused endpoint; the judgment reports that itself.
        return std::nullopt;
    }
    return EstimateExtractor::extract(declaredText, signalsPath, config, session.get()).minutes;
}

struct GapFields {
    std::optional<double> gapSinceLastPresentMinutes;
    std::optional<bool> gapFollowedTaskEndpoint;
    std::optional<double> minutesSinceReturn;
};

GapFields gapFields(const SignalsReader::PresenceGapResult& walk, int64_t rowTsMs, std::optional<int64_t> declaredAtMs,
                    std::optional<double> estimate) {
    GapFields fields;
    if (std::holds_alternative<SignalsReader::ContinuouslyPresent>(walk)) {
        fields.gapSinceLastPresentMinutes = 0.0;
    } else if (const auto* gap = std::get_if<SignalsReader::PresenceGap>(&walk)) {
        // An absence that ended before or across the declaration is not a gap in this task.
        if (declaredAtMs && *declaredAtMs > gap->beforeAbsence.tsMs) {
            fields.gapSinceLastPresentMinutes = 0.0;
        } else {
            fields.gapSinceLastPresentMinutes = minutesBetween(gap->beforeAbsence.tsMs, gap->runStartMs);
            fields.minutesSinceReturn = minutesBetween(gap->runStartMs, rowTsMs);
            if (declaredAtMs && estimate)
                fields.gapFollowedTaskEndpoint =
                    static_cast<double>(Saturating::subtract(gap->beforeAbsence.tsMs, *declaredAtMs)) / 60000.0 - *estimate >= 0.0;
        }
    } else {
        const int64_t runStartMs = std::get<SignalsReader::GapExceedsWindow>(walk).runStartMs;
        if (!declaredAtMs || *declaredAtMs <= Saturating::subtract(runStartMs, staleGapLookbackMs)) {
            // Absent with a declaration: away for longer than the walk could see.
            fields.minutesSinceReturn = minutesBetween(runStartMs, rowTsMs);
        } else {
            fields.gapSinceLastPresentMinutes = 0.0;
        }
    }
    return fields;
}

std::string asciiLowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

ClassifierJudgment certain(const char* state, std::string reason) { return {state, 1.0, std::move(reason)}; }

}  // namespace

std::vector<std::string> Outcome::privacyLogLines() const {
    std::vector<std::string> lines;
    if (!redactions.empty()) lines.push_back("redacted from classifier input: " + redactions.summary());
    if (auto line = Check::logLine(reasonCheck)) lines.push_back(std::move(*line));
    return lines;
}

std::optional<StateWithoutPresence> buildStateWithoutPresence(const SignalsReader& signals,
                                                              const std::vector<EventLogEvent>* jsonlEvents,
                                                              const std::filesystem::path& signalsPath,
                                                              std::optional<int64_t> asOfMs, LazyHTTPSession& session) {
    const std::optional<SignalsReader::TickRow> row = signals.latestTick(asOfMs);
    if (!row) return std::nullopt;

    ClassifierState state;
    state.tsMs = row->tsMs;
    state.frontmostApp = row->frontmostApp;
    state.browserApp = row->browserApp;
    state.browserTitle = row->browserTitle;
    state.browserURL = row->browserURL;
    state.idleAnySec = row->idleAnySec;
    state.declaredTask = row->declaredTask;
    state.recentApps10Min = signals.recentApps(row->tsMs, recentAppsWindowMs);
    if (const auto window = signals.contentWindow(row->tsMs, row->frontmostApp.value_or("")))
        state.frontmostWindowTitle = window->title;

    const Declaration declaration = findDeclaration(signals, jsonlEvents, row->tsMs);
    if (declaration.tsMs) state.minutesSinceDeclared = minutesBetween(*declaration.tsMs, row->tsMs);

    state.estimateMinutes = declaration.horizonMinutes;
    if (!state.estimateMinutes && state.declaredTask && !state.declaredTask->empty())
        state.estimateMinutes = estimateFor(signals, *state.declaredTask, signalsPath, session);
    if (state.minutesSinceDeclared && state.estimateMinutes)
        state.minutesOverEstimate = truncatedToOneDecimal(*state.minutesSinceDeclared - *state.estimateMinutes);
    return StateWithoutPresence{std::move(state), declaration.tsMs};
}

ClassifierState withPresence(StateWithoutPresence partial, const SignalsReader& signals) {
    ClassifierState& state = partial.state;
    if (!state.declaredTask || state.declaredTask->empty()) return std::move(state);
    const auto walk =
        signals.presenceGap(state.tsMs, staleGapLookbackMs, idleAwaySec, maxContinuityGapMs, presenceWalkLimit);
    const GapFields gap = gapFields(walk, state.tsMs, partial.declaredAtMs, state.estimateMinutes);
    state.gapSinceLastPresentMinutes = gap.gapSinceLastPresentMinutes;
    state.gapFollowedTaskEndpoint = gap.gapFollowedTaskEndpoint;
    state.minutesSinceReturn = gap.minutesSinceReturn;
    return std::move(state);
}

std::optional<ClassifierState> buildState(const SignalsReader& signals, const std::vector<EventLogEvent>* jsonlEvents,
                                          const std::filesystem::path& signalsPath, std::optional<int64_t> asOfMs,
                                          LazyHTTPSession& session) {
    auto partial = buildStateWithoutPresence(signals, jsonlEvents, signalsPath, asOfMs, session);
    if (!partial) return std::nullopt;
    return withPresence(std::move(*partial), signals);
}

std::optional<ClassifierJudgment> guardVerdict(const ClassifierState& state,
                                               const std::optional<std::string>& taskOverride) {
    const std::string app = asciiLowercased(state.frontmostApp.value_or(""));
    const double idle = state.idleAnySec.value_or(0.0);

    if (!taskOverride && app == "loginwindow")
        return certain(VerdictState::idle, "screen locked (loginwindow) — not in use");
    if (!taskOverride && idle > idleAwaySec)
        return certain(VerdictState::idle,
                       "away ~" + std::to_string(static_cast<int64_t>(std::trunc(idle))) + "s — no check");
    if (ClassifierSelfObservation::isOwnWindowNow(state.frontmostApp))
        return certain(ClassifierSelfObservation::abstainedState, ClassifierSelfObservation::abstainedReason);
    if (taskOverride) return std::nullopt;

    const bool over = state.minutesOverEstimate && *state.minutesOverEstimate >= staleAfterMinutes;
    const bool stale = state.declaredTask &&
                       (!state.gapSinceLastPresentMinutes || *state.gapSinceLastPresentMinutes >= staleAfterMinutes) &&
                       state.minutesSinceDeclared && *state.minutesSinceDeclared >= staleAfterMinutes;
    if (over) {
        const auto hours = static_cast<int64_t>(std::trunc(*state.minutesOverEstimate / 60.0));
        return certain(VerdictState::noTask, "over " + std::to_string(hours) +
                                                 "h past your own estimate's end — treating the earlier declaration "
                                                 "as stale rather than still judging against it");
    }
    if (stale)
        return certain(VerdictState::noTask,
                       "no activity for at least 4h — treating the earlier declaration as stale rather than still "
                       "judging against it");
    return std::nullopt;
}

Outcome judge(const ClassifierState& state, const std::optional<std::string>& taskOverride,
              const std::optional<std::string>& windowContent, const std::optional<std::string>& userInstructions,
              const RedactionReport& upstreamRedactions,
              std::optional<ContentWithheldReason> contentWithheldForDenylist, const ClassifierBackend::Config& config,
              HTTPSession& session) {
    if (auto verdict = guardVerdict(state, taskOverride))
        return Outcome{state, std::move(*verdict), false, {}, Check::NotRun{}, std::nullopt};

    const ClassifierPrompt::RedactedMessage message = ClassifierPrompt::buildRedactedUserMessage(
        state, taskOverride, windowContent, userInstructions, contentWithheldForDenylist);
    ClassifierJudgment judgment = ClassifierBackend::parseJudgment(
        ClassifierBackend::post(ClassifierPrompt::systemPrompt, message.message, config, session));
    RedactionReport report = upstreamRedactions.merging(message.redactions);

    const RedactionResult redactedReason = SafeText::cleanReason(judgment.reason);
    std::string reason = redactedReason.text;

    std::optional<Check::Trigger> trigger;
    if (const auto category = SensitiveSites::category({.frontmostApp = state.frontmostApp,
                                                        .browserApp = state.browserApp,
                                                        .browserURL = state.browserURL,
                                                        .frontmostWindowTitle = state.frontmostWindowTitle,
                                                        .browserTitle = state.browserTitle})) {
        trigger = Check::Site{*category};
    } else if (!report.empty()) {
        trigger = Check::IdentifiersOnScreen{};
    } else {
        trigger = Check::titleOutcomeTrigger(state);
    }

    Check::Result reasonCheck = Check::NotRun{};
    if (trigger) {
        ClassifierBackend::Config checkConfig = config;
        checkConfig.numPredict = Check::numPredict;
        checkConfig.timeout = std::min(config.timeout, Check::maxTimeoutSec);
        RedactionReport declaredReport;
        const auto declared = SensitiveIdentifierRedaction::redact(taskOverride ? taskOverride : state.declaredTask,
                                                                   Scope::lifeLevel, declaredReport);
        auto [result, checkedReason] = Check::check(reason, declared, *trigger, checkConfig, session);
        reasonCheck = std::move(result);
        reason = ScreenText::sanitize(checkedReason, ScreenText::reasonCap);
    }
    report.merge(redactedReason.report);
    judgment.reason = std::move(reason);
    return Outcome{state, std::move(judgment), true, std::move(report), std::move(reasonCheck),
                   contentWithheldForDenylist};
}

ClassifierTick loggedTick(const std::string& at, const Outcome& outcome, std::optional<int64_t> screenshotAtMs,
                          const std::string& model) {
    ClassifierTick tick;
    tick.at = at;
    tick.state = outcome.judgment.state;
    tick.reason = outcome.judgment.reason;
    tick.confidence = outcome.judgment.confidence;
    tick.frontmostApp = outcome.state.frontmostApp;
    tick.frontmostWindowTitle = outcome.state.frontmostWindowTitle;
    tick.browserTitle = outcome.state.browserTitle;
    tick.declaredTask = outcome.state.declaredTask;
    tick.model = model;
    tick.screenshotAtMs = screenshotAtMs;
    tick.reasonCheck = Check::recordValue(outcome.reasonCheck);
    if (outcome.contentWithheldForDenylist)
        tick.contentWithheldForDenylist = std::string(logValue(*outcome.contentWithheldForDenylist));
    return tick;
}

}  // namespace aimwise::ClassifierService
