#pragma once
// The `ramp` verb's work: plan the clip for a judged instant and print it, and, bridged, write the
// clip as a playable file in a private temporary directory.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "CaptureShared/common/environment.h"
#include "CaptureShared/ramp/ramp_clip_plan.h"
#include "CaptureShared/video/video_archive_key.h"

namespace aimwise::RampVerify {

struct Options {
    std::optional<double> fps;
    std::optional<int> display;  // the lowest-numbered display recorded at the instant when absent
    std::filesystem::path videoRoot;  // DataPaths::videoDir() when empty
};

// The configuration the verb uses: a 12-second clip of the hour before, at 12 frames a second or `fps`.
RampClipPlan::Config config(std::optional<double> fps);
// Throws RampClipPlan::PlanError.
RampClipPlan::Plan plan(int64_t atMs, const Options& options = {});

// What `runPlan` prints: a summary, then one line per plan frame.
std::string describe(const RampClipPlan::Plan& plan);

// Print the plan; throw PlanError when there is none.
void runPlan(int64_t atMs, const Options& options = {});
// Print the plan and write the clip, printing its path; returns that path. Throws PlanError or
// VideoContainerBridge::BridgeError.
std::filesystem::path runBridge(int64_t atMs, const VideoArchiveKeyLookup& keys, const Environment& environment,
                                const Options& options = {});

}  // namespace aimwise::RampVerify
