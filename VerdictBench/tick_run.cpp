#include "VerdictBench/tick_run.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>

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
#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/events/event_log_writer.h"
#include "AimwiseCore/events/jsonl_append.h"
#include "AimwiseCore/models/local_inference_endpoint.h"
#include "AimwiseCore/models/local_model_store.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/environment.h"
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

void armTickWatchdog(double ceilingSec) {
    std::thread watchdog([ceilingSec] {
        std::this_thread::sleep_for(std::chrono::duration<double>(ceilingSec));
        const std::string message = "tick watchdog: exceeded " + seconds(ceilingSec) +
                                    "s, exiting nonzero so the next systemd timer interval can run — see #732\n";
        (void)!::write(STDERR_FILENO, message.data(), message.size());
        std::fflush(stdout);
        ::_exit(1);
    });
    // The kernel keeps 15 bytes of a thread's name.
    pthread_setname_np(watchdog.native_handle(), std::string(watchdogThreadName).substr(0, 15).c_str());
    watchdog.detach();
}

void appendClassifierTick(const ClassifierTick& tick, const fs::path& to) {
    std::string line;
    try {
        line = tick.encoded() + "\n";
    } catch (const std::exception&) {
        std::fputs("tick: failed to encode record\n", stderr);
        return;
    }
    // One write on an append descriptor: concurrent writers of whole lines never interleave.
    const int fd = ::open(to.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return;
    (void)!::write(fd, line.data(), line.size());
    ::close(fd);
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
        text = readWholeFile(dataRoot / "coach-preferences.json");
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

int runTick(const Platform& platform, const Clock& clock) {
    const fs::path dataRoot = DataPaths::dataRoot();
    const fs::path signalsPath = dataRoot / "signals.sqlite";
    const auto events = cli::readEventLogIfPresent(dataRoot / "io-layer" / "events.jsonl");

    discloseEndedBackoffWindow(dataRoot, events, clock.wallMs(), platform);

    const SignalsReader signals = SignalsReader::open(signalsPath);

    const Environment environment = processEnvironment();
    int64_t nowMs = clock.wallMs();
    std::optional<Cadence::State> cadence = Cadence::read(DataPaths::classifierCadence());
    const Cadence::Config baseConfig = Cadence::Config::fromEnvironment(environment);
    const SignalsStaleness::Pause pause = currentRecordingPause(nowMs);
    const std::optional<SignalsReader::TickRow> latest = signals.latestTick();

    // Freshness gate.
    const auto freshness = SignalsStaleness::decide(
        pause, latest ? std::optional(latest->tsMs) : std::nullopt, nowMs,
        cadence ? std::optional(cadence->lastRanAtMs) : std::nullopt, SignalsStaleness::defaultThresholdMs,
        baseConfig.regimeGapSec);
    if (const auto* stale = std::get_if<SignalsStaleness::StaleConfirmed>(&freshness)) {
        const std::string reason = SignalsStaleness::reason(stale->gapMs, stale->lastGoodTickAtMs);
        warn("signals stale: " + reason);
        try {
            SignalsStaleNoteStore::write({stale->lastGoodTickAtMs, nowMs}, DataPaths::supportDir());
        } catch (const std::exception& error) {
            warn("signals stale: could not write " +
                 (DataPaths::supportDir() / SignalsStaleNoteStore::fileName).string() + ": " + error.what());
        }
        heartbeat(cadence, nowMs);
        return skipped(reason);
    }
    if (const auto* predates = std::get_if<SignalsStaleness::PredatesPause>(&freshness)) {
        const std::string reason =
            SignalsStaleness::reasonPredatesPause(predates->lastTickAtMs, predates->pauseStartedAtMs, nowMs);
        warn("signals not current: " + reason);
        heartbeat(cadence, nowMs);
        return skipped(reason);
    }
    if (std::holds_alternative<SignalsStaleness::Fresh>(freshness)) SignalsStaleNoteStore::clear(DataPaths::supportDir());

    // Call hold.
    if (callHoldEnabled(environment)) {
        const CallHoldControl control{true, CallHoldOverrideStore::read(DataPaths::callHoldOverride())};
        const CallActivityReading reading = platform.callActivity().value_or(CallActivityReading{});
        static const std::vector<EventLogEvent> noEvents;
        const CallHold::Status status =
            ClassifierCallHold::decide(events ? *events : noEvents, reading, nowMs, cadence, control);
        if (const auto* held = std::get_if<CallHold::Held>(&status)) {
            if (cadence) writeCadence(Cadence::heartbeatPausedForCall(nowMs, held->sinceMs, *cadence));
            return skipped(ClassifierCallHold::skipReason);
        }
    }

    LazyHTTPSession session;
    std::optional<ClassifierService::StateWithoutPresence> partial = ClassifierService::buildStateWithoutPresence(
        signals, events ? &*events : nullptr, signalsPath, std::nullopt, session);
    if (!partial) throw cli::Failure("no signal data available (volume unmounted or DB empty) — skipping");
    std::optional<ClassifierState> state = partial->state;

    // The decision time: the estimate call above may have taken a while.
    cadence = Cadence::read(DataPaths::classifierCadence());
    nowMs = clock.wallMs();

    // Power policy.
    std::optional<ClassifierPowerPolicy::PowerSnapshot> power;
    if (ClassifierPowerPolicy::needsLiveReading(environment)) power = platform.powerSnapshot();
    if (cadence && power && ClassifierPowerPolicy::mustSkip(*power, environment)) {
        Cadence::State paused = *cadence;
        paused.lastRanAtMs = nowMs;
        paused.pausedForPower = true;
        paused.callHoldSinceMs.reset();
        writeCadence(paused);
        return skipped(ClassifierPowerPolicy::pauseReason);
    }
    const bool onBattery = power && ClassifierPowerPolicy::isOnBattery(*power).value_or(false);
    const Cadence::Config config = ClassifierPowerPolicy::effectiveConfig(baseConfig, onBattery, environment);

    // Cadence.
    Cadence::Episode episode{state->minutesSinceDeclared, state->declaredTask, std::nullopt};
    if (state->minutesOverEstimate)
        episode.estimateBoundaryMs = state->tsMs - static_cast<int64_t>(std::trunc(*state->minutesOverEstimate * 60000.0));
    const bool away = state->idleAnySec && *state->idleAnySec > ClassifierService::idleAwaySec;
    const Cadence::Decision decision =
        Cadence::decide(nowMs, cadence, state->frontmostApp, state->frontmostWindowTitle, away, episode, config);
    if (const auto* skip = std::get_if<Cadence::Skip>(&decision)) {
        heartbeat(cadence, nowMs);
        const int interval = cadence ? cadence->effectiveInterval(config, episode) : 0;
        return skipped("nothing cheap changed since the last judgment (next in ~" + std::to_string(skip->dueInSec) +
                       "s, interval " + std::to_string(interval) + "s)");
    }

    // Only a judgment needs the gap fields.
    state = ClassifierService::withPresence(std::move(*partial), signals);

    // Model integrity: nothing goes to a server that is not serving the verified model.
    namespace Guard = ModelIntegrityGuard;
    const ClassifierBackend::Config backendConfig = ClassifierBackend::mainCallConfig();
    const EndpointURL base = LocalInferenceEndpoint::resolveOrThrow(environment);
    const std::string& model = backendConfig.model;
    const LocalModelStore store(LocalModelStore::defaultModelsDirectory());
    const std::optional<LocalModelManifest> manifest = store.manifest(model);
    std::optional<std::string> expectedPath;
    if (manifest) expectedPath = (store.modelsDirectory() / manifest->fileName).string();
    const std::string servedPath = Guard::fetchServedModelPath(base, session.get());
    const Guard::TickDecision integrity = Guard::tickDecision(
        model, Guard::evaluate(expectedPath, Guard::integrityFileCheck(manifest, store), servedPath), nowMs);
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

    // The judgment.
    const int64_t startMs = clock.wallMs();
    const auto before = platform.batteryTelemetry();
    const cli::LiveWindowContent capture = platform.captureWindowContent(signals, session.get());
    const auto instructions = classifierInstructions(dataRoot);

    const ClassifierService::Outcome outcome =
        ClassifierService::judge(*state, std::nullopt, capture.content, instructions, capture.redactions,
                                 capture.withheld, backendConfig, session.get());
    cli::logPrivacy(outcome);

    const int64_t endMs = clock.wallMs();
    const auto after = platform.batteryTelemetry();
    const std::string at = ProjectionDateParsing::formatLocal(clock.wallMs());

    const ClassifierTick tick = ClassifierService::loggedTick(at, outcome, capture.screenshotAtMs, model);
    appendClassifierTick(tick, dataRoot / "checker-log.jsonl");
    writeCadence(Cadence::advanced(cadence, nowMs, outcome.judgment.state, state->frontmostApp,
                                   state->frontmostWindowTitle, away, episode, config));

    const int64_t atMs = tick.atMs().value_or(clock.wallMs());
    if (capture.content) {
        JSONValue::Object row{{"v", 1},
                              {"atMs", atMs},
                              {"describe", capture.description},
                              {"ocrChars", capture.ocrChars},
                              {"model", model}};
        if (capture.screenshotAtMs) row["screenshotAtMs"] = *capture.screenshotAtMs;
        try {
            JSONLAppend::append(row, dataRoot / describeLogFileName);
        } catch (const std::exception& error) {
            warn(std::string("describe log append failed (tick was still written): ") + error.what());
        }
    }
    try {
        ClassifierTickEnergyLog::append({atMs, startMs, endMs, model, before, after},
                                        dataRoot / ClassifierTickEnergyLog::fileName);
    } catch (const std::exception& error) {
        warn(std::string("tick energy log append failed (tick was still written): ") + error.what());
    }

    try {
        say(nlohmann::json::parse(tick.encoded()).dump(2));
    } catch (const std::exception&) {
        // Already reported by appendClassifierTick.
    }
    std::fflush(stdout);
    return 0;
}

}  // namespace aimwise::tick
