#pragma once
// Starting a child the way every runner here does: in a process group of its own, so that ending it
// at a deadline also ends whatever it started, with every signal at its default and none blocked,
// whatever the parent had set.
#include <spawn.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace aimwise::Spawn {

// `executable` without a slash is looked up on the PATH. Returns 0, or the error number.
int inOwnGroup(pid_t& pid, const std::string& executable, const std::vector<std::string>& arguments,
               const posix_spawn_file_actions_t& actions);

}  // namespace aimwise::Spawn
