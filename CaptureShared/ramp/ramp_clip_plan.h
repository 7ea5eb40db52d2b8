#pragma once
// Which recorded frames make up a ramp: a short clip of the hour before a judged moment in which time
// runs fast far from the moment and slows as it nears, ending exactly on the judged instant. The plan
// only picks frames and how long each stays on screen; it decodes nothing.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "CaptureShared/common/error.h"
#include "CaptureShared/ramp/frame_locator.h"

namespace aimwise::RampClipPlan {

struct Config {
    int64_t leadUpMs = 3600000;
    int64_t tailSpanMs = 60000;
    double tailFraction = 0.15;
    // One source frame per output frame when not given: durationSeconds × outputFps.
    std::optional<int> sourceFrameCount;
    double durationSeconds = 12.0;
    double outputFps = 12.0;
    int64_t minimumGapMs = 3000;
    int64_t toleranceMs = 2000;

    int sourceFrames() const;
    int outputFrames() const;
};

struct Frame {
    std::optional<std::filesystem::path> file;  // absent for a gap
    int64_t frameIndex = 0;
    int64_t sourceRealMs = 0;
    int holdFrames = 1;

    static Frame gap(int64_t atMs, int holdFrames) { return {std::nullopt, 0, atMs, holdFrames}; }
    bool isGap() const { return !file.has_value(); }
    bool operator==(const Frame&) const = default;
};

struct Plan {
    std::vector<Frame> frames;
    double outputFps = 0;
    int64_t judgedInstantMs = 0;
    std::vector<int> outputStarts;

    int outputFrameCount() const;
    int gapOutputFrames() const;
    // Share of the output frames that show a gap.
    double gapShare() const;
    // Source time covered by gaps: from each gap to the frame after it.
    int64_t gapSourceMs() const { return gapSourceMs(judgedInstantMs - (frames.empty() ? 0 : frames.front().sourceRealMs)); }
    // The same, counting only the last `lastMs` before the judged instant.
    int64_t gapSourceMs(int64_t lastMs) const;
};

class PlanError : public Error {
public:
    struct JudgedInstantUnavailable {
        FrameLocator::LocateResult located;
    };
    struct TooFewFramesResolved {
        int resolved = 0;
        int minimum = 0;
    };
    using Case = std::variant<JudgedInstantUnavailable, TooFewFramesResolved>;

    explicit PlanError(Case which);
    const Case& which() const { return case_; }

private:
    Case case_;
};

// Offsets in milliseconds before the judged instant, farthest first, always ending with 0.
std::vector<int64_t> schedule(const Config& config);

// Merges runs of unresolved targets (gap frames with one hold each) into single gap frames, and runs
// of targets that resolved to the same source frame into one frame; holdFrames add up. A run of
// unresolved targets between two captured frames less than `minimumGapMs` apart is no gap: the frame
// before it is held instead.
std::vector<Frame> resolveGaps(const std::vector<Frame>& frames, int64_t minimumGapMs);

// Fewer resolved frames than this, out of `targets`, means capture was mostly not running.
int minimumResolved(int targets);
// How long a gap may stay on screen: one second of output, whatever source time it stands for.
int maximumGapHold(double outputFps);

// Throws PlanError. Without `locate`, the sidecars under DataPaths::videoDir() are read.
Plan plan(int64_t judgedInstantMs, const Config& config, const FrameLocator::Locate& locate = nullptr);

}  // namespace aimwise::RampClipPlan
