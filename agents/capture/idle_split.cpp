#include "agents/capture/idle_split.h"

#include <algorithm>

namespace aimwise {

namespace {
// Our clock and the server's drift apart by a few milliseconds between samples; less than this
// is the same input seen twice.
constexpr int64_t sameInputToleranceMs = 250;
}  // namespace

IdleSplit::Reading IdleSplit::update(int64_t nowMs, double anySec, Point pointer) {
    const int64_t activityMs = nowMs - static_cast<int64_t>(anySec * 1000.0);
    if (!lastActivityMs_) {
        // Nothing to tell the two apart yet.
        lastKeyMs_ = lastMouseMs_ = activityMs;
    } else if (activityMs > *lastActivityMs_ + sameInputToleranceMs) {
        const bool moved = lastPointer_ && *lastPointer_ != pointer;
        (moved ? lastMouseMs_ : lastKeyMs_) = activityMs;
    }
    if (!lastActivityMs_ || activityMs > *lastActivityMs_ + sameInputToleranceMs) lastActivityMs_ = activityMs;
    lastPointer_ = pointer;

    const auto since = [&](int64_t ms) { return std::max(anySec, static_cast<double>(nowMs - ms) / 1000.0); };
    return Reading{since(lastKeyMs_), since(lastMouseMs_), anySec};
}

}  // namespace aimwise
