#include "AimwiseCore/coach/projection_signals.h"

#include <algorithm>

#include "AimwiseCore/classifier/self_observation.h"
#include "AimwiseCore/coach/gate_screen_text.h"
#include "AimwiseCore/coach/projection_time_text.h"
#include "AimwiseCore/coach/quiet_windows.h"
#include "AimwiseCore/coach/synthetic_user_markers.h"
#include "AimwiseCore/privacy/screen_text.h"
#include "CaptureShared/common/text.h"

namespace aimwise::CoachProjection {

namespace {

constexpr const char* notAligned = "NOT_ALIGNED";
constexpr const char* onTask = "ON_TASK";

bool hasState(const ClassifierTick& tick, const char* state) { return tick.state && *tick.state == state; }

bool isJudged(const ClassifierTick& tick) { return tick.state && !isNotEvidenceOfDrift(tick); }

std::span<const TimedTick> ticksUpTo(std::span<const TimedTick> ticks, int64_t asOfMs) {
    const auto end = std::upper_bound(ticks.begin(), ticks.end(), asOfMs,
                                      [](int64_t ms, const TimedTick& t) { return ms < t.ms; });
    return {ticks.begin(), end};
}

// The index of the first tick strictly after `ms`.
size_t firstAfter(std::span<const TimedTick> ticks, std::optional<int64_t> ms) {
    if (!ms) return 0;
    return size_t(std::upper_bound(ticks.begin(), ticks.end(), *ms,
                                   [](int64_t value, const TimedTick& t) { return value < t.ms; }) -
                  ticks.begin());
}

std::optional<int64_t> lastDecisionMs(std::span<const EventLogEvent> events, int64_t asOfMs) {
    const auto end = std::upper_bound(events.begin(), events.end(), asOfMs,
                                      [](int64_t ms, const EventLogEvent& e) { return ms < e.tsMs; });
    for (auto it = end; it != events.begin();)
        if ((--it)->type == "coach_decision") return it->tsMs;
    return std::nullopt;
}

std::optional<int64_t> later(std::optional<int64_t> a, std::optional<int64_t> b) {
    if (!a) return b;
    if (!b) return a;
    return std::max(*a, *b);
}

std::optional<std::string> nonBlank(const std::optional<std::string>& text) {
    if (!text) return std::nullopt;
    std::string trimmed = trimWhitespaceAndNewlines(*text);
    if (trimmed.empty()) return std::nullopt;
    return trimmed;
}

}  // namespace

bool isNotEvidenceOfDrift(const ClassifierTick& tick) {
    if (tick.state && *tick.state == ClassifierSelfObservation::abstainedState) return true;
    if (tick.frontmostApp && *tick.frontmostApp == "loginwindow") return true;
    return ClassifierSelfObservation::isSelfObservation(tick.frontmostApp);
}

std::optional<DriftSignal> latestOffTaskDriftSignal(std::span<const EventLogEvent> events,
                                                    std::span<const TimedTick> ticks, int64_t asOfMs,
                                                    std::optional<int64_t> countSinceMs) {
    const auto span = ticksUpTo(ticks, asOfMs);
    const size_t floor = firstAfter(span, countSinceMs);
    const auto isDrift = [&](size_t i) {
        return hasState(*span[i].tick, notAligned) && !isNotEvidenceOfDrift(*span[i].tick);
    };
    size_t newest = span.size();
    for (size_t i = span.size(); i-- > floor;)
        if (isDrift(i)) {
            newest = i;
            break;
        }
    if (newest == span.size()) return std::nullopt;
    // A quiet window begun since then means the coach already chose to hold this.
    if (QuietWindows::lastBackOffStartMs(events, asOfMs, span[newest].ms)) return std::nullopt;
    const size_t first = std::max(floor, firstAfter(span, QuietWindows::lastBackOffStartMs(events, span[newest].ms,
                                                                                          countSinceMs)));
    DriftSignal signal{span[newest].tick, span[newest].ms, span[newest].ms, 0};
    for (size_t i = newest + 1; i-- > first;)
        if (isDrift(i)) {
            ++signal.count;
            signal.firstMs = span[i].ms;
        }
    return signal;
}

std::optional<OnTaskSignal> latestOnTaskCheckinSignal(std::span<const EventLogEvent> events,
                                                      std::span<const TimedTick> ticks, int64_t asOfMs,
                                                      int everyTicks) {
    const auto span = ticksUpTo(ticks, asOfMs);
    const auto decisionMs = lastDecisionMs(events, asOfMs);
    const size_t first = firstAfter(span, later(decisionMs, QuietWindows::lastBackOffStartMs(events, asOfMs, decisionMs)));
    // What the classifier judged just before the count starts decides whether the first on-task tick
    // is a return.
    const ClassifierTick* previous = nullptr;
    for (size_t i = first; i-- > 0;)
        if (isJudged(*span[i].tick)) {
            previous = span[i].tick;
            break;
        }
    std::optional<OnTaskSignal> signal;
    int64_t count = 0;
    for (size_t i = first; i < span.size(); ++i) {
        const ClassifierTick& tick = *span[i].tick;
        if (!isJudged(tick)) continue;
        if (hasState(tick, onTask)) {
            ++count;
            const bool returned = previous && hasState(*previous, notAligned);
            if (returned || (everyTicks > 0 && count % everyTicks == 0)) signal = OnTaskSignal{&tick, span[i].ms, returned};
        }
        previous = &tick;
    }
    return signal;
}

std::string describeTick(const ClassifierTick& tick) {
    std::vector<std::string> parts;
    if (const auto app = nonBlank(tick.frontmostApp)) parts.push_back(*app);
    const auto title = nonBlank(tick.browserTitle) ? nonBlank(tick.browserTitle) : nonBlank(tick.frontmostWindowTitle);
    if (title) parts.push_back(GateScreenText::quotedTitle(*title));
    std::string text = parts.empty() ? "an unnamed window" : join(parts, " / ");
    if (tick.reason && nonBlank(tick.reason)) text += " — " + GateScreenText::quoted(*tick.reason, ScreenText::reasonCap);
    return text;
}

std::string renderClassifierDriftTurn(const DriftSignal& signal) {
    return SyntheticUserMarkers::wrap(SyntheticUserMarkers::Family::classifierDrift,
                                      "off task: " + describeTick(*signal.tick), signal.tsMs);
}

std::string renderClassifierDriftQueueTurn(const DriftSignal& signal) {
    return SyntheticUserMarkers::wrap(SyntheticUserMarkers::Family::classifierDrift,
                                      "off task since " + ProjectionTimeText::hourMinute(signal.firstMs) + " across " +
                                          std::to_string(signal.count) +
                                          " checks; most recent: " + describeTick(*signal.tick),
                                      signal.tsMs);
}

std::string renderTrailingDriftTurn(const DriftSignal& signal) {
    return signal.count > 1 ? renderClassifierDriftQueueTurn(signal) : renderClassifierDriftTurn(signal);
}

std::string renderClassifierOnTaskCheckinTurn(const OnTaskSignal& signal) {
    return SyntheticUserMarkers::wrap(SyntheticUserMarkers::Family::classifierCheckin,
                                      std::string(signal.isReturnFromDrift ? "back on task: " : "still on task: ") +
                                          describeTick(*signal.tick),
                                      signal.tsMs);
}

bool isGenuineUserReply(const EventLogEvent& event) {
    const JSONValue* text = event.detail.member("text");
    const std::string* words = text ? text->stringIfAny() : nullptr;
    if (event.type == "checker_input_received") return !words || !SyntheticUserMarkers::isSyntheticMarkerText(*words);
    if (event.type != "app_chat_message") return false;
    const JSONValue* role = event.detail.member("role");
    if (!role || role->stringIfAny() == nullptr || *role->stringIfAny() != "user") return false;
    return !words || !SyntheticUserMarkers::isSyntheticMarkerText(*words);
}

}  // namespace aimwise::CoachProjection
