#pragma once
// The session key of gate calls. The rules text names the prompt-cache lineage: a change of rules
// or of provider-routing generation starts a new session, and nothing else does.
#include <cstdint>
#include <string>

namespace aimwise::CoachGateSessionID {

// SHA-256 (hex) of CoachGateRules::prefix(lowEffort) followed by the routing generation's salt.
// `routingGeneration` is the provider selector's counter, read under its lock by the caller.
std::string value(bool lowEffort, int64_t routingGeneration);
// The same over CoachGateRules::text.
std::string value(int64_t routingGeneration);

// U+001E and the generation in decimal: the separator keeps the salt from running into the rules.
std::string routingSalt(int64_t routingGeneration);

}  // namespace aimwise::CoachGateSessionID
