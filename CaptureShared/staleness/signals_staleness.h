#pragma once
// Whether the newest signals row is current, and whether a stale reading can be trusted:
// a long silence is plausibly the classifier's own first wake after a gap unless the
// classifier itself ran recently.
#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace aimwise::SignalsStaleness {

struct PauseActive {
    std::optional<int64_t> startedAtMs;  // unknown when the pause file could not be read
    bool operator==(const PauseActive&) const = default;
};
struct PauseNone {
    bool operator==(const PauseNone&) const = default;
};
using Pause = std::variant<PauseActive, PauseNone>;

struct StaleButUntrustworthy {
    int64_t gapMs = 0;
    bool operator==(const StaleButUntrustworthy&) const = default;
};
struct StaleConfirmed {
    int64_t gapMs = 0;
    int64_t lastGoodTickAtMs = 0;
    bool operator==(const StaleConfirmed&) const = default;
};
struct PredatesPause {
    int64_t lastTickAtMs = 0;
    int64_t pauseStartedAtMs = 0;
    bool operator==(const PredatesPause&) const = default;
};
struct NotChecked {
    bool operator==(const NotChecked&) const = default;
};
struct Fresh {
    bool operator==(const Fresh&) const = default;
};
using Decision = std::variant<StaleButUntrustworthy, StaleConfirmed, PredatesPause, NotChecked, Fresh>;

// What callers pass as `thresholdMs`.
inline constexpr int64_t defaultThresholdMs = 180000;

Decision decide(const Pause& pause, std::optional<int64_t> latestTickMs, int64_t nowMs,
                std::optional<int64_t> classifierLastRanAtMs, int64_t thresholdMs, int64_t regimeGapSec);

std::string reason(int64_t gapMs, int64_t lastTickAtMs);
std::string reasonPredatesPause(int64_t lastTickAtMs, int64_t pauseStartedAtMs, int64_t nowMs);
// "45s", "12m", "3h5m": whole seconds, never negative.
std::string humanDuration(int64_t ms);

}  // namespace aimwise::SignalsStaleness
