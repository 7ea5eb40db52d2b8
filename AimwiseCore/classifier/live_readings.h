#pragma once
// The platform's raw readings turned into what the call hold and the power policy decide from.
#include <optional>
#include <vector>

#include "AimwiseCore/classifier/call_hold.h"
#include "AimwiseCore/classifier/power_policy.h"
#include "platform/call_activity.h"
#include "platform/power_source.h"

namespace aimwise {

namespace CallActivityProbe {
// One row per process; a paused stream does not count as running.
CallActivityReading reading(const std::vector<CallActivity::AudioStream>& streams);
// Nothing when the sound server could not be asked.
std::optional<CallActivityReading> read();
}  // namespace CallActivityProbe

namespace LivePowerSnapshot {
ClassifierPowerPolicy::PowerSnapshot fromSource(const PowerSource::Snapshot& snapshot);
ClassifierPowerPolicy::PowerSnapshot read();
}  // namespace LivePowerSnapshot

}  // namespace aimwise
