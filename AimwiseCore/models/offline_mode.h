#pragma once
// "Only the model on this computer": when on, every role runs locally and the online settings are
// ignored.
#include <optional>
#include <string>

#include "CaptureShared/common/environment.h"

namespace aimwise::OfflineMode {

inline constexpr const char* envVar = "AIMCAP_OFFLINE_MODE";

// True exactly when the value is "1"; "true" and the like do not count.
bool isEnabled(const Environment& environment);

// True when the environment holds a value of its own, not one copied in from config.json at launch.
bool isOverriddenByEnvironment(const std::optional<std::string>& environmentValue, bool copiedFromConfigAtLaunch);

}  // namespace aimwise::OfflineMode
