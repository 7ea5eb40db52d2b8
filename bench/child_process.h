#pragma once
// Child processes for the whole-process benchmarks: started with exactly the given environment,
// their output discarded.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

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
    long maxRSSKiB = 0;
    int status = -1;
};

// Runs a child to its end through child_cost_probe (built beside the benchmarks) and returns what it
// cost, as /usr/bin/time would report it.
inline ChildCost runChild(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
    std::vector<std::string> probed{(std::filesystem::read_symlink("/proc/self/exe").parent_path() / "child_cost_probe").string()};
    probed.insert(probed.end(), arguments.begin(), arguments.end());
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) std::abort();
    const pid_t pid = spawnQuietly(probed, environment, fds[1], 3);
    if (pid < 0) std::abort();
    ::close(fds[1]);
    std::string report;
    char buffer[256];
    for (ssize_t got; (got = ::read(fds[0], buffer, sizeof buffer)) > 0;) report.append(buffer, size_t(got));
    ::close(fds[0]);
    ::waitpid(pid, nullptr, 0);
    ChildCost cost;
    if (std::sscanf(report.c_str(), "%lf %lf %ld %d", &cost.wallSec, &cost.cpuSec, &cost.maxRSSKiB, &cost.status) != 4)
        cost.status = -1;
    return cost;
}

// Sums the children's costs over an iteration run and reports them as per-iteration counters; the
// children's wall time is the iteration's time.
class ChildCosts {
public:
    explicit ChildCosts(benchmark::State& state) : state_(state) {}
    ~ChildCosts() {
        state_.counters["cpu_ms"] = benchmark::Counter(cpuMs_, benchmark::Counter::kAvgIterations);
        state_.counters["maxRSS_KiB"] = benchmark::Counter(rssKiB_, benchmark::Counter::kAvgIterations);
    }
    ChildCosts(const ChildCosts&) = delete;
    ChildCosts& operator=(const ChildCosts&) = delete;

    void add(const ChildCost& cost) {
        state_.SetIterationTime(cost.wallSec);
        cpuMs_ += cost.cpuSec * 1000.0;
        rssKiB_ += static_cast<double>(cost.maxRSSKiB);
        if (cost.status != 0) state_.SkipWithError("the child failed");
    }

private:
    benchmark::State& state_;
    double cpuMs_ = 0;
    double rssKiB_ = 0;
};

}  // namespace aimwise::bench
