#include "agents/capture/recorder.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <chrono>
#include <limits>
#include <set>
#include <system_error>

#include "AimwiseCore/classifier/window_content.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "CaptureShared/staleness/recording_pause.h"
#include "CaptureShared/staleness/small_json_file.h"
#include "CaptureShared/video/ffmpeg_child.h"
#include "CaptureShared/video/sealed_recording.h"
#include "agents/capture/wayland_notice.h"
#include "agents/capture/recording_file.h"
#include "agents/capture/recording_gate.h"
#include "agents/capture/recording_retention.h"
#include "agents/capture/recording_setting.h"
#include "platform/desktop_session.h"
#include "platform/key_store.h"

namespace aimwise {

namespace fs = std::filesystem;

namespace {

constexpr int64_t longAgo = std::numeric_limits<int64_t>::min() / 2;
constexpr int64_t settingCheckMs = 2'000;
constexpr int64_t conditionsCheckMs = 1'000;
constexpr int64_t diskCheckMs = 10'000;
constexpr int64_t displayRetryMs = 5'000;
constexpr int64_t idleLookMs = 1'000;
// Faults are told again, and the retry delay starts small again, after this long without one.
constexpr int64_t healthyAfterMs = 10 * 60'000;
constexpr int64_t drainLimitMs = 2'000;
// ffmpeg's first frame comes a second or so after its start, later on a busy machine.
constexpr int64_t firstFrameAllowanceMs = 12'000;

std::string duration(int64_t ms) {
    return ms < 60'000 ? std::to_string((ms + 999) / 1000) + " s" : std::to_string((ms + 59'999) / 60'000) + " min";
}

std::string rate(double fps) { return fmt::format("{:g} frame{} a second", fps, fps == 1 ? "" : "s"); }

std::optional<std::pair<int64_t, int64_t>> stamp(const fs::path& file) {
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) return std::nullopt;
    return std::pair(int64_t(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec, int64_t(info.st_size));
}

}  // namespace

class Recorder::Worker {
public:
    Worker(Options options, const Clock& clock, Log log, const std::atomic<int>& locked)
        : options_(std::move(options)),
          clock_(clock),
          log_(std::move(log)),
          locked_(locked),
          wayland_(waylandNotice(options_.environment).has_value()),
          extension_(Denylist::extension(options_.environment)) {
        if (options_.settingFile.empty()) options_.settingFile = RecordingSetting::path();
        if (options_.stateFile.empty()) options_.stateFile = stateFilePath();
        const auto display = lookup(options_.environment, "DISPLAY");
        displayName_ = !options_.display.empty() ? options_.display : display.value_or(":0");
    }

    void run(const std::atomic<bool>& stop, std::atomic<bool>& settingChanged, std::mutex& mutex,
             std::condition_variable& wake) {
        while (!stop.load()) {
            if (child_) {
                const int64_t nextLook = clock_.monotonicMs() + options_.lookEveryMs;
                for (int64_t now = clock_.monotonicMs(); now < nextLook && !ended_ && !stop.load();
                     now = clock_.monotonicMs())
                    pump(nextLook - now);
            } else {
                // Held by the setting, nothing but the setting can change that: woken when it changes,
                // or for the hourly sweep of old recordings. Other holds (a lock, a pause) are looked at.
                const int64_t waitMs = heldBySetting_ ? options_.retentionEveryMs : idleLookMs;
                std::unique_lock lock(mutex);
                wake.wait_for(lock, std::chrono::milliseconds(waitMs),
                              [&] { return stop.load() || settingChanged.load(); });
            }
            if (settingChanged.exchange(false)) settingCheckedMs_ = longAgo;
            if (stop.load()) break;
            const int64_t mono = clock_.monotonicMs(), wall = clock_.wallMs();
            act(look(mono, wall), mono, wall);
        }
        endStretch(clock_.wallMs());
        enter("stopped", "", true);
    }

private:
    RecordingGate::Decision look(int64_t mono, int64_t wall) {
        refreshSetting(mono);
        RecordingGate::Inputs in{.enabled = setting_.enabled, .wayland = wayland_};
        if (!in.enabled || in.wayland) return RecordingGate::decide(in);
        refreshConditions(mono, wall);
        in.dataRootUnavailable = rootUnavailable_;
        in.rootPrepared = rootPrepared_;
        in.pauseInForce = paused_;
        in.freeBytes = freeBytes_;
        in.heldForDisk = heldForDisk_;
        in.displayReachable = true;
        in.locked = locked_.load() == 1;
        // The screen is asked only when nothing else already holds the recording.
        if (std::holds_alternative<RecordingGate::Held>(RecordingGate::decide(in))) return RecordingGate::decide(in);
        const auto snapshot = sampleDesktop(mono);
        in.displayReachable = snapshot.has_value();
        if (snapshot) {
            in.locked = in.locked || snapshot->screensaverActive;
            in.deniedApp = RecordingGate::deniedAppOnScreen(*snapshot, area_, extension_);
        }
        return RecordingGate::decide(in);
    }

    void refreshSetting(int64_t mono) {
        if (mono - settingCheckedMs_ < settingCheckMs) return;
        settingCheckedMs_ = mono;
        const auto now = stamp(options_.settingFile);
        if (now == settingStamp_) return;
        settingStamp_ = now;
        setting_ = RecordingSetting::read(options_.settingFile);
    }

    void refreshConditions(int64_t mono, int64_t wall) {
        if (mono - conditionsCheckedMs_ < conditionsCheckMs) return;
        conditionsCheckedMs_ = mono;
        std::error_code error;
        rootUnavailable_.reset();
        if (!DataPaths::isDataRootAvailable())
            rootUnavailable_ = DataPaths::dataRootUnavailableReason().value_or("the data root is not available");
        rootPrepared_ = !rootUnavailable_ && fs::is_directory(DataPaths::videoDir(), error);
        paused_ = std::holds_alternative<SignalsStaleness::PauseActive>(currentRecordingPause(wall));
        if (mono - diskCheckedMs_ >= diskCheckMs || !rootPrepared_) {
            diskCheckedMs_ = mono;
            freeBytes_ = rootPrepared_ ? RecordingRetention::freeBytes(DataPaths::videoDir()) : std::nullopt;
        }
    }

    std::optional<DesktopSnapshot> sampleDesktop(int64_t mono) {
        if (!desktop_) {
            if (mono < nextDisplayAttemptMs_) return std::nullopt;
            desktop_ = DesktopSession::connect(displayName_);
            if (!desktop_) {
                nextDisplayAttemptMs_ = mono + displayRetryMs;
                return std::nullopt;
            }
        }
        auto snapshot = desktop_->sample(mono);
        if (!snapshot) {
            desktop_.reset();
            nextDisplayAttemptMs_ = mono + displayRetryMs;
        }
        return snapshot;
    }

    void act(const RecordingGate::Decision& decision, int64_t mono, int64_t lookMs) {
        if (const auto* held = std::get_if<RecordingGate::Held>(&decision)) {
            endStretch(lookMs);
            heldForDisk_ = held->reason == RecordingGate::Reason::lowDisk;
            quietFault_ = false;
            using enum RecordingGate::Reason;
            heldBySetting_ = held->reason == off || held->reason == wayland;
            if (held->reason == off || held->reason == wayland || held->reason == noDataRoot) desktop_.reset();
            // Starting with recording off is the usual case and not worth a line.
            enter("held:" + std::to_string(int(held->reason)), "not recording: " + held->words,
                  stateKey_.empty() && held->reason == off);
            sweepIfDue(mono, lookMs);
            return;
        }
        heldForDisk_ = false;
        heldBySetting_ = false;
        if (!child_) {
            sweepIfDue(mono, lookMs);
            if (mono >= nextAttemptMs_) start(mono);
            return;
        }
        if (broken_) return fault("stream", "ffmpeg's output was not the expected video stream", lookMs);
        if (ended_) {
            const std::string detail = endStretch(lookMs);
            return fault("ended", "ffmpeg stopped (" + detail + ")", lookMs);
        }
        if (mono - lastBytesMs_ > (sawBytes_ ? stallMs() : firstFrameAllowanceMs))
            return fault("stalled", "ffmpeg sent no frame for " + duration(mono - lastBytesMs_), lookMs);
        try {
            if (file_->clearThrough(mono) > 0 && !stretchHasFrames_) {
                stretchHasFrames_ = true;
                healthySinceMs_ = std::min(healthySinceMs_, mono);
            }
        } catch (const std::exception& error) {
            return fault("write", "the recording could not be written: " + describe(error), lookMs);
        }
        if (stretchHasFrames_ && stateKey_ != "recording")
            enter("recording", "recording the screen of " + displayName_ + " (" + std::to_string(int(area_.width)) + "x" +
                                   std::to_string(int(area_.height)) + ", " + rate(setting_.fps) + ") into " +
                                   file_->path().parent_path().string(),
                  quietFault_);
        if (mono - healthySinceMs_ >= healthyAfterMs) {
            toldFaults_.clear();
            retryDelayMs_ = options_.firstRetryMs;
        }
        if (mono - startedMs_ >= options_.segmentMs) {
            endStretch(std::nullopt);
            start(mono);
        }
    }

    void start(int64_t mono) {
        const auto ffmpeg = FfmpegChild::locate(options_.environment);
        if (!ffmpeg)
            return fault("missing",
                         "ffmpeg was not found (install it with `sudo apt install ffmpeg`, or name it in AIMCAP_FFMPEG)",
                         clock_.wallMs());
        const auto size = DesktopSession::screenSize(displayName_);
        if (!size) return fault("screen", "the size of the screen of " + displayName_ + " could not be read", clock_.wallMs());
        area_ = ScreenRect{0, 0, double(size->first), double(size->second)};
        try {
            if (!keys_) keys_ = defaultVideoArchiveKeyStore();
            const auto key = keys_->loadOrRotate();
            const fs::path directory = DataPaths::videoDir(options_.displayNumber);
            if (fs::create_directory(directory)) fs::permissions(directory, fs::perms::owner_all);
            std::string name;
            for (int attempt = 1; name.empty() || fs::exists(directory / name); ++attempt)
                name = RecordingRetention::fileName(clock_.wallMs(), attempt);
            file_ = std::make_unique<RecordingFile>(directory, name, key.key, key.generation,
                                                    FrameTimestamps::CaptureArea{0, 0, size->first, size->second});
        } catch (const std::exception& error) {
            return fault("archive", "the recording could not be stored: " + describe(error), clock_.wallMs());
        }
        try {
            child_ = std::make_unique<FfmpegChild>(*ffmpeg, arguments(*size), true);
        } catch (const std::system_error& error) {
            endStretch(std::nullopt);
            return fault("launch", std::string("ffmpeg could not be started: ") + error.what(), clock_.wallMs());
        }
        child_->closeInput();
        ::fcntl(child_->output(), F_SETFL, ::fcntl(child_->output(), F_GETFL) | O_NONBLOCK);
        startedMs_ = lastBytesMs_ = mono;
        ended_ = broken_ = sawBytes_ = false;
    }

    std::vector<std::string> arguments(std::pair<int, int> size) const {
        std::vector<std::string> arguments{
            "-hide_banner", "-nostdin", "-nostats", "-loglevel", "error", "-f", "x11grab", "-framerate",
            fmt::format("{:g}", setting_.fps), "-video_size",
            std::to_string(size.first) + "x" + std::to_string(size.second), "-i", displayName_,
            // The grabber stamps frames with the wall clock; kept through to the stream unrounded, they
            // say when each frame was grabbed. One encoder thread is plenty at this rate.
            "-copyts", "-fps_mode", "passthrough", "-enc_time_base", "-1", "-threads", "1"};
        auto encoder = SealedRecording::encoderArguments();
        encoder.insert(encoder.end() - 1, {"-mpegts_copyts", "1"});
        arguments.insert(arguments.end(), encoder.begin(), encoder.end());
        return arguments;
    }

    int64_t stallMs() const { return std::max<int64_t>(5'000, 3'000 + int64_t(2'000 / setting_.fps)); }

    // Reads what ffmpeg wrote, waiting up to `timeoutMs` for it.
    void pump(int64_t timeoutMs) {
        pollfd ready{child_->output(), POLLIN, 0};
        if (::poll(&ready, 1, int(std::max<int64_t>(timeoutMs, 0))) <= 0) return;
        char buffer[1 << 16];
        while (true) {
            const ssize_t count = ::read(child_->output(), buffer, sizeof buffer);
            if (count > 0) {
                lastBytesMs_ = clock_.monotonicMs();
                sawBytes_ = true;
                if (!file_->feed(std::string_view(buffer, size_t(count)), clock_.wallMs(), lastBytesMs_)) broken_ = true;
            } else if (count == 0) {
                ended_ = true;
                return;
            } else if (errno != EINTR) {
                return;
            }
        }
    }

    // Stops ffmpeg and closes the file; frames no clean look covered are dropped. A pause row marks
    // the gap when the stretch wrote frames and `pauseAtMs` is given. Returns ffmpeg's last words.
    std::string endStretch(std::optional<int64_t> pauseAtMs) {
        std::string detail;
        if (child_) {
            child_->kill();
            for (const int64_t until = clock_.monotonicMs() + drainLimitMs; !ended_ && clock_.monotonicMs() < until;)
                pump(until - clock_.monotonicMs());
            child_->wait();
            detail = child_->failureDetail();
            child_.reset();
        }
        if (file_) {
            const fs::path path = file_->path();
            try {
                file_->close();
            } catch (const std::exception& error) {
                log_("the last part of " + path.string() + " could not be sealed: " + describe(error));
            }
            std::error_code ignored;
            if (file_->framesWritten() == 0) fs::remove(path, ignored);
            file_.reset();
        }
        if (pauseAtMs && stretchHasFrames_) {
            try {
                FrameTimestamps::Writer(DataPaths::frameTimestampsPath(options_.displayNumber)).appendPause(*pauseAtMs);
            } catch (const std::exception&) {
                // The gap still shows as missing rows.
            }
            stretchHasFrames_ = false;
        }
        return detail;
    }

    void fault(const std::string& kind, const std::string& words, int64_t atMs) {
        endStretch(atMs);
        const int64_t mono = clock_.monotonicMs();
        nextAttemptMs_ = mono + retryDelayMs_;
        const std::string next = "trying again in " + duration(retryDelayMs_);
        retryDelayMs_ = std::min(retryDelayMs_ * 2, options_.longestRetryMs);
        healthySinceMs_ = std::numeric_limits<int64_t>::max();
        quietFault_ = !toldFaults_.insert(kind).second;
        enter("fault:" + kind, "recording stopped: " + words + "; " + next + ". The capture agent goes on sampling.",
              quietFault_);
    }

    void sweepIfDue(int64_t mono, int64_t wall) {
        if (child_ || mono - lastSweepMs_ < options_.retentionEveryMs) return;
        lastSweepMs_ = mono;
        if (!DataPaths::isDataRootAvailable()) return;
        const auto swept = RecordingRetention::sweep(DataPaths::videoDir(), wall, setting_.keepDays);
        if (swept.filesDeleted > 0)
            log_("deleted " + std::to_string(swept.filesDeleted) + " recording(s) older than " +
                 std::to_string(setting_.keepDays) + " days, " + std::to_string(swept.bytesFreed / 1'000'000) + " MB");
        for (const auto& failure : swept.failures) log_("could not delete an old recording: " + failure);
    }

    // Tells a new state once, in the log and in the state file.
    void enter(const std::string& key, const std::string& words, bool quiet) {
        if (key == stateKey_) return;
        stateKey_ = key;
        if (!quiet && !words.empty()) log_(words);
        const std::string state = key.substr(0, key.find(':'));
        nlohmann::json record{{"pid", int64_t(::getpid())}, {"state", state}, {"detail", words}, {"since_ms", clock_.wallMs()}};
        try {
            SmallJSONFile::replace(options_.stateFile, record.dump(2) + "\n");
        } catch (const std::exception&) {
            // `aimwise record status` then says less; recording is unaffected.
        }
    }

    static std::string describe(const std::exception& error) {
        if (const auto* own = dynamic_cast<const Error*>(&error)) return own->description();
        return error.what();
    }

    Options options_;
    const Clock& clock_;
    Log log_;
    const std::atomic<int>& locked_;
    const bool wayland_;
    const std::vector<std::string> extension_;
    std::string displayName_;

    RecordingSetting::Setting setting_;
    std::optional<std::pair<int64_t, int64_t>> settingStamp_;
    int64_t settingCheckedMs_ = longAgo;
    std::optional<std::string> rootUnavailable_;
    bool rootPrepared_ = false;
    bool paused_ = false;
    std::optional<uint64_t> freeBytes_;
    int64_t conditionsCheckedMs_ = longAgo, diskCheckedMs_ = longAgo;
    bool heldForDisk_ = false;

    std::unique_ptr<DesktopSession> desktop_;
    int64_t nextDisplayAttemptMs_ = 0;
    // The whole screen once known; until then any window anywhere counts as on it.
    ScreenRect area_{-1e9, -1e9, 2e9, 2e9};
    std::unique_ptr<VideoArchiveKeyStore> keys_;

    std::unique_ptr<FfmpegChild> child_;
    std::unique_ptr<RecordingFile> file_;
    int64_t startedMs_ = 0, lastBytesMs_ = 0;
    bool ended_ = false, broken_ = false, sawBytes_ = false;
    bool stretchHasFrames_ = false;

    std::string stateKey_;
    std::set<std::string> toldFaults_;
    bool quietFault_ = false;
    bool heldBySetting_ = false;
    int64_t retryDelayMs_ = options_.firstRetryMs;
    int64_t nextAttemptMs_ = 0;
    int64_t healthySinceMs_ = std::numeric_limits<int64_t>::max();
    int64_t lastSweepMs_ = longAgo;
};

fs::path Recorder::stateFilePath() { return DataPaths::supportDir() / "recorder-state.json"; }

Recorder::Recorder(Options options, const Clock& clock, Log log)
    : settingFile_(options.settingFile.empty() ? RecordingSetting::path() : options.settingFile),
      settingStamp_(stamp(settingFile_)),
      worker_(std::make_unique<Worker>(std::move(options), clock, std::move(log), locked_)),
      thread_([this] { worker_->run(stop_, settingChanged_, mutex_, wake_); }) {}

Recorder::~Recorder() {
    {
        std::lock_guard lock(mutex_);
        stop_.store(true);
    }
    wake_.notify_all();
    thread_.join();
}

void Recorder::sampled(std::optional<bool> locked, int64_t monotonicMs) {
    locked_.store(locked ? int(*locked) : -1);
    if (monotonicMs - settingLookedAtMs_ < settingCheckMs) return;
    settingLookedAtMs_ = monotonicMs;
    if (auto now = stamp(settingFile_); now != settingStamp_) {
        settingStamp_ = now;
        {
            std::lock_guard lock(mutex_);
            settingChanged_.store(true);
        }
        wake_.notify_all();
    }
}

}  // namespace aimwise
