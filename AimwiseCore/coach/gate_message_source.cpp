#include "AimwiseCore/coach/gate_message_source.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>

#include "AimwiseCore/coach/coach_gate_message.h"
#include "AimwiseCore/coach/meds_checkins.h"
#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/memory/memory_store.h"
#include "AimwiseCore/memory/memory_wipe.h"
#include "CaptureShared/common/text.h"

namespace aimwise {

namespace fs = std::filesystem;

namespace {

// Older than any window, yet still read: the standing declaration and the medication schedule.
bool isTaskEvent(const EventLogEvent& event) {
    return event.type == "task_declared" || event.type == "task_cleared" || event.type == MedsCheckins::scheduleType;
}

bool byTime(const EventLogEvent& a, const EventLogEvent& b) { return a.tsMs < b.tsMs; }
bool byTickTime(const std::pair<int64_t, ClassifierTick>& a, const std::pair<int64_t, ClassifierTick>& b) {
    return a.first < b.first;
}

// Appended rows nearly always arrive in order; only a row older than what is held costs a sort.
template <typename Row, typename Less>
void appendSorted(std::vector<Row>& held, std::vector<Row> rows, Less less) {
    if (rows.empty()) return;
    const size_t before = held.size();
    held.insert(held.end(), std::make_move_iterator(rows.begin()), std::make_move_iterator(rows.end()));
    const bool ordered = std::is_sorted(held.begin() + before, held.end(), less) &&
                         (before == 0 || !less(held[before], held[before - 1]));
    if (!ordered) std::stable_sort(held.begin(), held.end(), less);
}

}  // namespace

GateMessageSource::GateMessageSource(fs::path dataRoot, Log log)
    : dataRoot_(std::move(dataRoot)), log_(std::move(log)),
      eventsReader_(IncrementalJSONLReaders::events(dataRoot_ / "io-layer" / "events.jsonl")),
      ticksReader_(IncrementalJSONLReaders::classifierTicks(dataRoot_ / "checker-log.jsonl")) {}

bool GateMessageSource::isLowEffort(const Environment& environment) {
    const auto value = lookup(environment, "AIMCAP_REASONING_EFFORT");
    if (!value) return false;
    std::string effort = trimWhitespaceAndNewlines(*value);
    std::transform(effort.begin(), effort.end(), effort.begin(), [](unsigned char c) { return std::tolower(c); });
    return effort == "low" || effort == "minimal";
}

void GateMessageSource::reportOnce(const std::string& key, const std::string& line) {
    if (std::find(reported_.begin(), reported_.end(), key) != reported_.end()) return;
    reported_.push_back(key);
    if (log_) log_(line);
}

// A missing log is an empty one. A log that fails to read keeps the rows held, and the next read
// starts over from the whole file.
void GateMessageSource::refreshEvents() {
    try {
        auto result = eventsReader_.read();
        if (result.kind == IncrementalReadResult<EventLogEvent>::Kind::reset) {
            events_ = std::move(result.rows);
            std::stable_sort(events_.begin(), events_.end(), byTime);
            heldFromMs_.reset();
        } else {
            appendSorted(events_, std::move(result.rows), byTime);
        }
    } catch (const fs::filesystem_error& error) {
        eventsReader_.clearWatermark();
        std::error_code ignored;
        if (!fs::exists(eventsReader_.url(), ignored)) {
            events_.clear();
            return;
        }
        reportOnce("events", "gate: the event log could not be read (" + std::string(error.what()) +
                                 "); the gate goes on with what it last read");
    }
}

void GateMessageSource::refreshTicks() {
    const auto timed = [](std::vector<ClassifierTick> rows) {
        std::vector<std::pair<int64_t, ClassifierTick>> out;
        out.reserve(rows.size());
        for (ClassifierTick& tick : rows)
            if (const auto ms = ProjectionDateParsing::parseLocal(tick.at)) out.emplace_back(*ms, std::move(tick));
        return out;
    };
    try {
        auto result = ticksReader_.read();
        if (result.kind == IncrementalReadResult<ClassifierTick>::Kind::reset) {
            ticks_ = timed(std::move(result.rows));
            std::stable_sort(ticks_.begin(), ticks_.end(), byTickTime);
            heldFromMs_.reset();
        } else {
            appendSorted(ticks_, timed(std::move(result.rows)), byTickTime);
        }
    } catch (const fs::filesystem_error& error) {
        ticksReader_.clearWatermark();
        std::error_code ignored;
        if (!fs::exists(ticksReader_.url(), ignored)) {
            ticks_.clear();
            return;
        }
        reportOnce("ticks", "gate: the classifier log could not be read (" + std::string(error.what()) +
                                "); the gate goes on with what it last read");
    }
}

void GateMessageSource::forgetLogs() {
    eventsReader_.clearWatermark();
    ticksReader_.clearWatermark();
    events_.clear();
    ticks_.clear();
    heldFromMs_.reset();
}

// Window starts only move forward, so rows before this one are never shown again, except the task
// events that a standing declaration is read from.
void GateMessageSource::letGoBefore(int64_t startMs) {
    if (heldFromMs_ && *heldFromMs_ >= startMs) return;
    const auto firstEvent = std::lower_bound(events_.begin(), events_.end(), startMs,
                                             [](const EventLogEvent& e, int64_t ms) { return e.tsMs < ms; });
    const auto keptEnd = std::stable_partition(events_.begin(), firstEvent, isTaskEvent);
    events_.erase(keptEnd, firstEvent);
    const auto firstTick = std::lower_bound(ticks_.begin(), ticks_.end(), startMs,
                                            [](const auto& t, int64_t ms) { return t.first < ms; });
    ticks_.erase(ticks_.begin(), firstTick);
    heldFromMs_ = startMs;
}

void GateMessageSource::refreshSmallFiles() {
    const auto stampOf = [](const fs::path& path) -> std::optional<Stamp> {
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0) return std::nullopt;
        return Stamp{info.st_ino, info.st_size, int64_t(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec};
    };
    const auto refresh = [&](auto& cached, const fs::path& path, auto&& read) {
        auto stamp = stampOf(path);
        if (cached.stamp == stamp) return;
        cached.stamp = stamp;
        cached.value = read(path);
    };

    refresh(preferences_, CoachPreferencesStore::path(dataRoot_),
            [&](const fs::path&) { return CoachPreferencesStore::read(dataRoot_); });
    refresh(wipeAtMs_, MemoryWipeLog::defaultURL(dataRoot_), MemoryWipeLog::latestAtMs);
    refresh(forgotten_, MemoryForgetLog::defaultURL(dataRoot_), MemoryForgetLog::read);
    refresh(corrections_, CoachCorrections::defaultURL(dataRoot_), CoachCorrections::read);
    refresh(memory_, MemoryStore::standingMemoryPath(dataRoot_), [&](const fs::path& path) {
        auto read = MemoryStore::inspectStandingMemory(dataRoot_);
        if (read.state == MemoryStore::FileState::undecodable)
            reportOnce("memory:" + std::to_string(memory_.stamp ? memory_.stamp->mtimeNs : 0),
                       "gate: the standing memory at " + path.string() +
                                                      " does not decode; the gate goes on without it");
        return read.memory;
    });
}

std::optional<CaptureWindowSummary> GateMessageSource::capture(int64_t nowMs, int64_t windowMinutes) {
    if (!signals_) {
        try {
            signals_ = SignalsReader::open(dataRoot_ / "signals.sqlite");
        } catch (const SignalsReaderError&) {
            return std::nullopt;
        }
    }
    auto summary = CaptureWindowSummaryBuilder::build(*signals_, nowMs, windowMinutes);
    if (!summary) signals_.reset();  // opened again on the next build
    return summary;
}

GateMessageSource::Built GateMessageSource::build(int64_t nowMs, const Environment& environment,
                                                  const Settings& settings) {
    refreshSmallFiles();
    // A request to forget also bounds the timeline: nothing from before it is shown again.
    const int64_t floorMs = wipeAtMs_.value.value_or(0);
    const CoachGateTimeline::Window window{
        CoachGateTimeline::stableStart(floorMs, nowMs, settings.boundHours, settings.startStep), nowMs};
    // A window that starts before what was let go (the clock moved back) needs the logs whole again.
    if (heldFromMs_ && window.startMs < *heldFromMs_) forgetLogs();
    refreshEvents();
    refreshTicks();
    letGoBefore(window.startMs);

    std::vector<CoachGateTimeline::TimedTick> timed;
    timed.reserve(ticks_.size());
    for (const auto& [ms, tick] : ticks_)
        if (ms >= window.startMs && ms <= window.endMs) timed.push_back({ms, &tick});

    const std::string timeline = CoachGateTimeline::render(events_, timed, window,
                                                           capture(nowMs, settings.captureWindowMinutes));
    const auto memory = preferences_.value.standingMemoryEnabled
                            ? MemoryForgetFilter(forgotten_.value)
                                  .standingMemory(MemoryWipeFilter::standingMemory(memory_.value, wipeAtMs_.value))
                            : std::nullopt;
    std::vector<CoachCorrection> corrections = MemoryWipeFilter::corrections(corrections_.value, wipeAtMs_.value);
    std::erase_if(corrections, [&](const CoachCorrection& c) { return !c.isInForce(nowMs); });
    const auto notes = GateStandingNotes::render(memory, corrections, CoachCorrection::Scope::whetherToSpeak);
    const bool lowEffort = isLowEffort(environment);
    return {CoachGateMessage::assemble(timeline, nowMs, lowEffort, notes,
                                       UserStandingInstructionsRendering::forGate(preferences_.value.gateInstructions),
                                       settings.medsContext
                                           ? settings.medsContext
                                           : MedsCheckins::context(MedsCheckins::outstanding(
                                                 events_, nowMs, preferences_.value.medsRemindersEnabled))),
            lowEffort, floorMs, window};
}

}  // namespace aimwise
