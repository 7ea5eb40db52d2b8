#include "AimwiseCore/coach/capture_window_summary.h"

namespace aimwise::CaptureWindowSummaryBuilder {

std::optional<CaptureWindowSummary> build(const SignalsReader& signals, int64_t asOfMs, int64_t windowMinutes) {
    CaptureWindowSummary summary{.asOfMs = asOfMs, .windowMinutes = windowMinutes};
    try {
        for (auto& app : signals.recentApps(asOfMs, windowMinutes * 60'000))
            summary.appShares.push_back({std::move(app.app), app.approxMinutes});
        const auto newest = signals.latestTick(asOfMs);
        if (newest && asOfMs - newest->tsMs <= frontmostFreshMs) summary.frontmostNow = newest->frontmostApp;
    } catch (const SignalsReaderError&) {
        return std::nullopt;
    }
    return summary;
}

}  // namespace aimwise::CaptureWindowSummaryBuilder
