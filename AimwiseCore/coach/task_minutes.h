#pragma once
// The minutes a person gave for a task, as the event log or a tool call carries them.
#include <cstdint>
#include <optional>

#include "AimwiseCore/events/json_value.h"

namespace aimwise {

// A number, or text that trims to a number ("30", " 45 "), as whole minutes toward zero. Anything
// else, a missing value included, gives nothing.
std::optional<int64_t> cleanTaskMinutes(const JSONValue* value);

}  // namespace aimwise
