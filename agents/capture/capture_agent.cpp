#include "agents/capture/capture_agent.h"

#include <cstdio>
#include <memory>
#include <optional>

#include "AimwiseCore/events/event_log.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "CaptureShared/dataroot/data_root_presence.h"
#include "CaptureShared/signals/sqlite_db.h"
#include "CaptureShared/staleness/recording_pause.h"
#include "agents/capture/idle_split.h"
#include "agents/capture/recorder.h"
#include "agents/capture/signals_writer.h"
#include "agents/capture/tick_record.h"
#include "agents/capture/wayland_notice.h"
#include "agents/capture/title_cleaner.h"
#include "platform/desktop_session.h"
#include "platform/wayland_desktop_module.h"

namespace aimwise {

namespace {

void say(const std::string& message) {
    std::fprintf(stderr, "aimwise-capture: %s\n", message.c_str());
}

// Sleeps until `deadlineMs` (monotonic) in short steps, so that a stop request is seen promptly.
void sleepUntil(int64_t deadlineMs, const std::atomic<bool>& stop, const Clock& clock) {
    while (!stop.load()) {
        const int64_t left = deadlineMs - clock.monotonicMs();
        if (left <= 0) return;
        clock.sleepMs(std::min<int64_t>(left, 250));
    }
}

class Agent {
  public:
    Agent(const CaptureOptions& options, const Clock& clock)
        : options_(options), clock_(clock), lock_(options.sessionLock) {
        if (!options.once)
            recorder_ = std::make_unique<Recorder>(
                Recorder::Options{.display = options.display, .environment = processEnvironment()}, clock, say);
    }

    // True when an instant was written.
    bool step(int64_t nowMonotonic) {
        if (!dataRootReady(nowMonotonic)) return false;
        if (std::holds_alternative<SignalsStaleness::PauseActive>(currentRecordingPause(clock_.wallMs()))) {
            if (!pausedSaid_) say("recording is paused; writing nothing until the pause ends");
            pausedSaid_ = true;
            return false;
        }
        if (pausedSaid_) say("recording pause over; writing again");
        pausedSaid_ = false;

        auto snapshot = sampleDesktop(nowMonotonic);
        if (!snapshot) return false;
        if (!writer_ && !openWriter()) return false;
        titles_.clean(*snapshot);

        std::optional<IdleSplit::Reading> idle;
        if (snapshot->idleSec)
            idle =
                idleSplit_.update(nowMonotonic, *snapshot->idleSec, {snapshot->pointerX, snapshot->pointerY});
        if (!power_ || nowMonotonic - powerReadAtMs_ >= options_.powerRefreshMs) {
            power_ = PowerSource::readTickColumns(options_.powerSupplyRoot);
            powerReadAtMs_ = nowMonotonic;
        }
        const auto locked = lock_.locked(nowMonotonic);
        if (recorder_) recorder_->sampled(locked, nowMonotonic);
        writer_->write(buildTickRecord(clock_.wallMs(), *snapshot, idle, locked, *power_, EventLog::read()));
        return true;
    }

    int64_t nextDelayMs() const {
        return rootMissing_ || rootUnprepared_ ? options_.rootRetryMs : options_.intervalMs;
    }

  private:
    bool dataRootReady(int64_t nowMonotonic) {
        if (!DataPaths::isDataRootAvailable()) {
            // Let go of the file so that the volume can be unmounted.
            writer_.reset();
            if (!rootMissing_)
                say(DataPaths::dataRootUnavailableReason().value_or("the data root is not available") +
                    " — recording nothing; checking again every " +
                    std::to_string(options_.rootRetryMs / 1000) + " s");
            rootMissing_ = true;
            return false;
        }
        if (rootMissing_) say("data root " + DataPaths::dataRoot().string() + " is available; recording");
        rootMissing_ = false;
        if (writer_ && !writer_->stillAtPath()) {
            say("signals.sqlite was removed or replaced; starting a new one");
            writer_.reset();
        }
        // An unmounted disk leaves its empty mount point behind: recording there would fill the system disk.
        const bool prepared = writer_ || DataRootPresence::readyForNewSignals(DataPaths::dataRoot());
        if (!prepared && !rootUnprepared_)
            say(DataRootPresence::unpreparedRootSentence(DataPaths::dataRoot()) + "; checking again every " +
                std::to_string(options_.rootRetryMs / 1000) + " s");
        if (prepared && rootUnprepared_) say("data root " + DataPaths::dataRoot().string() + " is ready; recording");
        rootUnprepared_ = !prepared;
        return prepared;
    }

    bool openWriter() {
        try {
            DataPaths::ensureSubdirsExist();
            writer_ = std::make_unique<SignalsWriter>(DataPaths::signalsDB());
            return true;
        } catch (const SQLiteError& error) {
            say("cannot open " + DataPaths::signalsDB().string() + ": " + error.description());
        } catch (const std::exception& error) {
            say(std::string("cannot prepare the data root: ") + error.what());
        }
        return false;
    }

    std::optional<DesktopSnapshot> sampleDesktop(int64_t nowMonotonic) {
        if (!desktop_ && nowMonotonic >= nextDisplayAttemptMs_) {
            desktop_ = openDesktop();
            if (desktop_) {
                if (displayMissing_) say("connected to the desktop again");
                const std::string reader = desktop_->describe();
                if (reader != lastReader_) say(reader);
                lastReader_ = reader;
                displayMissing_ = false;
            } else {
                if (!displayMissing_)
                    say("cannot reach the desktop (" + sessionName() + "); retrying every " +
                        std::to_string(options_.displayRetryMs / 1000) + " s");
                displayMissing_ = true;
                nextDisplayAttemptMs_ = nowMonotonic + options_.displayRetryMs;
            }
        }
        if (!desktop_) return std::nullopt;
        auto snapshot = desktop_->sample(nowMonotonic);
        if (!snapshot) {
            say("lost the connection to the desktop; recording nothing until it is back");
            desktop_.reset();
            displayMissing_ = true;
            nextDisplayAttemptMs_ = nowMonotonic + std::min<int64_t>(options_.displayRetryMs, 2000);
        }
        return snapshot;
    }

    // The reader the session calls for; on a Wayland desktop whose reader cannot start, the X11
    // reader sees what runs through XWayland, and says so.
    std::unique_ptr<DesktopSession> openDesktop() {
        const DesktopKind kind = desktopKindFor(options_.environment);
        if (kind != DesktopKind::x11) {
            std::string failure;
            if (auto session = WaylandDesktopModule::open(kind, options_.environment, options_.display, failure))
                return session;
            if (!fallbackSaid_)
                say("the Wayland reader for this desktop could not start (" + sessionName() +
                    (failure.empty() ? "" : "; " + failure) + "); trying the X11 reader");
            fallbackSaid_ = true;
            if (displayName().empty()) return nullptr;
            auto session = DesktopSession::connect(options_.display);
            if (session)
                if (const auto notice = waylandNotice(options_.environment)) say(*notice);
            return session;
        }
        return DesktopSession::connect(options_.display);
    }

    std::string sessionName() const {
        if (desktopKindFor(options_.environment) == DesktopKind::x11) return "X display \"" + displayName() + "\"";
        return "Wayland display \"" + lookup(options_.environment, "WAYLAND_DISPLAY").value_or("wayland-0") +
               "\", desktop \"" + lookup(options_.environment, "XDG_CURRENT_DESKTOP").value_or("") + "\"";
    }

    std::string displayName() const {
        if (!options_.display.empty()) return options_.display;
        return lookup(options_.environment, "DISPLAY").value_or("");
    }

    const CaptureOptions& options_;
    const Clock& clock_;
    SessionLock lock_;
    IdleSplit idleSplit_;
    std::unique_ptr<DesktopSession> desktop_;
    std::unique_ptr<SignalsWriter> writer_;
    // Its own thread: its faults and waits never hold up sampling.
    std::unique_ptr<Recorder> recorder_;
    TitleCleaner titles_;
    std::optional<PowerSource::TickColumns> power_;
    int64_t powerReadAtMs_ = 0;
    int64_t nextDisplayAttemptMs_ = 0;
    bool rootMissing_ = false;
    bool rootUnprepared_ = false;
    bool displayMissing_ = false;
    bool pausedSaid_ = false;
    bool fallbackSaid_ = false;
    std::string lastReader_;
};

}  // namespace

int runCaptureAgent(const CaptureOptions& options, const std::atomic<bool>& stop, const Clock& clock) {
    Agent agent(options, clock);
    if (options.once) return agent.step(clock.monotonicMs()) ? 0 : 1;
    int64_t deadline = clock.monotonicMs();
    while (!stop.load()) {
        agent.step(clock.monotonicMs());
        deadline += agent.nextDelayMs();
        // After a long stall (a suspended machine) start afresh rather than catching up.
        if (deadline < clock.monotonicMs()) deadline = clock.monotonicMs() + agent.nextDelayMs();
        sleepUntil(deadline, stop, clock);
    }
    return 0;
}

}  // namespace aimwise
