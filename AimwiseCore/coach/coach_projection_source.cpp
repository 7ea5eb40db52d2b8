#include "AimwiseCore/coach/coach_projection_source.h"

#include <algorithm>
#include <cmath>

#include "AimwiseCore/coach/meds_checkins.h"
#include "AimwiseCore/coach/projection_date_parsing.h"

namespace aimwise {

namespace fs = std::filesystem;

namespace {

bool byEventTime(const EventLogEvent& a, const EventLogEvent& b) { return a.tsMs < b.tsMs; }
bool byTickTime(const CoachProjection::TimedTick& a, const CoachProjection::TimedTick& b) { return a.ms < b.ms; }

// Appended rows nearly always arrive in order; only a row older than what is held costs a sort.
template <typename Row, typename Less>
void appendInOrder(std::vector<Row>& held, size_t before, Less less) {
    const bool ordered = std::is_sorted(held.begin() + before, held.end(), less) &&
                         (before == 0 || before == held.size() || !less(held[before], held[before - 1]));
    if (!ordered) std::stable_sort(held.begin(), held.end(), less);
}

}  // namespace

CoachProjectionSource::CoachProjectionSource(const fs::path& dataRoot, Log log, int64_t retainMs)
    : log_(std::move(log)), retainMs_(retainMs),
      eventsReader_(dataRoot / "io-layer" / "events.jsonl",
                    [counter = eventsSkipped_](std::string_view line) {
                        auto event = EventLogEvent::decode(line);
                        if (!event) ++counter->skipped;
                        return event;
                    },
                    200),
      ticksReader_(dataRoot / "checker-log.jsonl",
                   [counter = ticksSkipped_](std::string_view line) {
                       auto tick = ClassifierTick::decode(line);
                       if (!tick) ++counter->skipped;
                       return tick;
                   },
                   500) {}

void CoachProjectionSource::report(const std::string& file, Counter& counter) {
    if (counter.skipped > 0 && log_)
        log_("projection: " + file + ": skipped " + std::to_string(counter.skipped) +
             " line(s) that did not decode; the rest of the log is used");
    counter.skipped = 0;
}

// A log that is gone is empty; one that fails to read keeps what was held and is read whole next time.
void CoachProjectionSource::refreshEvents() {
    try {
        auto result = eventsReader_.read();
        const bool reset = result.kind == IncrementalReadResult<EventLogEvent>::Kind::reset;
        if (reset) {
            events_.clear();
            heldFromMs_.reset();
        }
        const size_t before = events_.size();
        events_.insert(events_.end(), std::make_move_iterator(result.rows.begin()), std::make_move_iterator(result.rows.end()));
        appendInOrder(events_, before, byEventTime);
    } catch (const fs::filesystem_error& error) {
        eventsReader_.clearWatermark();
        std::error_code ignored;
        if (!fs::exists(eventsReader_.url(), ignored)) events_.clear();
        else if (log_) log_("projection: the event log could not be read (" + std::string(error.what()) + "); going on with what was read before");
    }
    report("events.jsonl", *eventsSkipped_);
}

void CoachProjectionSource::refreshTicks() {
    try {
        auto result = ticksReader_.read();
        if (result.kind == IncrementalReadResult<ClassifierTick>::Kind::reset) {
            ticks_.clear();
            tickRows_.clear();
            heldFromMs_.reset();
        }
        std::vector<std::string_view> texts;
        texts.reserve(result.rows.size());
        for (const ClassifierTick& tick : result.rows) texts.emplace_back(tick.at);
        const auto times = ProjectionDateParsing::parseLocalMany(texts);
        const size_t before = ticks_.size();
        for (size_t i = 0; i < times.size(); ++i) {
            tickRows_.emplace_back(times[i], std::move(result.rows[i]));
            if (times[i]) ticks_.push_back({*times[i], &tickRows_.back().second});
        }
        appendInOrder(ticks_, before, byTickTime);
    } catch (const fs::filesystem_error& error) {
        ticksReader_.clearWatermark();
        std::error_code ignored;
        if (!fs::exists(ticksReader_.url(), ignored)) {
            ticks_.clear();
            tickRows_.clear();
        } else if (log_) {
            log_("projection: the classifier log could not be read (" + std::string(error.what()) +
                 "); going on with what was read before");
        }
    }
    report("checker-log.jsonl", *ticksSkipped_);
}

void CoachProjectionSource::refresh() {
    refreshEvents();
    refreshTicks();
}

void CoachProjectionSource::forget() {
    eventsReader_.clearWatermark();
    ticksReader_.clearWatermark();
    events_.clear();
    ticks_.clear();
    tickRows_.clear();
    heldFromMs_.reset();
}

void CoachProjectionSource::letGoBefore(int64_t cutoffMs) {
    if (heldFromMs_ && *heldFromMs_ >= cutoffMs) return;
    const auto firstKept = std::lower_bound(events_.begin(), events_.end(), cutoffMs,
                                            [](const EventLogEvent& e, int64_t ms) { return e.tsMs < ms; });
    const auto isCoachWords = [](const EventLogEvent& e) {
        const JSONValue* role = e.detail.member("role");
        return e.type == "checker_output_sent" ||
               (e.type == "app_chat_message" && role && role->stringIfAny() && *role->stringIfAny() == "coach");
    };
    const size_t dropped = size_t(firstKept - events_.begin());
    std::optional<size_t> lastWords, lastDecision;
    for (size_t i = 0; i < dropped; ++i) {
        if (isCoachWords(events_[i])) lastWords = i;
        if (events_[i].type == "coach_decision") lastDecision = i;
    }
    std::vector<EventLogEvent> kept;
    for (size_t i = 0; i < dropped; ++i) {
        const EventLogEvent& e = events_[i];
        if (i == lastWords || i == lastDecision || e.type == "task_declared" || e.type == "task_cleared" ||
            e.type == MedsCheckins::scheduleType)
            kept.push_back(std::move(events_[i]));
    }
    kept.insert(kept.end(), std::make_move_iterator(firstKept), std::make_move_iterator(events_.end()));
    events_ = std::move(kept);
    ticks_.erase(ticks_.begin(), std::lower_bound(ticks_.begin(), ticks_.end(), cutoffMs,
                                                  [](const CoachProjection::TimedTick& t, int64_t ms) { return t.ms < ms; }));
    // Only rows that no tick points at any more: older ones, and those whose time did not read.
    while (!tickRows_.empty() && (!tickRows_.front().first || *tickRows_.front().first < cutoffMs)) tickRows_.pop_front();
    heldFromMs_ = cutoffMs;
}

CoachProjection::Result CoachProjectionSource::project(int64_t asOfMs, const std::optional<std::string>& consolidatedNotes,
                                                       const CoachProjection::Window& window,
                                                       CoachProjection::DeadToolCallPolicy deadCalls) {
    const int64_t shown = std::llround((window.highResSpan + window.stepInterval) * 1000.0);
    // Let go an hour at a time, not on every turn.
    constexpr int64_t hourMs = 3'600'000;
    const int64_t bound = asOfMs - std::max(retainMs_, shown);
    const int64_t cutoffMs = (bound >= 0 ? bound / hourMs : (bound - hourMs + 1) / hourMs) * hourMs;
    // A projection from before what was let go (the clock moved back) needs the logs whole again.
    if (heldFromMs_ && cutoffMs < *heldFromMs_) forget();
    refresh();
    letGoBefore(cutoffMs);
    return CoachProjection::project(events(), ticks(), consolidatedNotes, asOfMs, window, deadCalls);
}

}  // namespace aimwise
