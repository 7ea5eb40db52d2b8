#include "AimwiseCore/memory/dream_return_watch.h"

#include <cmath>

#include "AimwiseCore/coach/coach_gate_timeline.h"
#include "AimwiseCore/memory/dream_schedule.h"

namespace aimwise {

DreamReturnWatch::DreamReturnWatch(std::filesystem::path signalsDB, int64_t sinceMs)
    : signalsDB_(std::move(signalsDB)), sinceMs_(sinceMs) {}

DreamReturnWatch::~DreamReturnWatch() = default;

bool DreamReturnWatch::showsReturn(const SignalsReader::TickRow& tick, int64_t sinceMs) {
    if (!tick.idleAnySec || !std::isfinite(*tick.idleAnySec) ||
        tick.frontmostApp == DreamSchedule::lockScreenApp)
        return false;
    const int64_t lastInputMs = tick.tsMs - static_cast<int64_t>(std::llround(*tick.idleAnySec * 1000.0));
    return lastInputMs > sinceMs;
}

std::optional<std::string> DreamReturnWatch::check() {
    std::optional<SignalsReader::TickRow> tick;
    try {
        if (!reader_) reader_ = std::make_unique<SignalsReader>(SignalsReader::open(signalsDB_));
        tick = reader_->latestTick();
    } catch (const SignalsReaderError&) {
        reader_.reset();
        return std::nullopt;
    }
    if (!tick || !showsReturn(*tick, sinceMs_)) return std::nullopt;
    const int64_t lastInputMs = tick->tsMs - static_cast<int64_t>(std::llround(*tick->idleAnySec * 1000.0));
    return "someone is at the machine again (input at " + CoachGateTimeline::formatTime(lastInputMs) + ")";
}

}  // namespace aimwise
