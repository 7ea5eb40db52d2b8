#include "AimwiseCore/models/offline_mode.h"

namespace aimwise::OfflineMode {

bool isEnabled(const Environment& environment) { return lookup(environment, envVar) == "1"; }

bool isOverriddenByEnvironment(const std::optional<std::string>& environmentValue, bool copiedFromConfigAtLaunch) {
    return environmentValue && !environmentValue->empty() && !copiedFromConfigAtLaunch;
}

}  // namespace aimwise::OfflineMode
