#include "AimwiseCore/coach/coach_projection_source.h"

#include <algorithm>

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

CoachProjectionSource::CoachProjectionSource(const fs::path& dataRoot, Log log)
    : log_(std::move(log)),
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
        if (reset) events_.clear();
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
        }
        const size_t firstNew = tickRows_.size();
        for (ClassifierTick& tick : result.rows) tickRows_.push_back(std::move(tick));
        std::vector<std::string_view> texts;
        texts.reserve(tickRows_.size() - firstNew);
        for (size_t i = firstNew; i < tickRows_.size(); ++i) texts.emplace_back(tickRows_[i].at);
        const auto times = ProjectionDateParsing::parseLocalMany(texts);
        const size_t before = ticks_.size();
        for (size_t i = 0; i < times.size(); ++i)
            if (times[i]) ticks_.push_back({*times[i], &tickRows_[firstNew + i]});
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

CoachProjection::Result CoachProjectionSource::project(int64_t asOfMs, const std::optional<std::string>& consolidatedNotes,
                                                       const CoachProjection::Window& window,
                                                       CoachProjection::DeadToolCallPolicy deadCalls) {
    refresh();
    return CoachProjection::project(events(), ticks(), consolidatedNotes, asOfMs, window, deadCalls);
}

}  // namespace aimwise
