#pragma once
#include <string>

#include "AimwiseCore/classifier/classifier_state.h"

namespace aimwise::cli {

// Nine labelled lines: what the classifier sees, as `judge` and `prompt` show it.
std::string renderState(const ClassifierState& state);
void printState(const ClassifierState& state);

}  // namespace aimwise::cli
