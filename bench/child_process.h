#pragma once
// Child processes for the whole-process benchmarks: started with exactly the given environment,
// their output discarded.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

namespace aimwise::bench {

// Starts `arguments` (found on this process's PATH) and returns its pid, or -1. With `reportFd`,
// that descriptor is handed to the child as `reportTo`.
inline pid_t spawnQuietly(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
                          int reportFd = -1, int reportTo = -1) {
    std::vector<char*> argv, envp;
    for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    for (const auto& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    if (reportFd >= 0) posix_spawn_file_actions_adddup2(&actions, reportFd, reportTo);
    pid_t pid = 0;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

struct ChildCost {
    double wallSec = 0;
    double cpuSec = 0;
    // Never below this process's own: the child starts as a copy of it.
    long maxRSSKiB = 0;
    int status = -1;
};

// Runs a child to its end and returns what it cost, as /usr/bin/time would report it.
inline ChildCost runChild(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = spawnQuietly(arguments, environment);
    if (pid < 0) std::abort();
    int status = 0;
    rusage usage{};
    ::wait4(pid, &status, 0, &usage);
    const auto end = std::chrono::steady_clock::now();
    const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return {std::chrono::duration<double>(end - start).count(), seconds(usage.ru_utime) + seconds(usage.ru_stime),
            usage.ru_maxrss, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

}  // namespace aimwise::bench
