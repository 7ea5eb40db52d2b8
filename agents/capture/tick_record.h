#pragma once
// One sampling instant as the capture agent writes it: a `ticks` row and its `windows` rows.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agents/capture/idle_split.h"
#include "platform/desktop_session.h"
#include "platform/power_source.h"

namespace aimwise {

struct TickRecord {
    int64_t tsMs = 0;
    std::optional<std::string> frontmostApp;
    std::optional<std::string> frontmostBundleId;
    std::optional<double> idleKeySec, idleMouseSec, idleAnySec;
    std::optional<double> mouseX, mouseY;
    std::optional<std::string> browserApp;
    std::optional<std::string> browserTitle;
    std::optional<bool> screenLocked;
    std::optional<bool> screensaverActive;
    PowerSource::TickColumns power;
    std::optional<std::string> declaredTask;
    std::vector<DesktopWindow> windows;
};

// The name the classifier reads as the lock screen.
inline constexpr const char* lockScreenApp = "loginwindow";

// `lockedHint` is logind's answer when it gave one; without it the screen saver stands in for the
// lock. A locked screen shows nothing of the windows behind it. An empty declared task (one that
// was cleared) is written as NULL.
TickRecord buildTickRecord(int64_t tsMs, const DesktopSnapshot& snapshot,
                           const std::optional<IdleSplit::Reading>& idle, std::optional<bool> lockedHint,
                           const PowerSource::TickColumns& power,
                           const std::optional<std::string>& declaredTask);

}  // namespace aimwise
