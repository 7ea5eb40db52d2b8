#pragma once
// The recent past as the gate reads it: hours of classifier samples compressed into state changes,
// what the person said and declared, and each check-in with its reason and outcome. Everything is
// told in the third person, and screen text only ever appears in double quotes, so the gate cannot
// mistake it for the person's words. Nothing here fails: what cannot be read gives no line.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "AimwiseCore/events/classifier_tick.h"
#include "AimwiseCore/events/event_log_event.h"

namespace aimwise {

struct AppShare {
    std::string app;
    double minutes = 0;
    bool operator==(const AppShare&) const = default;
};

// What the capture agent recorded, independent of the classifier.
struct CaptureWindowSummary {
    int64_t asOfMs = 0;
    int64_t windowMinutes = 0;
    std::vector<AppShare> appShares;  // at most six, most time first
    std::optional<std::string> frontmostNow;
    bool operator==(const CaptureWindowSummary&) const = default;
};

namespace CoachGateTimeline {

inline constexpr double defaultBoundHours = 24.0;
inline constexpr double defaultStartStep = 3600.0;  // seconds
inline constexpr int userTextCap = 240;

struct Line {
    int64_t tsMs = 0;
    std::string text;
    bool operator==(const Line&) const = default;
};

struct Window {
    int64_t startMs = 0;
    int64_t endMs = 0;  // both ends included
};

struct Declaration {
    int64_t tsMs = 0;
    std::string notes;
    std::optional<int64_t> horizonMinutes;
    std::optional<std::string> legacyUntil;
    bool operator==(const Declaration&) const = default;
};

// A tick with its `at` already parsed; the pointer must outlive the use.
struct TimedTick {
    int64_t ms = 0;
    const ClassifierTick* tick = nullptr;
};

// "H:mm" and "MMM d, H:mm" in the current time zone.
std::string formatTime(int64_t ms);
std::string formatDateTime(int64_t ms);

// The later of `floorMs` and `nowMs` less `boundHours`.
int64_t effectiveStart(int64_t floorMs, int64_t nowMs, double boundHours);
// As effectiveStart, with the bound first rounded down to a whole multiple of `stepSec` since the
// epoch (no rounding for a step of zero or less). The head of the timeline then stays the same
// between polls, and lines fall away a step at a time, which keeps a prompt cache warm.
int64_t stableStart(int64_t floorMs, int64_t nowMs, double boundHours, double stepSec);

// Ticks whose time parses and lies in the window, oldest first (stable for equal times).
std::vector<TimedTick> windowTicks(const std::vector<ClassifierTick>& ticks, Window window);

// Sorted by time, stably, from: classifier state changes, declared-task changes the ticks saw,
// declarations, and the conversation.
std::vector<Line> lines(const std::vector<EventLogEvent>& events, const std::vector<ClassifierTick>& ticks,
                        Window window);
// The same from events already sorted by time and ticks already in the window.
std::vector<Line> lines(std::span<const EventLogEvent> sortedEvents, std::span<const TimedTick> windowTicks,
                        Window window);

// Declarations up to `nowMs`: a standing one from before `startMs` shows with its date; one from
// before `startMs` that something later replaced or cleared gives nothing.
std::vector<Line> declarationLines(std::span<const EventLogEvent> events, int64_t startMs, int64_t nowMs);
std::vector<Declaration> declarations(std::span<const EventLogEvent> events, int64_t nowMs);

std::optional<std::string> currentObservationLine(std::span<const TimedTick> windowTicks);
std::optional<std::string> captureWindowLine(const CaptureWindowSummary& summary);
// The current observation line for the window from `asOfMs` less `lookbackMs` to `asOfMs`.
std::optional<std::string> currentObservationSummary(const std::vector<ClassifierTick>& ticks, int64_t asOfMs,
                                                     int64_t lookbackMs);

// The lines, the current observation line and the capture line, joined by newlines.
std::string render(const std::vector<EventLogEvent>& events, const std::vector<ClassifierTick>& ticks,
                   int64_t floorMs, int64_t nowMs, double boundHours = defaultBoundHours,
                   const std::optional<CaptureWindowSummary>& capture = std::nullopt,
                   double startStep = defaultStartStep);
std::string render(std::span<const EventLogEvent> events, std::span<const TimedTick> windowTicks, Window window,
                   const std::optional<CaptureWindowSummary>& capture);

}  // namespace CoachGateTimeline
}  // namespace aimwise
