#pragma once
// The capture agent's loop: sample the desktop every interval and write it to signals.sqlite while
// the data root is there, stand down while it is not, and outlive the X server.
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "CaptureShared/common/clock.h"
#include "CaptureShared/common/environment.h"

#include "agents/capture/session_lock.h"
#include "platform/power_source.h"

namespace aimwise {

struct CaptureOptions {
    std::string display;  // empty: $DISPLAY
    // The session's variables that choose the desktop reader (WAYLAND_DISPLAY, XDG_CURRENT_DESKTOP).
    Environment environment;
    int64_t intervalMs = 1500;
    int64_t rootRetryMs = 60'000;
    int64_t displayRetryMs = 10'000;
    // Power readings change slowly and some batteries are slow to read.
    int64_t powerRefreshMs = 10'000;
    // Sample once, write it, and stop: for scripts and the first check after setup.
    bool once = false;
    std::filesystem::path powerSupplyRoot = PowerSource::sysfsRoot;
    SessionLock::Options sessionLock;
};

// Returns the exit status: 0 after `stop` was set (or after one sample with `once`), 1 when
// `once` could not sample.
int runCaptureAgent(const CaptureOptions& options, const std::atomic<bool>& stop, const Clock& clock);

}  // namespace aimwise
