#include "platform/linux/spawn.h"

#include <csignal>

extern char** environ;

namespace aimwise::Spawn {

int inOwnGroup(pid_t& pid, const std::string& executable, const std::vector<std::string>& arguments,
               const posix_spawn_file_actions_t& actions) {
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t noSignals, allSignals;
    sigemptyset(&noSignals);
    sigfillset(&allSignals);
    posix_spawnattr_setsigmask(&attributes, &noSignals);
    posix_spawnattr_setsigdefault(&attributes, &allSignals);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

    std::vector<char*> argv{const_cast<char*>(executable.c_str())};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const bool searchPath = executable.find('/') == std::string::npos;
    const int error = searchPath ? ::posix_spawnp(&pid, executable.c_str(), &actions, &attributes, argv.data(), environ)
                                 : ::posix_spawn(&pid, executable.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    return error;
}

}  // namespace aimwise::Spawn
