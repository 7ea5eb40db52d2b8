#pragma once
// The coach driver's copy of the two logs, kept between turns so that a turn costs what arrived since
// the last one: the logs are read incrementally, and each classifier time is read once. Lines that do
// not decode are counted and reported, never fatal; a log that cannot be read keeps what was held.
// What no projection can show any more is let go, so a driver that runs for months stays small: rows
// older than `retainMs` before the projected time, but for the declarations, the medication schedule
// and the coach's newest words and decision, which a projection still reads however old they are.
// One owner: not safe for concurrent use.
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "AimwiseCore/coach/coach_projection.h"
#include "AimwiseCore/events/incremental_jsonl_reader.h"

namespace aimwise {

class CoachProjectionSource {
public:
    using Log = std::function<void(const std::string&)>;

    static constexpr int64_t defaultRetainMs = 48 * 3'600'000;

    explicit CoachProjectionSource(const std::filesystem::path& dataRoot, Log log = {},
                                   int64_t retainMs = defaultRetainMs);

    // Brings both logs up to date.
    void refresh();
    CoachProjection::Result project(int64_t asOfMs, const std::optional<std::string>& consolidatedNotes,
                                    const CoachProjection::Window& window,
                                    CoachProjection::DeadToolCallPolicy deadCalls);

    // In time order; the ticks point into storage this object owns.
    std::span<const EventLogEvent> events() const { return events_; }
    std::span<const CoachProjection::TimedTick> ticks() const { return ticks_; }

private:
    struct Counter {
        int64_t skipped = 0;
    };

    void refreshEvents();
    void refreshTicks();
    void report(const std::string& file, Counter& counter);
    void letGoBefore(int64_t cutoffMs);
    void forget();

    Log log_;
    int64_t retainMs_;
    std::optional<int64_t> heldFromMs_;
    std::shared_ptr<Counter> eventsSkipped_ = std::make_shared<Counter>();
    std::shared_ptr<Counter> ticksSkipped_ = std::make_shared<Counter>();
    IncrementalJSONLReader<EventLogEvent> eventsReader_;
    IncrementalJSONLReader<ClassifierTick> ticksReader_;
    std::vector<EventLogEvent> events_;
    // A deque, so that appending and letting go of the oldest keep the ticks' pointers valid; each row
    // with its time, when that reads.
    std::deque<std::pair<std::optional<int64_t>, ClassifierTick>> tickRows_;
    std::vector<CoachProjection::TimedTick> ticks_;
};

}  // namespace aimwise
