#pragma once
// What a person who has just installed the program needs to hear when something is not there
// yet: what is missing, in plain words, and the one command that fixes it. The system's own words
// for the same states stay where the classifier and its logs use them.
#include <optional>
#include <string>

#include "agents/services/user_services.h"

namespace aimwise::FirstRun {

// Nothing when the data root is there; otherwise what is wrong and what fixes it, as a clause.
std::optional<std::string> dataRootProblem();
// "Data root: PATH", or the problem as a sentence.
std::string dataRootLine();
// Why no signal has been recorded yet, from the capture service's state.
std::string noSignalsLine(const UserServices::UnitState& capture);

}  // namespace aimwise::FirstRun
