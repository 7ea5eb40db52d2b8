#pragma once
// Runs a program as a child process and collects what it printed, for tests of whole verbs.
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace aimwise::testing {

struct ProcessResult {
    int exitStatus = -1;  // -1 when killed by a signal
    std::string standardOutput;
    std::string standardError;
};

struct ProcessOptions {
    // Added to (or replacing entries of) the test's own environment.
    std::map<std::string, std::string> environment;
    // Removed from the environment before `environment` is applied.
    std::vector<std::string> unset;
    std::optional<std::string> standardInput;
    int timeoutSec = 60;
    // Start from an empty environment instead of the test's own.
    bool clearEnvironment = false;
};

ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments,
                         const ProcessOptions& options = {});

// The built VerdictBench binary.
std::string verdictBenchPath();
// What a VerdictBench run needs to stay inside `dir`: data root dir/root, home and XDG directories
// under it, the model "judge-model" at `endpoint`.
std::map<std::string, std::string> verdictBenchEnvironment(const std::string& dir, const std::string& endpoint);

}  // namespace aimwise::testing
