#include "VerdictBench/replay.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <map>

#include <fmt/format.h>

#include "AimwiseCore/classifier/classifier_prompt.h"
#include "AimwiseCore/classifier/classifier_service.h"
#include "AimwiseCore/classifier/self_observation.h"
#include "CaptureShared/common/clock.h"
#include "CaptureShared/common/utf8.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "VerdictBench/classifier_verb_support.h"
#include "VerdictBench/cli.h"
#include "VerdictBench/replay_fm_judge_client.h"
#include "VerdictBench/replay_statistics.h"

namespace aimwise::Replay {

namespace fs = std::filesystem;
using ReplayStatistics::Confusion;

namespace {

constexpr int64_t frameSearchLimitMs = 1'800'000;
constexpr double reconstructionTimeoutSec = 60.0;

std::optional<int64_t> integer(const std::optional<std::string>& text) {
    if (!text) return std::nullopt;
    int64_t value = 0;
    const char* end = text->data() + text->size();
    const auto [stop, error] = std::from_chars(text->data(), end, value);
    if (error != std::errc() || stop != end) return std::nullopt;
    return value;
}

Visibility visibilityOf(HistoricalWindowContent::Failure failure) {
    using Failure = HistoricalWindowContent::Failure;
    switch (failure) {
        case Failure::noRecordedWindowBounds: return Visibility::noRecordedWindowBounds;
        case Failure::noSidecarFrameNearby: return Visibility::noSidecarFrameNearby;
        case Failure::unsupportedEra: return Visibility::unsupportedEra;
        case Failure::extractionFailed: return Visibility::extractionFailed;
    }
    return Visibility::extractionFailed;
}

double secondsSince(int64_t startMonotonicMs) {
    return static_cast<double>(Clock::system().monotonicMs() - startMonotonicMs) / 1000.0;
}

std::string accuracy(int right, int total) {
    return fmt::format("{} / {}  ({:.1f}%, 95% CI {})", right, total, 100.0 * right / total,
                       ReplayStatistics::formatCI(ReplayStatistics::wilson95(right, total)));
}

void say(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

// What the walk counts, for the summary.
struct Tally {
    int ambiguous = 0, noTick = 0, abstained = 0, errors = 0, scored = 0, correct = 0;
    Confusion confusion;
    std::map<Visibility, int> visibility;
    int sightedScored = 0, sightedCorrect = 0;

    int paired = 0, localRight = 0, fmRight = 0, localOnlyCorrect = 0, fmOnlyCorrect = 0;
    std::map<std::string, int> fmFailures;
    Confusion fmConfusion;
    double localSec = 0, fmSec = 0;
};

// The second arm on one point; returns the tail of its line.
std::string pairedArm(const Prepared& prepared, const std::string& truth, bool localRight, double localSec,
                      Tally& tally) {
    const std::string user =
        ClassifierPrompt::buildRedactedUserMessage(prepared.state, std::nullopt, prepared.windowContent).message;
    tally.localSec += localSec;
    const int64_t started = Clock::system().monotonicMs();
    ClassifierJudgment fm;
    try {
        fm = FMJudgeClient::judge(ClassifierPrompt::systemPrompt, user, processEnvironment());
        tally.fmSec += secondsSince(started);
    } catch (const FMJudgeClient::Failure& failure) {
        tally.fmSec += secondsSince(started);
        ++tally.fmFailures[failure.kind()];
        return " | fm=FAILED(" + failure.kind() + ")";
    } catch (...) {
        tally.fmSec += secondsSince(started);
        ++tally.fmFailures["unknown"];
        return " | fm=FAILED(unknown)";
    }
    const bool fmRight = fm.state == truth;
    ++tally.paired;
    if (localRight) ++tally.localRight;
    if (fmRight) ++tally.fmRight;
    if (localRight && !fmRight) ++tally.localOnlyCorrect;
    if (!localRight && fmRight) ++tally.fmOnlyCorrect;
    ++tally.fmConfusion[truth + "->" + fm.state];
    return fmt::format(" | fm={} conf={:.2f} {} reason=\"{}\"", fm.state, fm.confidence, fmRight ? "OK" : "MISS",
                       utf8::prefix(fm.reason, 110));
}

std::string pairedBlock(const Tally& t) {
    std::string out = "\n--- Apple on-device Foundation Model, paired arm ---\n";
    out += fmt::format("paired points (both arms answered): {}\n", t.paired);
    if (!t.fmFailures.empty()) {
        int total = 0;
        for (const auto& [kind, count] : t.fmFailures) total += count;
        out += fmt::format("FM produced NO verdict on {} point(s) — excluded from the paired denominator:\n", total);
        out += ReplayStatistics::renderConfusion(t.fmFailures);
    }
    if (t.paired > 0) {
        out += "ollama (gemma) on these same points: " + accuracy(t.localRight, t.paired) + "\n";
        out += "apple on-device:                     " + accuracy(t.fmRight, t.paired) + "\n";
    }
    out += fmt::format(
        "discordant pairs: ollama-only-correct={} fm-only-correct={} (concordant pairs carry no information about "
        "the difference)\n",
        t.localOnlyCorrect, t.fmOnlyCorrect);
    const int discordant = t.localOnlyCorrect + t.fmOnlyCorrect;
    if (discordant < 1)
        out += "McNemar exact: no discordant pairs — the two arms agreed on every paired point.\n";
    else
        out += fmt::format("McNemar exact (two-sided): p = {:.4f}\n",
                           ReplayStatistics::twoSidedSignTestP(t.localOnlyCorrect, discordant));
    // Without a paired point there is nothing to divide by; the failures above say why.
    if (t.localSec > 0 && t.paired > 0)
        out += fmt::format("mean latency per judged point: ollama {:.1f}s, apple on-device {:.1f}s\n",
                           t.localSec / t.paired, t.fmSec / t.paired);
    out += "FM confusion (gt->pred):\n" + ReplayStatistics::renderConfusion(t.fmConfusion);
    out += ReplayStatistics::renderPerClassRecall(t.fmConfusion, "apple on-device");
    out += "  (note: the ollama figure above is over all scored points; this one is over paired points only — read "
           "each arm's balanced accuracy on its own terms, not as an exact delta)\n";
    return out;
}

std::string summary(int loaded, const Tally& t, bool paired) {
    std::string out = "\n=== VerdictBench replay summary ===\n";
    out += fmt::format("points loaded:        {}\n", loaded);
    out += fmt::format("skipped (ambiguous):  {}\n", t.ambiguous);
    out += fmt::format("skipped (no tick):    {}\n", t.noTick);
    out += fmt::format("skipped (abstained):  {}   (Merl's own window frontmost — no verdict)\n", t.abstained);
    out += fmt::format("errors:               {}\n", t.errors);
    out += fmt::format("scored:               {}\n", t.scored);
    if (t.scored > 0) out += "correct:              " + accuracy(t.correct, t.scored) + "\n";
    out += "confusion (gt->pred):\n" + ReplayStatistics::renderConfusion(t.confusion);
    out += ReplayStatistics::renderPerClassRecall(t.confusion, "local");
    if (paired) out += pairedBlock(t);

    const auto count = [&](Visibility v) {
        const auto found = t.visibility.find(v);
        return found == t.visibility.end() ? 0 : found->second;
    };
    const int sighted = count(Visibility::sighted);
    out += fmt::format("\nwindow_content visibility (of {} scored):\n", t.scored);
    out += fmt::format("  sighted:             {}\n", sighted);
    out += fmt::format("  blind (total):       {}\n", t.scored - sighted);
    out += fmt::format("    not attempted (locked/idle):    {}\n", count(Visibility::notAttempted));
    out += fmt::format("    no recorded window bounds:      {}\n", count(Visibility::noRecordedWindowBounds));
    out += fmt::format("    no sidecar frame nearby:        {}\n", count(Visibility::noSidecarFrameNearby));
    out += fmt::format("    unsupported era (pre-07-07):    {}\n", count(Visibility::unsupportedEra));
    out += fmt::format("    extraction/OCR failed:          {}\n", count(Visibility::extractionFailed));
    if (t.sightedScored > 0) {
        out += "  accuracy on sighted subset only: " + accuracy(t.sightedCorrect, t.sightedScored) + "\n";
        out += "  (a headline accuracy dominated by blind points is not the same claim as one measured\n"
               "   with real screen evidence — read both numbers, not just the overall one)\n";
    }
    return out;
}

}  // namespace

std::variant<Prepared, NoTick> prepare(const LabeledPoints::LabeledPoint& point, const Sources& sources,
                                       LazyHTTPSession& session) {
    // The middle of the span is what is judged, not its start.
    const int64_t midpointMs = (point.t0Ms + point.t1Ms) / 2;
    const auto tick = sources.signals.latestTick(midpointMs);
    if (!tick) return NoTick{midpointMs};
    const std::string owner = tick->frontmostApp.value_or("");

    auto state = ClassifierService::buildState(sources.signals, sources.events, sources.signalsPath, midpointMs, session);
    if (!state) return NoTick{midpointMs};
    Prepared prepared{midpointMs, std::move(*state), std::nullopt, Visibility::notAttempted};

    std::string lowered = owner;
    std::transform(lowered.begin(), lowered.end(), lowered.begin(), [](unsigned char c) { return std::tolower(c); });
    const bool away = tick->idleAnySec && *tick->idleAnySec > ClassifierService::idleAwaySec;
    if (lowered == "loginwindow" || away) return prepared;

    const auto outcome = HistoricalWindowContent::reconstructDetailed(
        sources.signals, tick->tsMs, owner, HistoricalWindowContent::primaryDisplay,
        {frameSearchLimitMs, reconstructionTimeoutSec}, sources.archive);
    if (const auto* sighted = std::get_if<HistoricalWindowContent::Sighted>(&outcome)) {
        prepared.windowContent = ClassifierPrompt::redactedWindowContent(sighted->ocrText, "").content;
        prepared.visibility = Visibility::sighted;
    } else {
        prepared.visibility = visibilityOf(std::get<HistoricalWindowContent::Blind>(outcome).failure);
    }
    return prepared;
}

int run(const std::optional<std::string>& nArgument, const std::optional<std::string>& offsetArgument,
        bool fmPairedArmEnabled, bool preferBlind) {
    const auto n = integer(nArgument);
    if (!n || *n <= 0) throw cli::Failure(usageText);
    const int64_t offset = integer(offsetArgument).value_or(0);

    const fs::path root = DataPaths::dataRoot();
    const fs::path signalsPath = root / "signals.sqlite";
    const fs::path labelsPath = root / "labels.sqlite";

    LabeledPoints::Result loaded;
    try {
        loaded = LabeledPoints::readLabeledPoints(labelsPath, *n, offset, preferBlind);
    } catch (const LabeledPoints::ReadError& error) {
        throw cli::Failure(error.description());
    }
    std::string opening = fmt::format("loaded {} labeled points from {}\n", loaded.points.size(), labelsPath.string());
    opening += fmt::format(
        "  {} of them had corrected timestamps overlaid from labels_remapped (raw table unmodified)\n",
        loaded.remappedCount);
    if (preferBlind)
        opening += fmt::format(
            "  scoring BLIND answers (pre-reveal) — {} moment(s) had a later post-reveal revision excluded from "
            "scoring. Pass --settled to score the settled/revised answer instead (reintroduces reveal-anchoring; not "
            "the default for a reason).\n\n",
            loaded.excludedRevisionCount);
    else
        opening +=
            "  scoring SETTLED answers (newest row, blindness ignored) — this can include a post-reveal revision "
            "anchored on the classifier's own verdict. Omit --settled to score the blind answer instead.\n\n";
    say(opening);

    std::optional<SignalsReader> signals;
    try {
        signals.emplace(SignalsReader::open(signalsPath));
    } catch (const SignalsReaderError& error) {
        throw cli::Failure("could not open signals.sqlite: " + error.description());
    }
    const auto events = cli::readEventLogIfPresent(root / "io-layer" / "events.jsonl");
    const auto archive = FrameArchive::forDataRoot(root);
    const Sources sources{*signals, events ? &*events : nullptr, signalsPath, *archive};
    const ClassifierBackend::Config config = ClassifierBackend::mainCallConfig();
    LazyHTTPSession session;

    Tally tally;
    const size_t total = loaded.points.size();
    for (size_t index = 0; index < total; ++index) {
        const LabeledPoints::LabeledPoint& point = loaded.points[index];
        const std::string head = fmt::format("[{}/{}] id={}", index + 1, total, point.id);
        const auto truth = LabeledPoints::groundTruth(point.label);
        if (!truth) {
            ++tally.ambiguous;
            continue;
        }
        Prepared prepared;
        ClassifierService::Outcome outcome;
        double localSec = 0;
        try {
            auto ready = prepare(point, sources, session);
            if (const auto* none = std::get_if<NoTick>(&ready)) {
                ++tally.noTick;
                say(fmt::format("{} — no tick data at {}, skipping\n", head, none->midpointMs));
                continue;
            }
            prepared = std::move(std::get<Prepared>(ready));
            const int64_t started = Clock::system().monotonicMs();
            outcome = ClassifierService::judge(prepared.state, std::nullopt, prepared.windowContent, std::nullopt,
                                               RedactionReport{}, std::nullopt, config, session.get());
            localSec = secondsSince(started);
        } catch (const std::exception& error) {
            ++tally.errors;
            say(fmt::format("{} — ERROR: {}\n", head, error.what()));
            continue;
        }
        const std::string& predicted = outcome.judgment.state;
        if (predicted == ClassifierSelfObservation::abstainedState) {
            ++tally.abstained;
            say(fmt::format("{} label={} gt={} pred=ABSTAINED — no verdict to score, excluded\n", head, point.label,
                            *truth));
            continue;
        }
        ++tally.scored;
        const bool right = predicted == *truth;
        if (right) ++tally.correct;
        ++tally.confusion[*truth + "->" + predicted];
        ++tally.visibility[prepared.visibility];
        const bool sighted = prepared.visibility == Visibility::sighted;
        if (sighted) {
            ++tally.sightedScored;
            if (right) ++tally.sightedCorrect;
        }
        // A verdict the guards gave without the model is not a comparison of models.
        const std::string tail = fmPairedArmEnabled && outcome.calledModel
                                     ? pairedArm(prepared, *truth, right, localSec, tally)
                                     : std::string();
        say(fmt::format("{} label={} gt={} pred={} called_model={} window_content={} {}{}\n", head, point.label,
                        *truth, predicted, outcome.calledModel ? "true" : "false", sighted ? "yes" : "no",
                        right ? "OK" : "MISS", tail));
    }
    say(summary(static_cast<int>(total), tally, fmPairedArmEnabled));
    return 0;
}

}  // namespace aimwise::Replay
