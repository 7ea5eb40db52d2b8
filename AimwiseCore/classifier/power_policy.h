#pragma once
// Staying silent on battery: either not at all (AC required) or less often.
#include <optional>
#include <string>

#include "AimwiseCore/classifier/cadence.h"
#include "CaptureShared/common/environment.h"

namespace aimwise::ClassifierPowerPolicy {

enum class PowerSource { ac, battery };

// What the platform's power reading yields; either field may be unknown. Kept apart from the
// nightly job's snapshot so the tick depends on nothing it does not read.
struct PowerSnapshot {
    std::optional<PowerSource> liveSource;
    std::optional<bool> isPluggedIn;
};

inline constexpr const char* pauseReason = "on battery -- classifier paused (AIMCAP_CLASSIFY_REQUIRE_AC)";

bool isRequiredByEnvironment(const Environment& environment);
std::optional<int> batteryFloorSec(const Environment& environment);
std::optional<int> batteryCeilingSec(const Environment& environment);
// Without any of the three variables a tick reads no power state at all.
bool needsLiveReading(const Environment& environment);
// Whether the snapshot says battery; unknown when neither source nor AC flag is known.
std::optional<bool> isOnBattery(const PowerSnapshot& snapshot);
bool mustSkip(const PowerSnapshot& snapshot, const Environment& environment);
// Battery limits only ever lengthen intervals.
ClassifierCadence::Config effectiveConfig(ClassifierCadence::Config config, bool onBattery,
                                          const Environment& environment);
std::optional<std::string> healthNote(const ClassifierCadence::State& state);

}  // namespace aimwise::ClassifierPowerPolicy
