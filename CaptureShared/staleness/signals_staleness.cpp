#include "CaptureShared/staleness/signals_staleness.h"

#include "CaptureShared/common/iso_date.h"
#include "CaptureShared/common/saturating.h"

namespace aimwise::SignalsStaleness {

Decision decide(const Pause& pause, std::optional<int64_t> latestTickMs, int64_t nowMs,
                std::optional<int64_t> classifierLastRanAtMs, int64_t thresholdMs, int64_t regimeGapSec) {
    if (!latestTickMs) return NotChecked{};
    const int64_t latest = *latestTickMs;
    const bool classifierWasAwake =
        classifierLastRanAtMs && Saturating::subtract(nowMs, *classifierLastRanAtMs) <=
                                     Saturating::multiply(regimeGapSec, 1000);

    std::optional<int64_t> pauseStartMs;
    if (const auto* active = std::get_if<PauseActive>(&pause)) pauseStartMs = active->startedAtMs;

    if (!pauseStartMs || *pauseStartMs <= latest) {
        const int64_t gapMs = Saturating::subtract(nowMs, latest);
        if (gapMs <= thresholdMs) return Fresh{};
        if (classifierWasAwake) return StaleConfirmed{gapMs, latest};
        return StaleButUntrustworthy{gapMs};
    }
    // A pause explains a silent database only for the threshold's length.
    if (Saturating::subtract(nowMs, *pauseStartMs) >= thresholdMs && classifierWasAwake)
        return StaleConfirmed{Saturating::subtract(nowMs, latest), latest};
    return PredatesPause{latest, *pauseStartMs};
}

std::string reason(int64_t gapMs, int64_t lastTickAtMs) {
    return "signals stale since " + ISODate::format(lastTickAtMs) + " (~" + humanDuration(gapMs) +
           " with no new signals.sqlite row) — not judged; capture may have stopped";
}

std::string reasonPredatesPause(int64_t lastTickAtMs, int64_t pauseStartedAtMs, int64_t nowMs) {
    return "recording is paused (since " + ISODate::format(pauseStartedAtMs) +
           ") and the newest signals.sqlite row is from " + ISODate::format(lastTickAtMs) +
           ", before the pause began (~" + humanDuration(Saturating::subtract(nowMs, lastTickAtMs)) +
           " ago) — not judged; waiting for Signals to write a current row";
}

std::string humanDuration(int64_t ms) {
    const int64_t seconds = ms < -999 ? 0 : ms / 1000;
    if (seconds >= 3600) return std::to_string(seconds / 3600) + "h" + std::to_string(seconds % 3600 / 60) + "m";
    if (seconds >= 60) return std::to_string(seconds / 60) + "m";
    return std::to_string(seconds) + "s";
}

}  // namespace aimwise::SignalsStaleness
