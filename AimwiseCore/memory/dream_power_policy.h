#pragma once
// The person's opt-in rule that consolidation runs on AC power only (AIMCAP_DREAM_REQUIRE_AC).
#include <optional>
#include <string>

#include "AimwiseCore/memory/dream_guardrails.h"
#include "CaptureShared/common/environment.h"

namespace aimwise::DreamPowerPolicy {

inline constexpr const char* requireACVariable = "AIMCAP_DREAM_REQUIRE_AC";

// Set to anything but "0", "false", "off", "no" or nothing (in any case): even "maybe" turns it on.
bool isRequiredByEnvironment(const Environment& environment);
// The deferral when required and draining; nothing otherwise.
std::optional<std::string> decision(const DreamGuardrails::Snapshot& snapshot,
                                    const Environment& environment);
// The guardrails, with a pause in place of proceed or lowPower when the rule defers; a pause or an
// abort of their own stands.
DreamGuardrails::Decision checkpoint(const DreamGuardrails::Snapshot& snapshot,
                                     const Environment& environment);

}  // namespace aimwise::DreamPowerPolicy
