#include "AimwiseCore/coach/coach_projection.h"

#include <algorithm>
#include <cmath>

#include "AimwiseCore/classifier/self_observation.h"
#include "AimwiseCore/coach/coach_tool_arguments.h"
#include "AimwiseCore/coach/gate_screen_text.h"
#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/coach/projection_time_text.h"
#include "AimwiseCore/coach/real_turn_fold.h"
#include "AimwiseCore/coach/task_minutes.h"
#include "AimwiseCore/privacy/screen_text.h"
#include "CaptureShared/common/text.h"

namespace aimwise::CoachProjection {

namespace {

constexpr size_t reasonsPerRun = 3;

const std::string* detailString(const EventLogEvent& event, const char* key) {
    const JSONValue* value = event.detail.member(key);
    return value ? value->stringIfAny() : nullptr;
}

std::optional<std::string> nonBlank(const std::string* text) {
    if (!text) return std::nullopt;
    std::string trimmed = trimWhitespaceAndNewlines(*text);
    if (trimmed.empty()) return std::nullopt;
    return trimmed;
}

std::string at(int64_t ms) { return ProjectionTimeText::monthDayTime(ms); }

std::string quotedWords(const std::string& text) { return "\"" + ScreenText::sanitize(text, 240) + "\""; }

int64_t floorDiv(int64_t value, int64_t divisor) {
    const int64_t quotient = value / divisor;
    return (value % divisor != 0 && (value < 0) != (divisor < 0)) ? quotient - 1 : quotient;
}

auto byEventTime = [](const EventLogEvent& a, const EventLogEvent& b) { return a.tsMs < b.tsMs; };

template <typename Row>
std::span<const Row> fromTime(std::span<const Row> rows, int64_t ms, bool inclusive) {
    const auto key = [](const Row& row) {
        if constexpr (std::is_same_v<Row, EventLogEvent>) return row.tsMs;
        else return row.ms;
    };
    const auto begin = inclusive ? std::partition_point(rows.begin(), rows.end(), [&](const Row& r) { return key(r) < ms; })
                                 : std::partition_point(rows.begin(), rows.end(), [&](const Row& r) { return key(r) <= ms; });
    return {begin, rows.end()};
}

template <typename Row>
std::span<const Row> beforeTime(std::span<const Row> rows, int64_t ms) {
    return rows.first(rows.size() - fromTime(rows, ms, true).size());
}

struct RunKey {
    const std::optional<std::string>* state;
    const std::optional<std::string>* app;
    const std::optional<std::string>* title;
    bool operator==(const RunKey& other) const {
        return *state == *other.state && *app == *other.app && *title == *other.title;
    }
};

RunKey runKeyOf(const ClassifierTick& tick) {
    const bool hasBrowserTitle = tick.browserTitle && !tick.browserTitle->empty();
    return {&tick.state, &tick.frontmostApp, hasBrowserTitle ? &tick.browserTitle : &tick.frontmostWindowTitle};
}

bool saysNothing(const ClassifierTick& tick) {
    return (tick.state && *tick.state == ClassifierSelfObservation::abstainedState) ||
           ClassifierSelfObservation::isSelfObservation(tick.frontmostApp);
}

}  // namespace

int64_t Window::highResBoundary(int64_t asOfMs) const { return asOfMs - std::llround(highResSpan * 1000.0); }

int64_t Window::collapsedFarEdge(int64_t asOfMs) const {
    const int64_t boundary = highResBoundary(asOfMs);
    const int64_t stepMs = std::llround(stepInterval * 1000.0);
    if (stepMs <= 0) return boundary;
    return floorDiv(boundary, stepMs) * stepMs;
}

std::vector<TimedTick> timedTicks(const std::vector<ClassifierTick>& ticks) {
    std::vector<std::string_view> texts;
    texts.reserve(ticks.size());
    for (const ClassifierTick& tick : ticks) texts.emplace_back(tick.at);
    const auto times = ProjectionDateParsing::parseLocalMany(texts);
    std::vector<TimedTick> timed;
    timed.reserve(ticks.size());
    for (size_t i = 0; i < ticks.size(); ++i)
        if (times[i]) timed.push_back({*times[i], &ticks[i]});
    // Text order is time order except around a change of daylight saving.
    if (!std::is_sorted(timed.begin(), timed.end(), [](const TimedTick& a, const TimedTick& b) { return a.ms < b.ms; }))
        std::stable_sort(timed.begin(), timed.end(), [](const TimedTick& a, const TimedTick& b) { return a.ms < b.ms; });
    return timed;
}

std::string renderNotesBlock(const std::string& notes, int64_t farEdgeMs) {
    return "=== MEMORY (older than " + at(farEdgeMs) + ") ===\n" + notes;
}

std::string renderTaskDeclared(const EventLogEvent& event) {
    const auto task = nonBlank(detailString(event, "notes")) ? nonBlank(detailString(event, "notes"))
                                                               : nonBlank(detailString(event, "task"));
    std::string line = at(event.tsMs) + " declared: " + (task ? quotedWords(*task) : "(unspecified)");
    if (const auto until = nonBlank(detailString(event, "until")))
        line += " (until " + ScreenText::sanitize(*until, 40) + ")";
    else if (const auto minutes = cleanTaskMinutes(event.detail.member("horizon_minutes")))
        line += " (" + std::to_string(*minutes) + " minutes)";
    return line;
}

std::string renderUIClosed(const EventLogEvent& event) {
    std::string line = at(event.tsMs) + " closed the UI";
    if (const auto by = nonBlank(detailString(event, "dismissed_by"))) line += " (dismissed by " + ScreenText::sanitize(*by, 40) + ")";
    return line;
}

std::string renderCoachSession(const EventLogEvent& event) {
    const auto task = nonBlank(detailString(event, "declared_task"));
    const JSONValue* turns = event.detail.member("turns");
    const double* count = turns ? turns->numberIfAny() : nullptr;
    const auto reason = nonBlank(detailString(event, "end_reason"));
    return at(event.tsMs) + " spoke about " + (task ? quotedWords(*task) : "(no task)") + ", " +
           GoQuietArguments::minutesText(count && std::isfinite(*count) ? std::trunc(*count) : 0) + " turn(s), " +
           (reason ? ScreenText::sanitize(*reason, 80) : "ended");
}

std::string renderCoachDecision(const EventLogEvent& event, bool withReason) {
    const auto move = nonBlank(detailString(event, "move"));
    std::string line = at(event.tsMs) + " the coach decided " + (move ? ScreenText::sanitize(*move, 40) : "nothing recorded");
    if (const auto state = nonBlank(detailString(event, "judgment_state")))
        line += " while the classifier said " + ScreenText::sanitize(*state, 40);
    if (withReason)
        if (const auto reason = nonBlank(detailString(event, "reason"))) line += " — " + ScreenText::sanitize(*reason, 200);
    return line;
}

std::optional<std::string> renderProjectLink(const EventLogEvent& event) {
    const auto app = nonBlank(detailString(event, "app"));
    const auto project = nonBlank(detailString(event, "project"));
    if (!app || !project) return std::nullopt;
    return at(event.tsMs) + " fact: " + GateScreenText::quoted(*app, ScreenText::titleCap) + " is part of " +
           GateScreenText::quoted(*project, ScreenText::titleCap);
}

std::optional<std::string> renderSummaryEvent(const EventLogEvent& event) {
    const std::string& type = event.type;
    if (type == "task_declared") return renderTaskDeclared(event);
    if (type == "task_cleared") return at(event.tsMs) + " task cleared";
    if (type == "ui_opened") return at(event.tsMs) + " opened the UI";
    if (type == "ui_closed") return renderUIClosed(event);
    if (type == "coach_session") return renderCoachSession(event);
    if (type == "coach_decision") return renderCoachDecision(event, true);
    if (type == "app_project_link_asserted") return renderProjectLink(event);
    if (type == "checker_notification_suppressed" || type == "checker_recheck_resolved") {
        const auto text = nonBlank(detailString(event, "text"));
        if (!text) return std::nullopt;
        return at(event.tsMs) + (type == "checker_recheck_resolved" ? " [recheck resolved] " : " [suppressed] ") +
               GateScreenText::quoted(*text, ScreenText::reasonCap);
    }
    return std::nullopt;
}

std::vector<SummaryLine> renderTickRuns(std::span<const TimedTick> ticks) {
    std::vector<SummaryLine> lines;
    size_t i = 0;
    while (i < ticks.size()) {
        const RunKey key = runKeyOf(*ticks[i].tick);
        size_t end = i + 1;
        while (end < ticks.size() && runKeyOf(*ticks[end].tick) == key) ++end;

        const ClassifierTick& first = *ticks[i].tick;
        std::vector<std::string> parts{first.state ? ScreenText::sanitize(*first.state, 40) : "(no verdict)"};
        if (const auto app = nonBlank(first.frontmostApp ? &*first.frontmostApp : nullptr))
            parts.push_back(ScreenText::sanitize(*app, 80));
        if (const auto title = nonBlank(*key.title ? &**key.title : nullptr)) parts.push_back(GateScreenText::quotedTitle(*title));
        std::string line = at(ticks[i].ms) + "–" + at(ticks[end - 1].ms) + " " + join(parts, "/") + " (" +
                           std::to_string(end - i) + " ticks)";
        if (saysNothing(first)) {
            line += std::string(" — ") + ClassifierSelfObservation::abstainedReason;
        } else {
            std::vector<const std::string*> reasons;  // the newest few distinct ones
            for (size_t j = i; j < end; ++j) {
                const auto& reason = ticks[j].tick->reason;
                if (!reason || trimWhitespaceAndNewlines(*reason).empty()) continue;
                if (std::any_of(reasons.begin(), reasons.end(), [&](const std::string* r) { return *r == *reason; })) continue;
                reasons.push_back(&*reason);
                if (reasons.size() > reasonsPerRun) reasons.erase(reasons.begin());
            }
            std::vector<std::string> quoted;
            for (const std::string* reason : reasons) quoted.push_back(GateScreenText::quoted(*reason, ScreenText::reasonCap));
            if (!quoted.empty()) line += " — " + join(quoted, ", ");
        }
        lines.push_back({ticks[i].ms, std::move(line)});
        i = end;
    }
    return lines;
}

std::optional<std::string> renderWindowSummary(std::span<const EventLogEvent> events, std::span<const TimedTick> ticks,
                                               int64_t farEdgeMs) {
    std::vector<SummaryLine> lines = renderTickRuns(ticks);
    for (const EventLogEvent& event : events)
        if (auto line = renderSummaryEvent(event)) lines.push_back({event.tsMs, std::move(*line)});
    if (lines.empty()) return std::nullopt;
    std::stable_sort(lines.begin(), lines.end(), [](const SummaryLine& a, const SummaryLine& b) { return a.tsMs < b.tsMs; });
    std::string text = "=== CONTEXT (since " + at(farEdgeMs) + ") ===";
    for (const SummaryLine& line : lines) text += "\n" + line.text;
    return text;
}

Result project(std::span<const EventLogEvent> allEvents, std::span<const TimedTick> allTicks,
               const std::optional<std::string>& consolidatedNotes, int64_t asOfMs, const Window& window,
               DeadToolCallPolicy deadCalls) {
    ProjectionTimeText::followDefaultZone();
    const auto events = allEvents.first(allEvents.size() - fromTime(allEvents, asOfMs, false).size());
    const auto ticks = allTicks.first(allTicks.size() - fromTime(allTicks, asOfMs, false).size());
    Result result;
    result.collapsedFarEdge = window.collapsedFarEdge(asOfMs);
    result.highResBoundary = std::max(result.collapsedFarEdge, window.highResBoundary(asOfMs));
    const int64_t farEdge = result.collapsedFarEdge;
    const int64_t boundary = result.highResBoundary;

    // The seed blocks are background, never the coach's own words: always the user role.
    if (consolidatedNotes) result.messages.push_back(ChatMessage::user(renderNotesBlock(*consolidatedNotes, farEdge)));
    const auto summaryEvents = beforeTime(fromTime(events, farEdge, true), boundary);
    const auto summaryTicks = beforeTime(fromTime(ticks, farEdge, true), boundary);
    if (auto summary = renderWindowSummary(summaryEvents, summaryTicks, farEdge))
        result.messages.push_back(ChatMessage::user(std::move(*summary)));

    const auto recent = fromTime(events, boundary, true);
    RealTurnFold::Accumulator fold = RealTurnFold::run(recent, beforeTime(events, boundary), deadCalls);
    for (ChatMessage& message : fold.messages) result.messages.push_back(std::move(message));

    // The trailing turn: what the classifier noticed since the conversation last moved.
    const int64_t lastRealTurnMs = std::max(boundary, fold.lastRealTurnMs.value_or(boundary));
    if (const auto drift = latestOffTaskDriftSignal(events, ticks, asOfMs, lastRealTurnMs);
        drift && drift->tsMs > lastRealTurnMs) {
        result.messages.push_back(ChatMessage::user(renderTrailingDriftTurn(*drift)));
    } else if (const auto onTask = latestOnTaskCheckinSignal(events, ticks, asOfMs, window.onTaskCheckinEveryTicks);
               onTask && onTask->tsMs > lastRealTurnMs) {
        result.messages.push_back(ChatMessage::user(renderClassifierOnTaskCheckinTurn(*onTask)));
    }
    return result;
}

Result project(const std::vector<EventLogEvent>& events, const std::vector<ClassifierTick>& ticks,
               const std::optional<std::string>& consolidatedNotes, int64_t asOfMs, const Window& window,
               DeadToolCallPolicy deadCalls) {
    const std::vector<TimedTick> timed = timedTicks(ticks);
    if (std::is_sorted(events.begin(), events.end(), byEventTime))
        return project(std::span<const EventLogEvent>(events), timed, consolidatedNotes, asOfMs, window, deadCalls);
    std::vector<EventLogEvent> sorted = events;
    std::stable_sort(sorted.begin(), sorted.end(), byEventTime);
    return project(std::span<const EventLogEvent>(sorted), timed, consolidatedNotes, asOfMs, window, deadCalls);
}

}  // namespace aimwise::CoachProjection
