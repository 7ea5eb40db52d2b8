#pragma once
// Builds the gate message from a data root, as the coach driver polls it. It keeps what does not
// change between polls: the logs are read incrementally, tick times are parsed once, rows that fell
// out of every future window are let go, and small files are re-read only when they change.
// Unreadable or partly written files never stop it: a line that does not decode gives no line, a
// memory file that does not decode counts as absent (reported once), preferences fall back to their
// defaults. One owner: it is not safe for concurrent use.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "AimwiseCore/coach/capture_window_summary.h"
#include "AimwiseCore/coach/coach_correction.h"
#include "AimwiseCore/coach/coach_gate_timeline.h"
#include "AimwiseCore/coach/coach_preferences.h"
#include "AimwiseCore/events/incremental_jsonl_reader.h"
#include "AimwiseCore/memory/memory_forget.h"
#include "AimwiseCore/memory/memory_records.h"
#include "CaptureShared/common/environment.h"

namespace aimwise {

class GateMessageSource {
public:
    using Log = std::function<void(const std::string&)>;

    struct Settings {
        double boundHours = CoachGateTimeline::defaultBoundHours;
        double startStep = CoachGateTimeline::defaultStartStep;
        int64_t captureWindowMinutes = CaptureWindowSummaryBuilder::defaultWindowMinutes;
        // The medication check-ins; by default those due now, when the person turned them on.
        std::optional<std::string> medsContext;
    };

    struct Built {
        std::string message;
        bool lowEffort = false;
        int64_t floorMs = 0;
        CoachGateTimeline::Window window;
    };

    explicit GateMessageSource(std::filesystem::path dataRoot, Log log = {});

    Built build(int64_t nowMs, const Environment& environment, const Settings& settings);
    Built build(int64_t nowMs, const Environment& environment) { return build(nowMs, environment, Settings{}); }

    // The gate's reasoning effort is low when the configured effort is "low" or "minimal".
    static bool isLowEffort(const Environment& environment);

    size_t eventsHeld() const { return events_.size(); }
    size_t ticksHeld() const { return ticks_.size(); }
    int64_t linesDecoded() const { return eventsReader_.decodeCallCount() + ticksReader_.decodeCallCount(); }

private:
    struct Stamp {
        uint64_t inode = 0;
        int64_t size = -1;
        int64_t mtimeNs = 0;
        bool operator==(const Stamp&) const = default;
    };
    template <typename Value>
    struct Cached {
        std::optional<Stamp> stamp;
        Value value{};
    };

    void refreshEvents();
    void refreshTicks();
    void forgetLogs();
    void letGoBefore(int64_t startMs);
    void refreshSmallFiles();
    std::optional<CaptureWindowSummary> capture(int64_t nowMs, int64_t windowMinutes);
    void reportOnce(const std::string& key, const std::string& line);

    std::filesystem::path dataRoot_;
    Log log_;
    IncrementalJSONLReader<EventLogEvent> eventsReader_;
    IncrementalJSONLReader<ClassifierTick> ticksReader_;
    std::vector<EventLogEvent> events_;                     // by time
    std::vector<std::pair<int64_t, ClassifierTick>> ticks_;  // by parsed time
    std::optional<int64_t> heldFromMs_;
    std::optional<SignalsReader> signals_;

    Cached<CoachPreferences> preferences_;
    Cached<std::optional<StandingMemory>> memory_;
    Cached<std::vector<CoachCorrection>> corrections_;
    Cached<std::optional<int64_t>> wipeAtMs_;
    Cached<std::vector<MemoryForgetRequest>> forgotten_;
    std::vector<std::string> reported_;
};

}  // namespace aimwise
