#pragma once
#include <sys/types.h>

namespace aimwise::AgentUmask {

// Sets the file-creation mask to 0o077 so everything an agent creates is private to the user.
// Returns the previous mask.
mode_t apply();

}  // namespace aimwise::AgentUmask
