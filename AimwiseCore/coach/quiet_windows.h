#pragma once
// The coach's quiet windows, as events in the log. `do_not_disturb` is the coach's own choice to hold
// its messages ("backoff_set", 5 to 60 minutes; it may end early with "backoff_cleared"). `go_quiet` is
// the person's instruction ("user_quiet_requested"), which holds for exactly as long as they said
// unless they lift it themselves ("user_quiet_cleared"). A decision that carries
// `backoff_until_ts_ms` counts as a back-off too, as older coaches wrote only that. Every question
// here takes events in time order and looks only at those at or before `asOfMs`.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "AimwiseCore/coach/coach_tool_arguments.h"
#include "AimwiseCore/events/event_log_event.h"

namespace aimwise {

struct QuietWindow {
    enum class Kind { doNotDisturb, userQuiet };
    Kind kind = Kind::doNotDisturb;
    int64_t sinceMs = 0;
    int64_t untilMs = 0;  // already cut short by a later clearing event
    std::optional<std::string> expectation;
    bool isActive(int64_t asOfMs) const { return sinceMs <= asOfMs && asOfMs < untilMs; }
    bool operator==(const QuietWindow&) const = default;
};

namespace QuietWindows {

inline constexpr const char* backOffSetType = "backoff_set";
inline constexpr const char* backOffClearedType = "backoff_cleared";
inline constexpr const char* userQuietRequestedType = "user_quiet_requested";
inline constexpr const char* userQuietClearedType = "user_quiet_cleared";
inline constexpr double minBackOffMinutes = 5;
inline constexpr double maxBackOffMinutes = 60;

// The newest window of each kind begun at or before `asOfMs`, active or not.
std::optional<QuietWindow> latestDoNotDisturbWindow(std::span<const EventLogEvent> events, int64_t asOfMs);
std::optional<QuietWindow> latestUserQuietWindow(std::span<const EventLogEvent> events, int64_t asOfMs);
// The end of the coach's own back-off when one is in force at `asOfMs`.
std::optional<int64_t> latestBackOffUntilMs(std::span<const EventLogEvent> events, int64_t asOfMs);
bool userQuietIsActive(std::span<const EventLogEvent> events, int64_t asOfMs);
// When the newest window of either kind began: what the classifier saw before it was already dealt
// with. Only starts after `afterMs` are looked for, which bounds the walk back through the log.
std::optional<int64_t> lastBackOffStartMs(std::span<const EventLogEvent> events, int64_t asOfMs,
                                          std::optional<int64_t> afterMs = std::nullopt);
bool startsQuietWindow(const EventLogEvent& event);

// The one answer to "may the coach speak now?": nothing when it may; otherwise the window that keeps
// it quiet longest, and so until when. The person's own quiet wins a tie.
std::optional<QuietWindow> mustStayQuiet(std::span<const EventLogEvent> events, int64_t asOfMs);

// The nightly pass is holding off to save power: its newest start and end events say so.
bool isConsolidationDeferredForPower(std::span<const EventLogEvent> events, int64_t asOfMs);

}  // namespace QuietWindows

namespace UserQuietDuration {
// Where a usable go_quiet request ends; nothing for a malformed one.
std::optional<int64_t> endMs(const GoQuietArguments::Parsed& parsed, int64_t asOfMs);
}  // namespace UserQuietDuration

namespace UserQuietRequestedEvent {
// "user_quiet_requested" with `until_ts_ms` and `reason`.
EventLogEvent make(int64_t untilMs, std::string reason, int64_t asOfMs);
}  // namespace UserQuietRequestedEvent

namespace BackOffSetEvent {
// "backoff_set" with `until_ts_ms`, `minutes` and `expectation`.
EventLogEvent make(int64_t untilMs, double minutes, std::string expectation, int64_t asOfMs);
}  // namespace BackOffSetEvent

}  // namespace aimwise
