#pragma once
// The fixed words of the nightly pass's three model calls. Each prompt keeps its stable part first,
// so that a provider's prompt cache stays warm across the periods of a pass.
#include <string>

namespace aimwise::ConsolidationPrompts {

// The opening, the shared block of what the memory is for, and the closing.
const std::string& digestInstructions();
// The opening, the shared block, the candidates block and the request for the JSON alone.
const std::string& regenerateInstructions();
const std::string& foldInstructions();
// Put, after a newline, behind the instructions when the person has corrected the coach.
const std::string& correctionsPreface();

}  // namespace aimwise::ConsolidationPrompts
