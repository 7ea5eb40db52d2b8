#include "AimwiseCore/coach/quiet_windows.h"

#include <algorithm>
#include <cmath>

#include "AimwiseCore/coach/projection_time_text.h"

namespace aimwise {

namespace {

using Kind = QuietWindow::Kind;

std::optional<int64_t> detailMs(const EventLogEvent& event, const char* key) {
    const JSONValue* value = event.detail.member(key);
    const double* number = value ? value->numberIfAny() : nullptr;
    return number ? wholeMilliseconds(*number) : std::nullopt;
}

// The events at or before `asOfMs`, assuming time order.
std::span<const EventLogEvent> upTo(std::span<const EventLogEvent> events, int64_t asOfMs) {
    const auto end = std::upper_bound(events.begin(), events.end(), asOfMs,
                                      [](int64_t ms, const EventLogEvent& e) { return ms < e.tsMs; });
    return {events.begin(), end};
}

// The end a window-starting event gives, or nothing when the event starts no window of `kind`.
std::optional<int64_t> startsWindow(const EventLogEvent& event, Kind kind) {
    if (kind == Kind::userQuiet)
        return event.type == QuietWindows::userQuietRequestedType ? detailMs(event, "until_ts_ms") : std::nullopt;
    if (event.type == QuietWindows::backOffSetType) return detailMs(event, "until_ts_ms");
    if (event.type == "coach_decision") return detailMs(event, "backoff_until_ts_ms");
    return std::nullopt;
}

std::optional<QuietWindow> latestWindow(std::span<const EventLogEvent> events, int64_t asOfMs, Kind kind) {
    const char* clearedType = kind == Kind::userQuiet ? QuietWindows::userQuietClearedType
                                                      : QuietWindows::backOffClearedType;
    const auto span = upTo(events, asOfMs);
    std::optional<int64_t> clearedAtMs;  // the earliest clearing after the window began
    for (size_t i = span.size(); i-- > 0;) {
        const EventLogEvent& event = span[i];
        if (event.type == clearedType) {
            clearedAtMs = event.tsMs;
            continue;
        }
        const auto untilMs = startsWindow(event, kind);
        if (!untilMs) continue;
        QuietWindow window{kind, event.tsMs, std::max(event.tsMs, *untilMs)};
        if (clearedAtMs) window.untilMs = std::min(window.untilMs, *clearedAtMs);
        if (const JSONValue* expectation = event.detail.member(event.type == "coach_decision" ? "dnd_expectation"
                                                                                             : "expectation"))
            if (expectation->stringIfAny()) window.expectation = *expectation->stringIfAny();
        return window;
    }
    return std::nullopt;
}

}  // namespace

namespace QuietWindows {

std::optional<QuietWindow> latestDoNotDisturbWindow(std::span<const EventLogEvent> events, int64_t asOfMs) {
    return latestWindow(events, asOfMs, Kind::doNotDisturb);
}

std::optional<QuietWindow> latestUserQuietWindow(std::span<const EventLogEvent> events, int64_t asOfMs) {
    return latestWindow(events, asOfMs, Kind::userQuiet);
}

std::optional<int64_t> latestBackOffUntilMs(std::span<const EventLogEvent> events, int64_t asOfMs) {
    const auto window = latestDoNotDisturbWindow(events, asOfMs);
    if (!window || !window->isActive(asOfMs)) return std::nullopt;
    return window->untilMs;
}

bool userQuietIsActive(std::span<const EventLogEvent> events, int64_t asOfMs) {
    const auto window = latestUserQuietWindow(events, asOfMs);
    return window && window->isActive(asOfMs);
}

bool startsQuietWindow(const EventLogEvent& event) {
    return startsWindow(event, Kind::doNotDisturb) || startsWindow(event, Kind::userQuiet);
}

std::optional<int64_t> lastBackOffStartMs(std::span<const EventLogEvent> events, int64_t asOfMs,
                                          std::optional<int64_t> afterMs) {
    const auto span = upTo(events, asOfMs);
    for (size_t i = span.size(); i-- > 0;) {
        if (afterMs && span[i].tsMs <= *afterMs) break;
        if (startsQuietWindow(span[i])) return span[i].tsMs;
    }
    return std::nullopt;
}

std::optional<QuietWindow> mustStayQuiet(std::span<const EventLogEvent> events, int64_t asOfMs) {
    std::optional<QuietWindow> longest;
    for (const auto& window : {latestUserQuietWindow(events, asOfMs), latestDoNotDisturbWindow(events, asOfMs)})
        if (window && window->isActive(asOfMs) && (!longest || window->untilMs > longest->untilMs)) longest = window;
    return longest;
}

bool isConsolidationDeferredForPower(std::span<const EventLogEvent> events, int64_t asOfMs) {
    const auto span = upTo(events, asOfMs);
    for (size_t i = span.size(); i-- > 0;) {
        if (span[i].type == "memory_consolidation_deferred_power_started") return true;
        if (span[i].type == "memory_consolidation_deferred_power_ended") return false;
    }
    return false;
}

}  // namespace QuietWindows

namespace UserQuietDuration {

std::optional<int64_t> endMs(const GoQuietArguments::Parsed& parsed, int64_t asOfMs) {
    if (std::holds_alternative<GoQuietArguments::RestOfDay>(parsed)) return LocalDay::nextMorningMs(asOfMs);
    if (const auto* minutes = std::get_if<GoQuietArguments::Minutes>(&parsed))
        return asOfMs + std::llround(minutes->applied * 60'000.0);
    return std::nullopt;
}

}  // namespace UserQuietDuration

namespace UserQuietRequestedEvent {

EventLogEvent make(int64_t untilMs, std::string reason, int64_t asOfMs) {
    return {.tsMs = asOfMs,
            .type = QuietWindows::userQuietRequestedType,
            .detail = JSONValue::Object{{"until_ts_ms", untilMs}, {"reason", std::move(reason)}}};
}

}  // namespace UserQuietRequestedEvent

namespace BackOffSetEvent {

EventLogEvent make(int64_t untilMs, double minutes, std::string expectation, int64_t asOfMs) {
    return {.tsMs = asOfMs,
            .type = QuietWindows::backOffSetType,
            .detail = JSONValue::Object{{"until_ts_ms", untilMs},
                                        {"minutes", minutes},
                                        {"expectation", std::move(expectation)}}};
}

}  // namespace BackOffSetEvent

}  // namespace aimwise
