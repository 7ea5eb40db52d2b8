#include "agents/capture/tick_record.h"

#include "platform/app_identity.h"

namespace aimwise {

TickRecord buildTickRecord(int64_t tsMs, const DesktopSnapshot& snapshot, const std::optional<IdleSplit::Reading>& idle,
                           std::optional<bool> lockedHint, const PowerSource::TickColumns& power,
                           const std::optional<std::string>& declaredTask) {
    TickRecord record;
    record.tsMs = tsMs;
    if (idle) record.idleAnySec = idle->anySec;
    // Without the pointer's position keyboard and pointer input cannot be told apart.
    if (idle && snapshot.pointerKnown) {
        record.idleKeySec = idle->keySec;
        record.idleMouseSec = idle->mouseSec;
    }
    if (snapshot.pointerKnown) {
        record.mouseX = snapshot.pointerX;
        record.mouseY = snapshot.pointerY;
    }
    record.screensaverActive = snapshot.screensaverActive;
    record.screenLocked = lockedHint.value_or(snapshot.screensaverActive);
    record.power = power;
    if (declaredTask && !declaredTask->empty()) record.declaredTask = declaredTask;

    if (*record.screenLocked) {
        record.frontmostApp = lockScreenApp;
        return record;
    }
    record.windows = snapshot.windows;
    if (const auto& front = snapshot.front; front && !front->ownerName.empty()) {
        record.frontmostApp = front->ownerName;
        record.frontmostBundleId = front->bundleId;
        if (AppIdentity::browserName(front->bundleId)) {
            record.browserApp = front->ownerName;
            record.browserTitle = AppIdentity::pageTitle(front->ownerName, front->title);
        }
    }
    return record;
}

}  // namespace aimwise
