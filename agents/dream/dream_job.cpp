#include "agents/dream/dream_job.h"

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <optional>
#include <thread>

#include "AimwiseCore/events/event_log_writer.h"
#include "AimwiseCore/memory/consolidation_events.h"
#include "AimwiseCore/memory/consolidation_pass.h"
#include "AimwiseCore/memory/dream_lock.h"
#include "AimwiseCore/memory/dream_power_policy.h"
#include "AimwiseCore/memory/dream_return_watch.h"
#include "AimwiseCore/memory/dream_schedule_inputs.h"
#include "AimwiseCore/memory/memory_wipe.h"
#include "AimwiseCore/models/cancellation.h"
#include "AimwiseCore/models/local_inference_endpoint.h"
#include "AimwiseCore/models/local_inference_wire.h"
#include "AimwiseCore/models/local_model_backend.h"
#include "AimwiseCore/models/model_backend_factory.h"
#include "CaptureShared/dataroot/data_paths.h"

namespace aimwise::DreamJob {

const char* const usageText =
    "usage: aimwise-dream [--once | --force]\n"
    "  Consolidates the event log into memory: a digest of every finished day, then the standing memory\n"
    "  the coach reads. The systemd timer runs it every 30 minutes; a pass starts only when nobody is at\n"
    "  the machine and memory is behind.\n"
    "  --once   one run now, if the schedule allows it (what the timer does)\n"
    "  --force  one run now whatever the schedule says; the lock and the power and heat guardrails still "
    "hold\n";

namespace {

namespace fs = std::filesystem;
using namespace MemoryConsolidation;

constexpr const char* processName = "aimwise-dream";
constexpr int64_t consolidationMaxTokens = 4096;
constexpr size_t deferralTailBytes = 65'536;

bool isStop(const DreamGuardrails::Decision& decision) {
    return DreamGuardrails::severity(decision) >= DreamGuardrails::severity(DreamGuardrails::Pause{});
}

std::string stopWord(const DreamGuardrails::Decision& decision) {
    return std::holds_alternative<DreamGuardrails::Abort>(decision) ? "aborted: " : "paused: ";
}

// Whether the last run left a power or heat deferral open, from the newest such event in the log.
bool deferralOpen(const fs::path& eventsLog) {
    bool open = false;
    for (const auto& line : DreamScheduleInputs::tailLines(eventsLog, deferralTailBytes)) {
        if (line.find("memory_consolidation_deferred_power_") == std::string::npos) continue;
        if (const auto event = EventLogEvent::decode(line)) {
            if (event->type == "memory_consolidation_deferred_power_started") open = true;
            if (event->type == "memory_consolidation_deferred_power_ended") open = false;
        }
    }
    return open;
}

// The guardrails asked during a pass, which also note in the event log when a deferral begins and ends.
class Guardrails {
public:
    Guardrails(const Services& services, std::function<void(const EventLogEvent&)> record, bool deferring)
        : services_(services), record_(std::move(record)), deferring_(deferring) {}

    DreamGuardrails::Decision check() {
        const auto decision = DreamPowerPolicy::checkpoint(services_.readGuardrails(), services_.environment);
        std::lock_guard guard(mutex_);
        const int64_t now = services_.clock->wallMs();
        if (isStop(decision) && !deferring_) {
            record_(
                MemoryConsolidationEvents::deferredPowerStarted(DreamGuardrails::reasonOf(decision), now));
            deferring_ = true;
        } else if (!isStop(decision) && deferring_) {
            record_(MemoryConsolidationEvents::deferredPowerEnded(now));
            deferring_ = false;
        }
        return decision;
    }

private:
    const Services& services_;
    std::function<void(const EventLogEvent&)> record_;
    std::mutex mutex_;
    bool deferring_;
};

// The first reason to stand down. Shared, so that a backend holding `shouldKeepWaiting` may outlive the pass.
struct StandDown {
    mutable std::mutex mutex;
    std::optional<std::string> reason;

    std::optional<std::string> get() const {
        std::lock_guard guard(mutex);
        return reason;
    }
};

// Polls for the person's return (and the guardrails, less often) on its own thread while a pass runs;
// the first reason to stand down cancels the model call in flight and ends any retry wait.
class Watcher {
public:
    Watcher(const Services& services, Guardrails& guardrails, std::shared_ptr<CancellationToken> token,
            std::unique_ptr<DreamReturnWatch> returnWatch)
        : services_(services),
          guardrails_(guardrails),
          token_(std::move(token)),
          returnWatch_(std::move(returnWatch)) {
        thread_ = std::thread([this] { loop(); });
    }
    ~Watcher() {
        {
            std::lock_guard guard(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }

    std::shared_ptr<const StandDown> standDown() const { return standDown_; }

private:
    void loop() {
        int64_t sinceGuardrailsMs = 0;
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            lock.unlock();
            std::optional<std::string> found = returnWatch_ ? returnWatch_->check() : std::nullopt;
            sinceGuardrailsMs += services_.watchIntervalMs;
            if (!found && sinceGuardrailsMs >= services_.guardrailIntervalMs) {
                sinceGuardrailsMs = 0;
                const auto decision = guardrails_.check();
                if (isStop(decision)) found = DreamGuardrails::reasonOf(decision);
            }
            lock.lock();
            if (found) {
                {
                    std::lock_guard guard(standDown_->mutex);
                    standDown_->reason = found;
                }
                token_->cancel();
                break;
            }
            wake_.wait_for(lock, std::chrono::milliseconds(services_.watchIntervalMs),
                           [this] { return stopping_; });
        }
    }

    const Services& services_;
    Guardrails& guardrails_;
    std::shared_ptr<CancellationToken> token_;
    std::unique_ptr<DreamReturnWatch> returnWatch_;
    std::shared_ptr<StandDown> standDown_ = std::make_shared<StandDown>();
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

std::string describe(const PassOutcome& outcome, bool sequential) {
    if (std::holds_alternative<NothingPending>(outcome))
        return sequential ? "the sequential memory has folded every digest" : "memory is up to date";
    if (const auto* done = std::get_if<Completed>(&outcome))
        return sequential ? "done: " + std::to_string(done->digestsFolded) +
                                " digest(s) folded into the sequential memory"
                          : "done: " + std::to_string(done->digestsWritten) +
                                " period(s) digested, and the standing memory is up to date";
    const auto& stopped = std::get<Stopped>(outcome);
    const std::string kept = std::to_string(stopped.digestsWritten) + " digest(s) written and " +
                             std::to_string(stopped.digestsFolded) +
                             " folded are kept; the next run carries on";
    switch (stopped.stop.kind) {
        case PassStop::Kind::lockHeld:
            return "held: another process is consolidating memory right now";
        case PassStop::Kind::guardrail:
            return "paused: " + stopped.stop.reason + " -- " + kept;
        case PassStop::Kind::yielded:
            return "stood down: " + stopped.stop.reason + " -- " + kept;
    }
    return "";
}

int consolidate(const Options& options, const Services& services, const Log& log, int64_t asOfMs) {
    const fs::path eventsLog = services.dataRoot / "io-layer" / "events.jsonl";
    const auto record = [&](const EventLogEvent& event) {
        try {
            EventLogWriter::append(event, eventsLog, processName);
        } catch (const EventLogWriterError& error) {
            log("could not note " + event.type + " in the event log: " + error.description());
        } catch (const std::exception& error) {
            log("could not note " + event.type + " in the event log: " + error.what());
        }
    };

    const LockAcquisition lock = acquireDreamLock(services.dataRoot);
    if (lock.kind == LockAcquisition::Kind::heldByAnotherProcess) {
        log("held: another process is consolidating memory right now");
        return 0;
    }
    if (lock.kind == LockAcquisition::Kind::unavailable)
        log("dream lock unavailable (" + lock.reason + ") -- proceeding without cross-process protection");

    // Asked before anything heavy is read, so that a paused run costs next to nothing.
    Guardrails guardrails(services, record, deferralOpen(eventsLog));
    const auto first = guardrails.check();
    if (isStop(first)) {
        log(stopWord(first) + DreamGuardrails::reasonOf(first));
        return 0;
    }

    PeriodRendering::LogForDigests eventLog;
    try {
        const auto wipeAtMs = MemoryWipeLog::latestAtMs(MemoryWipeLog::defaultURL(services.dataRoot));
        eventLog = PeriodRendering::readForDigests(eventsLog,
                                                   std::max(earliestPlausibleEventMs, wipeAtMs.value_or(0)));
    } catch (const std::exception& error) {
        log(std::string("FAIL: the event log could not be read (") + error.what() +
            "); memory was left as it is");
        return 1;
    }

    auto token = std::make_shared<CancellationToken>();
    CancellationScope scope(token);
    // A person running --force by hand is at the machine: only the guardrails can stand it down.
    std::unique_ptr<DreamReturnWatch> returnWatch;
    if (!options.force)
        returnWatch = std::make_unique<DreamReturnWatch>(services.dataRoot / "signals.sqlite", asOfMs);
    Watcher watcher(services, guardrails, token, std::move(returnWatch));
    const auto standDown = watcher.standDown();
    const auto backend = services.makeBackend([standDown] { return !standDown->get(); }, log);

    PassContext context{.dataRoot = services.dataRoot,
                        .asOfMs = asOfMs,
                        .backend = backend.get(),
                        .options = ChatOptions{.maxTokens = consolidationMaxTokens, .think = false},
                        .checkpoint = [&] { return guardrails.check(); },
                        .shouldYield = [&] { return standDown->get(); },
                        .log = log,
                        .clock = services.clock,
                        .record = record,
                        .earliestEventMs = eventLog.earliestEventMs};
    const PassOutcome standing = runPass(eventLog.events, context);
    log(describe(standing, false));
    if (std::holds_alternative<Stopped>(standing)) return 0;
    log(describe(backfillSequential(context, std::nullopt), true));
    return 0;
}

}  // namespace

int runOnce(const Options& options, const Services& services) {
    const Log log = [&](const std::string& line) {
        services.out(ConsolidateLog::line(line, services.clock->wallMs()));
    };
    const int64_t asOfMs = services.clock->wallMs();
    const auto inputs = DreamScheduleInputs::read(services.dataRoot, asOfMs, defaultStepIntervalSec);
    const auto decision = DreamSchedule::evaluate(inputs.snapshot);
    const auto* hold = std::get_if<DreamSchedule::Hold>(&decision);
    if (options.force) {
        log(std::string("forced: the schedule is skipped") +
            (hold ? " (it would hold: " + hold->reason + ")" : ""));
    } else if (hold) {
        log("held: " + hold->reason +
            (inputs.standingMemorySalvaged ? " (the standing memory is salvaged; the next pass repairs it)"
                                           : ""));
        return 0;
    } else {
        log("starting: " + std::to_string(inputs.snapshot.pendingPeriodCount) + " period(s) to digest, and " +
            (inputs.snapshot.presence == DreamSchedule::Presence::away ? "the screen is locked"
                                                                       : "no sign of anyone at the machine"));
    }
    try {
        return consolidate(options, services, log, asOfMs);
    } catch (const EventLogWriterError& error) {
        log("FAIL: " + error.description() + "; every memory file is as it was or wholly replaced");
    } catch (const std::exception& error) {
        log(std::string("FAIL: ") + error.what() + "; every memory file is as it was or wholly replaced");
    }
    return 1;
}

int run(const std::vector<std::string>& arguments, const Environment& environment) {
    Options options;
    for (const auto& argument : arguments) {
        if (argument == "--help" || argument == "-h") {
            std::fputs(usageText, stdout);
            return 0;
        }
        if (argument == "--force")
            options.force = true;
        else if (argument != "--once") {
            std::fprintf(stderr, "aimwise-dream: unknown argument \"%s\"\n%s", argument.c_str(), usageText);
            return 2;
        }
    }
    if (!DataPaths::isDataRootAvailable()) {
        std::fprintf(
            stderr, "FAIL: %s — nothing was read or written. Run `aimwise init PATH` first.\n",
            DataPaths::dataRootUnavailableReason().value_or("the data root is not available").c_str());
        return 1;
    }
    Services services{.dataRoot = DataPaths::dataRoot(), .environment = environment};
    services.makeBackend = [&environment](std::function<bool()> shouldKeepWaiting, const Log& log) {
        return ModelBackendFactory::forConsolidation(environment, std::move(shouldKeepWaiting), log, std::nullopt);
    };
    // Failures go to standard error, the rest of the log to standard output; under systemd both reach dream.log.
    services.out = [](const std::string& line) {
        FILE* stream = line.find("] FAIL: ") != std::string::npos ? stderr : stdout;
        std::fprintf(stream, "%s\n", line.c_str());
        std::fflush(stream);
    };
    return runOnce(options, services);
}

}  // namespace aimwise::DreamJob
