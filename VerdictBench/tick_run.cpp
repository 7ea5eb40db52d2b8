#include "VerdictBench/tick_run.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <cmath>
#include <cstdio>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "AimwiseCore/classifier/backoff_disclosure.h"
#include "AimwiseCore/classifier/cadence.h"
#include "AimwiseCore/classifier/classifier_model.h"
#include "AimwiseCore/classifier/classifier_prompt.h"
#include "AimwiseCore/classifier/classifier_service.h"
#include "AimwiseCore/classifier/integrity_guard.h"
#include "AimwiseCore/classifier/live_readings.h"
#include "AimwiseCore/classifier/tick_energy_log.h"
#include "AimwiseCore/events/event_log_writer.h"
#include "AimwiseCore/events/jsonl_append.h"
#include "AimwiseCore/models/local_inference_endpoint.h"
#include "AimwiseCore/models/local_model_store.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/environment.h"
#include "CaptureShared/common/line_append.h"
#include "CaptureShared/common/local_time.h"
#include "CaptureShared/common/saturating.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "CaptureShared/staleness/recording_pause.h"
#include "CaptureShared/staleness/signals_stale_note.h"
#include "CaptureShared/staleness/signals_staleness.h"
#include "VerdictBench/cli.h"
#include "platform/notifier.h"

namespace aimwise::tick {

namespace {

namespace fs = std::filesystem;
namespace Cadence = ClassifierCadence;

void say(const std::string& line) {
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
}

void warn(const std::string& line) {
    std::fputs(line.c_str(), stderr);
    std::fputc('\n', stderr);
}

int skipped(const std::string& reason) {
    say("skipped: " + reason);
    std::fflush(stdout);
    return 0;
}

// A state file that cannot be written costs the next tick its memory of this one, nothing more.
void writeCadence(const Cadence::State& state) {
    try {
        Cadence::write(state, DataPaths::classifierCadence());
    } catch (const std::exception& error) {
        warn(std::string("could not write the classifier cadence state: ") + error.what());
    }
}

void heartbeat(const std::optional<Cadence::State>& state, int64_t nowMs) {
    if (state) writeCadence(Cadence::heartbeat(nowMs, *state));
}

std::string seconds(double value) { return fmt::format("{:.1f}", value); }

}  // namespace

Platform Platform::live() {
    return Platform{
        [] { return CallActivityProbe::read(); },
        [] { return LivePowerSnapshot::read(); },
        [](const SignalsReader& signals, HTTPSession& session) { return cli::captureLiveWindowContent(signals, session); },
        [] { return BatteryTelemetry::read(); },
        [](const std::string& title, const std::string& message) { Notifier::notify(title, message); },
    };
}

namespace {

// Written before the timer is armed: the handler may only write and exit.
std::string watchdogMessage;

void onWatchdog(int) {
    (void)!::write(STDERR_FILENO, watchdogMessage.data(), watchdogMessage.size());
    ::_exit(1);
}

}  // namespace

// A timer rather than a thread: on a busy machine a thread costs the skipping tick two waits for a
// processor, one to start it and one to end it. Nothing waits unflushed on stdout while a tick
// waits on the model, so exiting from the handler loses nothing.
void armTickWatchdog(double ceilingSec) {
    watchdogMessage = "tick watchdog: exceeded " + seconds(ceilingSec) +
                      "s, exiting nonzero so the next systemd timer interval can run — see #732\n";
    struct sigaction action {};
    action.sa_handler = onWatchdog;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGALRM, &action, nullptr);
    const int64_t microseconds = std::llround(std::max(ceilingSec, 1e-6) * 1e6);
    itimerval timer{};
    timer.it_value.tv_sec = static_cast<time_t>(microseconds / 1'000'000);
    timer.it_value.tv_usec = static_cast<suseconds_t>(microseconds % 1'000'000);
    ::setitimer(ITIMER_REAL, &timer, nullptr);
}

std::optional<std::string> appendClassifierTick(const ClassifierTick& tick, const fs::path& to) {
    std::string line;
    try {
        line = tick.encoded() + "\n";
    } catch (const std::exception&) {
        std::fputs("tick: failed to encode record\n", stderr);
        return std::nullopt;
    }
    const LineAppend::Result result = LineAppend::append(to, line, 0600);
    if (result.ok()) return std::nullopt;
    if (result.failure == LineAppend::Failure::shortWrite && result.written >= 0)
        return "only " + std::to_string(result.written) + " of its " + std::to_string(result.expected) +
               " bytes were written (" + std::strerror(result.error) + ")";
    return std::strerror(result.error);
}

bool callHoldEnabled(const Environment& environment) {
    const auto value = lookup(environment, "AIMCAP_CALL_PAUSE");
    if (!value) return true;
    std::string lowered = trimWhitespaceAndNewlines(*value);
    std::transform(lowered.begin(), lowered.end(), lowered.begin(), [](unsigned char c) { return std::tolower(c); });
    return lowered != "0" && lowered != "false" && lowered != "off" && lowered != "no";
}

std::optional<std::string> classifierInstructions(const fs::path& dataRoot) {
    std::string text;
    try {
        text = readWholeFile(dataRoot / "coach-preferences.json", ReadLimit::setting);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    const auto preferences = nlohmann::json::parse(text, nullptr, false);
    if (preferences.is_discarded() || !preferences.is_object()) return std::nullopt;
    const auto note = preferences.find("classifierInstructions");
    if (note == preferences.end() || !note->is_string()) return std::nullopt;
    const std::string trimmed = trimWhitespaceAndNewlines(note->get<std::string>());
    if (trimmed.empty()) return std::nullopt;
    return "They've also told you this: \"" + trimmed + "\"";
}

void discloseEndedBackoffWindow(const fs::path& dataRoot, const std::optional<std::vector<EventLogEvent>>& events,
                                int64_t nowMs, const Platform& platform) {
    if (!events) return;
    try {
        const auto disclosed = BackoffDisclosure::disclose(
            *events, nowMs, platform.notify, [&](const EventLogEvent& event) {
                EventLogWriter::append(event, dataRoot / "io-layer" / "events.jsonl", disclosureProcessName);
            });
        if (disclosed)
            std::fprintf(stderr, "disclosed ended no-disrupt window (active_backoff_until=%lld)\n",
                         static_cast<long long>(disclosed->activeBackoffUntilMs));
    } catch (const std::exception& error) {
        warn(std::string("warning: backoff disclosure check failed: ") + error.what());
    }
}

namespace {

// What the gates share: the tick's inputs, and what each gate leaves for the ones after it.
struct TickRun {
    TickRun(const Platform& platform, const Clock& clock, const fs::path& dataRoot)
        : platform(platform),
          clock(clock),
          dataRoot(dataRoot),
          signalsPath(dataRoot / "signals.sqlite"),
          events(cli::readEventLogIfPresent(dataRoot / "io-layer" / "events.jsonl")),
          energy(dataRoot, {platform.batteryTelemetry}, clock) {}

    const Platform& platform;
    const Clock& clock;
    const fs::path dataRoot;
    const fs::path signalsPath;
    const std::optional<std::vector<EventLogEvent>> events;
    std::optional<SignalsReader> signals;
    Environment environment;
    int64_t nowMs = 0;
    std::optional<Cadence::State> cadence;
    Cadence::Config baseConfig;
    LazyHTTPSession session;
    // From the state gate on.
    std::optional<ClassifierService::StateWithoutPresence> partial;
    std::optional<ClassifierState> state;
    // From the power and cadence gates on.
    Cadence::Config config;
    Cadence::Episode episode;
    bool away = false;
    // From the integrity gate on.
    ClassifierBackend::Config backendConfig;
    // Writes the skip's row when the run ends without judging.
    ClassifierTickEnergyLog::Run energy;
};

// A gate lets the tick go on, or ends it with "skipped: " and its words.
using Gate = std::optional<std::string>;
constexpr std::nullopt_t proceed = std::nullopt;

Gate freshnessGate(TickRun& run) {
    const std::optional<SignalsReader::TickRow> latest = run.signals->latestTick();
    const auto freshness = SignalsStaleness::decide(
        currentRecordingPause(run.nowMs), latest ? std::optional(latest->tsMs) : std::nullopt, run.nowMs,
        run.cadence ? std::optional(run.cadence->lastRanAtMs) : std::nullopt, SignalsStaleness::defaultThresholdMs,
        run.baseConfig.regimeGapSec);
    if (const auto* stale = std::get_if<SignalsStaleness::StaleConfirmed>(&freshness)) {
        const std::string reason = SignalsStaleness::reason(stale->gapMs, stale->lastGoodTickAtMs);
        warn("signals stale: " + reason);
        try {
            SignalsStaleNoteStore::write({stale->lastGoodTickAtMs, run.nowMs}, DataPaths::supportDir());
        } catch (const std::exception& error) {
            warn("signals stale: could not write " +
                 (DataPaths::supportDir() / SignalsStaleNoteStore::fileName).string() + ": " + error.what());
        }
        heartbeat(run.cadence, run.nowMs);
        return reason;
    }
    if (const auto* predates = std::get_if<SignalsStaleness::PredatesPause>(&freshness)) {
        const std::string reason =
            SignalsStaleness::reasonPredatesPause(predates->lastTickAtMs, predates->pauseStartedAtMs, run.nowMs);
        warn("signals not current: " + reason);
        heartbeat(run.cadence, run.nowMs);
        return reason;
    }
    if (std::holds_alternative<SignalsStaleness::Fresh>(freshness)) SignalsStaleNoteStore::clear(DataPaths::supportDir());
    return proceed;
}

Gate callHoldGate(TickRun& run) {
    if (!callHoldEnabled(run.environment)) return proceed;
    const CallHoldControl control{true, CallHoldOverrideStore::read(DataPaths::callHoldOverride())};
    const CallActivityReading reading = run.platform.callActivity().value_or(CallActivityReading{});
    static const std::vector<EventLogEvent> noEvents;
    const CallHold::Status status =
        ClassifierCallHold::decide(run.events ? *run.events : noEvents, reading, run.nowMs, run.cadence, control);
    if (const auto* held = std::get_if<CallHold::Held>(&status)) {
        if (run.cadence) writeCadence(Cadence::heartbeatPausedForCall(run.nowMs, held->sinceMs, *run.cadence));
        return ClassifierCallHold::skipReason;
    }
    return proceed;
}

// Never skips: without a state the tick fails.
Gate stateGate(TickRun& run) {
    run.partial = ClassifierService::buildStateWithoutPresence(*run.signals, run.events ? &*run.events : nullptr,
                                                               run.signalsPath, std::nullopt, run.session);
    if (!run.partial) throw cli::Failure("no signal data available (volume unmounted or DB empty) — skipping");
    run.state = run.partial->state;
    // The decision time: the estimate call above may have taken a while.
    run.cadence = Cadence::read(DataPaths::classifierCadence());
    run.nowMs = run.clock.wallMs();
    return proceed;
}

Gate powerGate(TickRun& run) {
    std::optional<ClassifierPowerPolicy::PowerSnapshot> power;
    if (ClassifierPowerPolicy::needsLiveReading(run.environment)) power = run.platform.powerSnapshot();
    if (run.cadence && power && ClassifierPowerPolicy::mustSkip(*power, run.environment)) {
        Cadence::State paused = *run.cadence;
        paused.lastRanAtMs = run.nowMs;
        paused.pausedForPower = true;
        paused.callHoldSinceMs.reset();
        writeCadence(paused);
        return ClassifierPowerPolicy::pauseReason;
    }
    const bool onBattery = power && ClassifierPowerPolicy::isOnBattery(*power).value_or(false);
    run.config = ClassifierPowerPolicy::effectiveConfig(run.baseConfig, onBattery, run.environment);
    return proceed;
}

Gate cadenceGate(TickRun& run) {
    const ClassifierState& state = *run.state;
    run.episode = Cadence::Episode{state.minutesSinceDeclared, state.declaredTask, std::nullopt};
    if (state.minutesOverEstimate)
        run.episode.estimateBoundaryMs =
            Saturating::subtract(state.tsMs, Saturating::fromDouble(*state.minutesOverEstimate * 60000.0));
    run.away = state.idleAnySec && *state.idleAnySec > ClassifierService::idleAwaySec;
    const Cadence::Decision decision = Cadence::decide(run.nowMs, run.cadence, state.frontmostApp,
                                                       state.frontmostWindowTitle, run.away, run.episode, run.config);
    if (const auto* skip = std::get_if<Cadence::Skip>(&decision)) {
        heartbeat(run.cadence, run.nowMs);
        const int interval = run.cadence ? run.cadence->effectiveInterval(run.config, run.episode) : 0;
        return "nothing cheap changed since the last judgment (next in ~" + std::to_string(skip->dueInSec) +
               "s, interval " + std::to_string(interval) + "s)";
    }
    // Only a judgment needs the gap fields.
    run.state = ClassifierService::withPresence(std::move(*run.partial), *run.signals);
    return proceed;
}

// Nothing goes to a server that is not serving the verified model. Never skips: a refusal fails.
Gate integrityGate(TickRun& run) {
    namespace Guard = ModelIntegrityGuard;
    run.backendConfig = ClassifierBackend::mainCallConfig();
    const EndpointURL base = LocalInferenceEndpoint::resolveOrThrow(run.environment);
    const std::string& model = run.backendConfig.model;
    const LocalModelStore store(LocalModelStore::defaultModelsDirectory());
    const std::optional<LocalModelManifest> manifest = store.manifest(model);
    std::optional<std::string> expectedPath;
    if (manifest) expectedPath = (store.modelsDirectory() / manifest->fileName).string();
    const std::string servedPath = Guard::fetchServedModelPath(base, run.session.get());
    const Guard::TickDecision integrity = Guard::tickDecision(
        model, Guard::evaluate(expectedPath, Guard::integrityFileCheck(manifest, store), servedPath), run.nowMs);
    for (const auto& warning : integrity.warnings) warn(warning);
    const fs::path refusalNote = Guard::refusalNotePath();
    if (integrity.refusal) {
        if (integrity.note) {
            try {
                Guard::writeRefusalNote(*integrity.note, refusalNote);
            } catch (const std::exception& error) {
                std::fprintf(stderr,
                             "model integrity (#986): couldn't write the refusal note for the app at %s: %s\n",
                             refusalNote.c_str(), error.what());
            }
        } else {
            Guard::clearRefusalNote(refusalNote);
        }
        throw cli::Failure(*integrity.refusal);
    }
    Guard::clearRefusalNote(refusalNote);
    return proceed;
}

struct Judgment {
    int64_t startMs = 0, endMs = 0;
    std::optional<PowerSource::BatteryReading> before, after;
    cli::LiveWindowContent capture;
    ClassifierService::Outcome outcome;
};

// A failed model call throws from here, before anything is recorded.
Judgment judge(TickRun& run) {
    // The model and every record of the verdict see the same cleaned titles. Only here: the capture
    // agent keeps titles cleaned already, so the cadence compares like with like, and a skipping
    // tick never loads the text libraries.
    run.state = cli::withTitlesCleaned(std::move(*run.state));
    Judgment judgment;
    judgment.startMs = run.clock.wallMs();
    judgment.before = run.platform.batteryTelemetry();
    judgment.capture = run.platform.captureWindowContent(*run.signals, run.session.get());
    const auto instructions = classifierInstructions(run.dataRoot);
    judgment.outcome = ClassifierService::judge(*run.state, std::nullopt, judgment.capture.content, instructions,
                                                judgment.capture.redactions, judgment.capture.withheld,
                                                run.backendConfig, run.session.get());
    cli::logPrivacy(judgment.outcome);
    judgment.endMs = run.clock.wallMs();
    judgment.after = run.platform.batteryTelemetry();
    return judgment;
}

// The verdict first: the logs after it are worth less than the verdict, and their failures only warn.
void record(TickRun& run, const Judgment& judgment) {
    const std::string& model = run.backendConfig.model;
    const std::string at = LocalTime::format(run.clock.wallMs());
    const ClassifierTick tick = ClassifierService::loggedTick(at, judgment.outcome, judgment.capture.screenshotAtMs, model);
    const fs::path log = run.dataRoot / "checker-log.jsonl";
    if (const auto failure = appendClassifierTick(tick, log))
        warn("this verdict could not be written to " + log.string() + ": " + *failure +
             ". It was made and the cadence moves on, but the coach will not see it.");
    writeCadence(Cadence::advanced(run.cadence, run.nowMs, judgment.outcome.judgment.state, run.state->frontmostApp,
                                   run.state->frontmostWindowTitle, run.away, run.episode, run.config));

    const int64_t atMs = tick.atMs().value_or(run.clock.wallMs());
    if (judgment.capture.content) {
        JSONValue::Object row{{"v", 1},
                              {"atMs", atMs},
                              {"describe", judgment.capture.description},
                              {"ocrChars", judgment.capture.ocrChars},
                              {"textSource", judgment.capture.textSource},
                              {"model", model}};
        if (judgment.capture.screenshotAtMs) row["screenshotAtMs"] = *judgment.capture.screenshotAtMs;
        try {
            JSONLAppend::append(row, run.dataRoot / describeLogFileName);
        } catch (const std::exception& error) {
            warn(std::string("describe log append failed (tick was still written): ") + error.what());
        }
    }
    try {
        run.energy.judged({atMs, judgment.startMs, judgment.endMs, model, judgment.before, judgment.after});
    } catch (const std::exception& error) {
        warn(std::string("tick energy log append failed (tick was still written): ") + error.what());
    }

    try {
        say(escapedForTerminal(nlohmann::json::parse(tick.encoded()).dump(2), Newlines::kept));
    } catch (const std::exception&) {
        // Already reported by appendClassifierTick.
    }
    std::fflush(stdout);
}

}  // namespace

int runTick(const Platform& platform, const Clock& clock) {
    TickRun run(platform, clock, DataPaths::dataRoot());
    discloseEndedBackoffWindow(run.dataRoot, run.events, clock.wallMs(), platform);
    run.signals.emplace(SignalsReader::open(run.signalsPath));
    run.environment = processEnvironment();
    run.nowMs = clock.wallMs();
    run.cadence = Cadence::read(DataPaths::classifierCadence());
    run.baseConfig = Cadence::Config::fromEnvironment(run.environment);

    // Cheapest first, and nothing that costs power or reaches the model server before a gate that
    // could make it pointless: the freshness and call gates read files and one probe; the state
    // gate may ask the model for an estimate, and it dates the decision; power and cadence decide
    // from that state; the integrity check talks to the server only for a tick that will judge.
    constexpr Gate (*gates[])(TickRun&) = {freshnessGate, callHoldGate, stateGate,
                                           powerGate,     cadenceGate,  integrityGate};
    for (const auto gate : gates)
        if (const Gate skip = gate(run)) return skipped(*skip);

    record(run, judge(run));
    return 0;
}

}  // namespace aimwise::tick
