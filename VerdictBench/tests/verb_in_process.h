#pragma once
// Runs a verb in the test's own process behind the dispatcher's catch boundary, with the given
// environment, and collects its status and what it printed: a run of the binary that can be handed
// a fake clock.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

#include "VerdictBench/cli.h"
#include "tests/support/run_process.h"
#include "tests/support/scoped_environment.h"

namespace aimwise::testing {

inline ProcessResult runVerbInProcess(const std::function<int()>& verb, const ProcessOptions& options) {
    ScopedEnvironment environment;
    for (const auto& key : options.unset) environment.unset(key);
    for (const auto& [key, value] : options.environment) environment.set(key, value);
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    const int status = cli::guarded(verb);
    std::fflush(stdout);
    std::fflush(stderr);
    ProcessResult result;
    result.exitStatus = status;
    result.standardOutput = ::testing::internal::GetCapturedStdout();
    result.standardError = ::testing::internal::GetCapturedStderr();
    return result;
}

}  // namespace aimwise::testing
