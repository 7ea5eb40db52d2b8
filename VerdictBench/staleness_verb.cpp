// `staleness`: the tick's freshness gate as a dry run. It reads what the tick reads and writes nothing.
#include <cstdio>
#include <optional>
#include <string>

#include "AimwiseCore/classifier/cadence.h"
#include "CaptureShared/common/environment.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "CaptureShared/signals/signals_reader.h"
#include "CaptureShared/staleness/recording_pause.h"
#include "CaptureShared/staleness/signals_staleness.h"
#include "VerdictBench/verbs.h"

namespace aimwise::verbs {

namespace {

void printLine(const std::string& line) { std::printf("%s\n", line.c_str()); }

}  // namespace

int runStaleness(const cli::Invocation& invocation) {
    std::optional<int64_t> latestTickMs;
    const SignalsReader reader = SignalsReader::open(DataPaths::signalsDB());
    if (const auto row = reader.latestTick()) latestTickMs = row->tsMs;

    const int64_t regimeGapSec = ClassifierCadence::Config::fromEnvironment(processEnvironment()).regimeGapSec;
    const auto cadence = ClassifierCadence::read(DataPaths::classifierCadence());
    const std::optional<int64_t> lastRanAtMs = cadence ? std::optional(cadence->lastRanAtMs) : std::nullopt;
    const int64_t now = invocation.clock->wallMs();
    const SignalsStaleness::Pause pause = currentRecordingPause(now);

    const auto decision = SignalsStaleness::decide(pause, latestTickMs, now, lastRanAtMs,
                                                   SignalsStaleness::defaultThresholdMs, regimeGapSec);

    const auto latestLine = [&](int64_t gapMs) {
        printLine("latest tick: " + std::to_string(latestTickMs.value_or(0)) + "ms, now: " + std::to_string(now) +
                  "ms, gap: " + SignalsStaleness::humanDuration(gapMs));
    };
    const auto wakeLine = [&] {
        printLine("last classifier wake: " + (lastRanAtMs ? std::to_string(*lastRanAtMs) + "ms" : "none recorded") +
                  " (regime-gap window: " + std::to_string(regimeGapSec) + "s)");
    };

    if (const auto* stale = std::get_if<SignalsStaleness::StaleConfirmed>(&decision)) {
        latestLine(stale->gapMs);
        wakeLine();
        printLine("STALE and trustworthy — tick would REFUSE to judge and write/refresh the stale-signals note: " +
                  SignalsStaleness::reason(stale->gapMs, stale->lastGoodTickAtMs));
    } else if (const auto* untrusted = std::get_if<SignalsStaleness::StaleButUntrustworthy>(&decision)) {
        latestLine(untrusted->gapMs);
        wakeLine();
        printLine("stale but NOT YET trustworthy — plausibly the classifier's own first wake after a gap; tick "
                  "would judge normally this once and re-check next wake");
    } else if (const auto* predates = std::get_if<SignalsStaleness::PredatesPause>(&decision)) {
        printLine("NOT CURRENT — tick would REFUSE to judge (no stale-signals note): " +
                  SignalsStaleness::reasonPredatesPause(predates->lastTickAtMs, predates->pauseStartedAtMs, now));
    } else if (std::holds_alternative<SignalsStaleness::NotChecked>(decision)) {
        printLine("no rows in signals.sqlite — tick would report \"no signal data available\"");
    } else {
        latestLine(now - latestTickMs.value_or(0));
        printLine("fresh — tick would judge normally");
    }
    return 0;
}

}  // namespace aimwise::verbs
