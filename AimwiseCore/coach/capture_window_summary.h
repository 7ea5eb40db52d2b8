#pragma once
// What the capture agent itself recorded over the last minutes, for the gate's capture line: the top
// six applications by time, and the one in front now. It is independent of the classifier, so it
// still shows where time went when the classifier skipped or abstained.
#include <cstdint>
#include <optional>

#include "AimwiseCore/coach/coach_gate_timeline.h"
#include "CaptureShared/signals/signals_reader.h"

namespace aimwise::CaptureWindowSummaryBuilder {

inline constexpr int64_t defaultWindowMinutes = 10;
// A newest sample older than this says nothing about what is in front now.
inline constexpr int64_t frontmostFreshMs = 180'000;

// Nothing when the signals cannot be read; a summary with no shares when nothing was recorded.
std::optional<CaptureWindowSummary> build(const SignalsReader& signals, int64_t asOfMs,
                                          int64_t windowMinutes = defaultWindowMinutes);

}  // namespace aimwise::CaptureWindowSummaryBuilder
