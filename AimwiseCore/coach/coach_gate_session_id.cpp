#include "AimwiseCore/coach/coach_gate_session_id.h"

#include "AimwiseCore/coach/coach_gate_rules.h"
#include "AimwiseCore/coach/text_digest.h"

namespace aimwise::CoachGateSessionID {

std::string routingSalt(int64_t routingGeneration) { return "\x1e" + std::to_string(routingGeneration); }

std::string value(bool lowEffort, int64_t routingGeneration) {
    return TextDigest::sha256Hex(CoachGateRules::prefix(lowEffort) + routingSalt(routingGeneration));
}

std::string value(int64_t routingGeneration) {
    return TextDigest::sha256Hex(CoachGateRules::text() + routingSalt(routingGeneration));
}

}  // namespace aimwise::CoachGateSessionID
