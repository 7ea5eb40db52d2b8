#pragma once
// Runs a child process under a deadline. A child that is late is terminated, then killed, and always
// reaped: nothing is left running behind the caller, unlike a worker thread that can only be abandoned.
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace aimwise::BoundedProcess {

struct Finished {
    int exitStatus = 0;
    // Set when a signal ended the child; exitStatus is then meaningless.
    std::optional<int> terminatingSignal;
    std::string standardOutput;
    std::string standardError;

    bool succeeded() const { return !terminatingSignal && exitStatus == 0; }
};

struct TimedOut {
    double timeoutSec = 0;
    // What the child wrote before it was stopped.
    std::string standardOutput;
    std::string standardError;
};

struct LaunchFailed {
    std::string reason;
};

using Outcome = std::variant<Finished, TimedOut, LaunchFailed>;

struct Options {
    // Output beyond this many bytes per stream is read and dropped, so a chatty child never blocks.
    size_t outputLimitBytes = 4u << 20;
    // Between the polite SIGTERM and SIGKILL.
    double terminateGraceSec = 0.5;
    // Written to the child's standard input, which is then closed; the null device when absent.
    std::optional<std::string> standardInput;
};

// `executable` with a slash is a path; without one it is looked up in PATH. Standard input is
// `options.standardInput` or the null device; the child runs in a process group of its own so that
// its children are stopped with it.
Outcome run(const std::string& executable, const std::vector<std::string>& arguments, double timeoutSec,
            const Options& options = {});

// The first match in PATH, absent when there is none.
std::optional<std::string> findInPath(const std::string& name);

// "exit status 2", "signal 9", "timed out after 10s", or the launch failure, for messages.
std::string describe(const Outcome& outcome);

}  // namespace aimwise::BoundedProcess
