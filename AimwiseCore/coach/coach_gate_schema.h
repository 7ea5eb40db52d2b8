#pragma once
// The gate's two-key reply: the schema a constrained call sends, and the reading of any reply.
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/coach/coach_gate_rules.h"
#include "AimwiseCore/coach/gate_outcome.h"

namespace aimwise::CoachGateSchema {

inline constexpr const char* summaryKey = "summary_for_coach";
inline constexpr const char* decisionKey = "should_check_in";

// Assembled by concatenation, so its key order is fixed on the wire.
const std::string& schemaJSON();
// Prose around the object and keys beyond the two are ignored, so an unconstrained reply can pass.
GateOutcome parse(std::string_view text);

// The two keys as they appear in the reply, in order of position. The summary is meant to come
// first, so that writing it informs the decision; these observe quality and change no outcome.
std::vector<std::string> observedKeyOrder(std::string_view text);
bool keyOrderIsCorrect(std::string_view text);
bool summaryAddressesSecondPerson(std::string_view summary);

// A JSON string literal: short escapes for \\ " \n \r \t, \u00XX for other controls, the rest as is.
std::string jsonString(std::string_view text);

}  // namespace aimwise::CoachGateSchema
