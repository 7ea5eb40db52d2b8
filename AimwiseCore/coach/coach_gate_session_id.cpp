#include "AimwiseCore/coach/coach_gate_session_id.h"

#include "AimwiseCore/coach/coach_gate_rules.h"
#include "AimwiseCore/models/sha256.h"

namespace aimwise::CoachGateSessionID {

std::string routingSalt(int64_t routingGeneration) { return "\x1e" + std::to_string(routingGeneration); }

std::string value(bool lowEffort, int64_t routingGeneration) {
    return Sha256::hex(CoachGateRules::prefix(lowEffort) + routingSalt(routingGeneration));
}

std::string value(int64_t routingGeneration) {
    return Sha256::hex(CoachGateRules::text() + routingSalt(routingGeneration));
}

}  // namespace aimwise::CoachGateSessionID
