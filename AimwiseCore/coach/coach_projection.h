#pragma once
// The coach keeps no conversation of its own: every turn rebuilds one from the event log and the
// classifier log. The result is, in order: the consolidated memory of what lies beyond the far edge;
// a compact context of what lies between the far edge and the point from which turns appear in full
// (runs of classifier looks, declarations, the coach's past decisions); the recent turns in full; and,
// when the classifier noticed something since the last turn, that as the trailing turn. The far edge
// moves only by whole steps, so the memory block stays byte for byte the same from turn to turn.
// Nothing here throws: an event that lacks what its line needs gives no line.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "AimwiseCore/coach/historical_tool_results.h"
#include "AimwiseCore/coach/projection_signals.h"
#include "AimwiseCore/events/classifier_tick.h"
#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/models/chat_types.h"

namespace aimwise::CoachProjection {

struct Window {
    double highResSpan = 6 * 3600.0;  // seconds: how far back turns appear in full
    double stepInterval = 3600.0;     // seconds: the rounding step of the far edge
    int onTaskCheckinEveryTicks = 40;

    // `asOfMs` less highResSpan.
    int64_t highResBoundary(int64_t asOfMs) const;
    // The boundary rounded down to a whole multiple of stepInterval since the epoch.
    int64_t collapsedFarEdge(int64_t asOfMs) const;
};

struct Result {
    std::vector<ChatMessage> messages;
    int64_t highResBoundary = 0;
    int64_t collapsedFarEdge = 0;
};

// Events in any order, ticks as read; both are put in time order first.
Result project(const std::vector<EventLogEvent>& events, const std::vector<ClassifierTick>& ticks,
               const std::optional<std::string>& consolidatedNotes, int64_t asOfMs, const Window& window,
               DeadToolCallPolicy deadCalls);
// Events in time order and ticks with their times read, in time order: what a caller that keeps
// the logs between turns passes, so that no turn reads a time twice.
Result project(std::span<const EventLogEvent> events, std::span<const TimedTick> ticks,
               const std::optional<std::string>& consolidatedNotes, int64_t asOfMs, const Window& window,
               DeadToolCallPolicy deadCalls);

// Ticks whose time reads, in time order (stable), pointing into `ticks`.
std::vector<TimedTick> timedTicks(const std::vector<ClassifierTick>& ticks);

// "=== MEMORY (older than MM-dd HH:mm) ===", a newline and the notes.
std::string renderNotesBlock(const std::string& notes, int64_t farEdgeMs);
// "=== CONTEXT (since MM-dd HH:mm) ===" and a line for each event and each run of ticks from the far
// edge up to the boundary, in time order; nothing when there is no line.
std::optional<std::string> renderWindowSummary(std::span<const EventLogEvent> events, std::span<const TimedTick> ticks,
                                               int64_t farEdgeMs);

struct SummaryLine {
    int64_t tsMs = 0;
    std::string text;
};
// One line per run of consecutive ticks that share state, app and title.
std::vector<SummaryLine> renderTickRuns(std::span<const TimedTick> ticks);
// The line an event gives in the context, or nothing for a type the context does not show.
std::optional<std::string> renderSummaryEvent(const EventLogEvent& event);
std::string renderTaskDeclared(const EventLogEvent& event);
std::string renderUIClosed(const EventLogEvent& event);
std::string renderCoachSession(const EventLogEvent& event);
std::string renderCoachDecision(const EventLogEvent& event, bool withReason);
std::optional<std::string> renderProjectLink(const EventLogEvent& event);

}  // namespace aimwise::CoachProjection
