#pragma once
// aimwise-dream, the nightly job: one run is schedule → lock → passes → release. The systemd timer
// starts it every half hour and the schedule decides whether a pass starts at all; every decision is
// logged in plain words. While a pass runs, a watcher stands it down within a second when the person
// comes back, and between model calls the guardrails stop it before it drains the battery or heats
// the machine.
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "AimwiseCore/memory/dream_guardrails.h"
#include "AimwiseCore/models/model_backend.h"
#include "CaptureShared/common/clock.h"
#include "CaptureShared/common/environment.h"

namespace aimwise::DreamJob {

extern const char* const usageText;

using Log = std::function<void(const std::string& line)>;

struct Services {
    std::filesystem::path dataRoot;
    Environment environment;
    const Clock* clock = &Clock::system();
    // The consolidation backend; `shouldKeepWaiting` turns false when the pass should stand down, so
    // that a wait between retries ends at once.
    std::function<std::shared_ptr<ModelBackend>(std::function<bool()> shouldKeepWaiting, const Log& log)>
        makeBackend;
    std::function<DreamGuardrails::Snapshot()> readGuardrails = [] {
        return DreamGuardrails::Snapshot::live();
    };
    // Every line the job logs, already stamped.
    Log out;
    int64_t watchIntervalMs = 500;
    int64_t guardrailIntervalMs = 30'000;
};

struct Options {
    // Skips the schedule, never the lock or the guardrails.
    bool force = false;
};


// Returns the exit status: 0 for a pass and for every deliberate hold, 1 for a failure.
int runOnce(const Options& options, const Services& services);
// The executable: arguments, the data root, the real machine.
int run(const std::vector<std::string>& arguments, const Environment& environment);

}  // namespace aimwise::DreamJob
