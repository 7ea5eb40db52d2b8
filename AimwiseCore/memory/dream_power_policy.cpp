#include "AimwiseCore/memory/dream_power_policy.h"

#include <algorithm>
#include <cctype>

namespace aimwise::DreamPowerPolicy {

bool isRequiredByEnvironment(const Environment& environment) {
    auto value = lookup(environment, requireACVariable);
    if (!value) return false;
    std::transform(value->begin(), value->end(), value->begin(),
                   [](unsigned char c) { return std::tolower(c); });
    return *value != "0" && *value != "false" && *value != "off" && *value != "no" && !value->empty();
}

std::optional<std::string> decision(const DreamGuardrails::Snapshot& snapshot,
                                    const Environment& environment) {
    if (!isRequiredByEnvironment(environment) || !DreamGuardrails::isDraining(snapshot)) return std::nullopt;
    return "on battery -- consolidation deferred until AC power returns (AIMCAP_DREAM_REQUIRE_AC)";
}

DreamGuardrails::Decision checkpoint(const DreamGuardrails::Snapshot& snapshot,
                                     const Environment& environment) {
    DreamGuardrails::Decision result = DreamGuardrails::evaluate(snapshot);
    const auto deferral = decision(snapshot, environment);
    if (deferral && DreamGuardrails::severity(result) < DreamGuardrails::severity(DreamGuardrails::Pause{}))
        result = DreamGuardrails::Pause{*deferral};
    return result;
}

}  // namespace aimwise::DreamPowerPolicy
