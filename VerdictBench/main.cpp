// VerdictBench: the classifier's command-line tool. `tick` is its production entry point.
#include <cstring>
#include <string>
#include <vector>

#include "CaptureShared/dataroot/agent_logging.h"
#include "CaptureShared/dataroot/agent_umask.h"
#include "CaptureShared/dataroot/licence_check.h"
#include "VerdictBench/cli.h"
#include "VerdictBench/verbs.h"

namespace {

using aimwise::cli::Invocation;

struct Verb {
    const char* name;
    int (*run)(const Invocation&);
};

// Compared as exact, case-sensitive text, in this order.
constexpr Verb verbTable[] = {
    {"judge", aimwise::verbs::runJudge},
    {"replay", aimwise::verbs::runReplay},
    {"prompt", aimwise::verbs::runPrompt},
    {"shadow", aimwise::verbs::runShadow},
    {"shadow-compare", aimwise::verbs::runShadowCompare},
    {"tick", aimwise::verbs::runTickVerb},
    {"ramp", aimwise::verbs::runRamp},
    {"pyrepr-selftest", aimwise::verbs::runPyReprSelftest},
    {"estimate-selftest", aimwise::verbs::runEstimateSelftest},
    {"ocr-selftest", aimwise::verbs::runOCRSelftest},
    {"integrity", aimwise::verbs::runIntegrity},
    {"staleness", aimwise::verbs::runStaleness},
    {"energy-report", aimwise::verbs::runEnergyReport},
};

}  // namespace

int main(int argc, char** argv) {
    aimwise::LicenceCheck::run();
    aimwise::AgentUmask::apply();

    std::vector<std::string> arguments(argv + 1, argv + argc);
    const Invocation invocation = aimwise::cli::splitArguments(arguments);

    const auto log = aimwise::AgentLogging::bootstrap("AimwiseCoach", "classifier", std::nullopt, 300.0);

    if (invocation.mode) {
        for (const Verb& verb : verbTable) {
            if (*invocation.mode != verb.name) continue;
            // Only a run that logs remembers its failure, so a person at a terminal is always told.
            std::optional<std::filesystem::path> failureMemory;
            if (log) failureMemory = log->parent_path() / ("VerdictBench-" + std::string(verb.name) + ".last-failure");
            return aimwise::cli::guarded([&] { return verb.run(invocation); }, failureMemory);
        }
    }
    aimwise::cli::fail(aimwise::cli::usageText);
}
