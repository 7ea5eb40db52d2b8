#pragma once
// The capture agent's screen recorder, on a thread of its own so that nothing it waits for holds up
// the agent's sampling. While recording is on (`aimwise record on`) it runs ffmpeg's X11 grabber at
// a low frame rate and seals what ffmpeg encodes into video/display-1 of the data root, a new file
// every ten minutes, each frame with its row in frame_timestamps.csv.
//
// Four times a second it looks at the screen: a locked screen, a recording pause, or a window of a
// denylisted app (the window-content denylist) stops ffmpeg, and nothing grabbed after the last clean
// look is written. A window shown and gone between two looks, within a quarter second, is the one
// case the looks cannot see. Faults (ffmpeg missing, dying or silent, the key or the disk refusing)
// are logged once and retried with a growing delay. Sealed files older than the kept days are
// deleted, and recording stops while the disk has less than 2 GB free.
//
// X11 only: in a Wayland session it records nothing and says so.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "CaptureShared/common/clock.h"
#include "CaptureShared/common/environment.h"

namespace aimwise {

class Recorder {
public:
    struct Options {
        std::string display;  // the X display; empty: $DISPLAY
        int displayNumber = 1;  // written under video/display-<n>
        int64_t segmentMs = 10 * 60'000;
        int64_t lookEveryMs = 250;
        int64_t firstRetryMs = 2'000;
        int64_t longestRetryMs = 5 * 60'000;
        int64_t retentionEveryMs = 60 * 60'000;
        Environment environment;  // AIMCAP_FFMPEG, AIMCAP_DENYLIST, the session type
        std::filesystem::path settingFile;  // RecordingSetting::path() when empty
        std::filesystem::path stateFile;    // stateFilePath() when empty
    };
    using Log = std::function<void(const std::string&)>;

    // recorder-state.json in the support directory: what the recorder is doing, for `aimwise record
    // status`. Replaced on every change, never on every frame.
    static std::filesystem::path stateFilePath();

    // Starts the recorder's thread.
    Recorder(Options options, const Clock& clock, Log log);
    // Seals what was cleared and stops ffmpeg.
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // Called with each of the agent's samples: the session lock as read (nothing when logind cannot
    // say), and a look at the recording setting's file. While recording is off the recorder's thread
    // sleeps, for an hour at a time, until this sees the setting change.
    void sampled(std::optional<bool> locked, int64_t monotonicMs);

private:
    class Worker;
    std::atomic<int> locked_{-1};
    std::atomic<bool> settingChanged_{false};
    std::filesystem::path settingFile_;
    std::optional<std::pair<int64_t, int64_t>> settingStamp_;
    int64_t settingLookedAtMs_ = 0;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::condition_variable wake_;
    std::unique_ptr<Worker> worker_;
    std::thread thread_;
};

}  // namespace aimwise
