#include "CaptureShared/ramp/ramp_clip_plan.h"

#include <algorithm>
#include <cmath>

#include "CaptureShared/dataroot/data_paths.h"

namespace aimwise::RampClipPlan {

namespace {

std::string describe(const PlanError::Case& which) {
    if (const auto* few = std::get_if<PlanError::TooFewFramesResolved>(&which))
        return "Only " + std::to_string(few->resolved) + " of the lead-up frames resolved (need " +
               std::to_string(few->minimum) + ") — capture was mostly not running.";
    const auto& located = std::get<PlanError::JudgedInstantUnavailable>(which).located;
    if (std::holds_alternative<FrameLocator::NoFrameNear>(located))
        return "No capture frame near the judged instant — capture wasn't running then.";
    if (std::holds_alternative<FrameLocator::MomentTooOld>(located))
        return "This moment predates the frame-index sidecar columns (2026-07-07), so no frame can be resolved for it.";
    return "unreachable";
}

bool sameSourceFrame(const Frame& a, const Frame& b) {
    return !a.isGap() && !b.isGap() && *a.file == *b.file && a.frameIndex == b.frameIndex;
}

// Output frames shared out so the clip lasts `config.outputFrames()`. A gap gets its share of the
// clip, but at least one frame, so it is seen, and at most `maximumGapHold`, so a long stretch without
// capture does not fill the clip with nothing; what it gives up goes to the captured frames.
std::vector<Frame> shareHolds(std::vector<Frame> frames, const Config& config) {
    const int64_t total = config.outputFrames();
    int64_t units = 0, capturedUnits = 0;
    for (const Frame& frame : frames) {
        units += frame.holdFrames;
        if (!frame.isGap()) capturedUnits += frame.holdFrames;
    }
    const int64_t cap = maximumGapHold(config.outputFps);
    int64_t gapFrames = 0;
    for (Frame& frame : frames) {
        if (!frame.isGap()) continue;
        frame.holdFrames = static_cast<int>(std::clamp<int64_t>(std::llround(double(frame.holdFrames) * total / units), 1, cap));
        gapFrames += frame.holdFrames;
    }
    if (total - gapFrames < 1) {
        gapFrames = 0;
        for (Frame& frame : frames)
            if (frame.isGap()) frame.holdFrames = 1, ++gapFrames;
    }
    const int64_t captured = std::max<int64_t>(1, total - gapFrames);
    int64_t seen = 0, start = 0;
    for (Frame& frame : frames) {
        if (frame.isGap()) continue;
        seen += frame.holdFrames;
        const int64_t end = seen * captured / capturedUnits;
        frame.holdFrames = static_cast<int>(end - start);
        start = end;
    }
    // More source frames than output frames: some show for no frame at all.
    std::vector<Frame> shown;
    for (Frame& frame : frames) {
        if (frame.holdFrames < 1) continue;
        if (frame.isGap() && !shown.empty() && shown.back().isGap())
            shown.back().holdFrames += frame.holdFrames;
        else
            shown.push_back(std::move(frame));
    }
    return shown;
}

}  // namespace

int Config::sourceFrames() const {
    return sourceFrameCount ? *sourceFrameCount : static_cast<int>(std::llround(durationSeconds * outputFps));
}

int Config::outputFrames() const { return std::max(1, static_cast<int>(std::llround(durationSeconds * outputFps))); }

int Plan::outputFrameCount() const {
    int count = 0;
    for (const Frame& frame : frames) count += frame.holdFrames;
    return count;
}

int Plan::gapOutputFrames() const {
    int count = 0;
    for (const Frame& frame : frames)
        if (frame.isGap()) count += frame.holdFrames;
    return count;
}

double Plan::gapShare() const {
    const int count = outputFrameCount();
    return count == 0 ? 0.0 : double(gapOutputFrames()) / count;
}

int64_t Plan::gapSourceMs(int64_t lastMs) const {
    const int64_t from = judgedInstantMs - lastMs;
    int64_t sum = 0;
    for (size_t i = 0; i < frames.size(); ++i) {
        if (!frames[i].isGap()) continue;
        const int64_t end = i + 1 < frames.size() ? frames[i + 1].sourceRealMs : judgedInstantMs;
        sum += std::max<int64_t>(0, std::min(end, judgedInstantMs) - std::max(frames[i].sourceRealMs, from));
    }
    return sum;
}

PlanError::PlanError(Case which) : Error(describe(which)), case_(std::move(which)) {}

std::vector<int64_t> schedule(const Config& config) {
    const int n = config.sourceFrames();
    const int tail = std::max(0, std::min(static_cast<int>(std::trunc(config.tailFraction * n)), n));
    const int head = n - tail;
    const double headEnd = tail == 0 ? double(config.tailSpanMs) : double(tail - 1) * config.tailSpanMs / tail;
    std::vector<int64_t> offsets;
    offsets.reserve(n + 1);
    for (int i = 0; i < head; ++i) {
        const double x = head == 1 ? -0.0 : -3.0 * i / head;
        const double weight = (std::exp(x) - 0.049787068367863944) / 0.950212931632136;
        offsets.push_back(static_cast<int64_t>(std::trunc(headEnd + (config.leadUpMs - headEnd) * weight)));
    }
    if (tail < 1) {
        offsets.push_back(0);  // one more than asked for, so the judged instant is always there
        return offsets;
    }
    for (int k = tail - 1; k >= 0; --k)
        offsets.push_back(static_cast<int64_t>(std::trunc(double(k) * config.tailSpanMs / tail)));
    return offsets;
}

std::vector<Frame> resolveGaps(const std::vector<Frame>& frames, int64_t minimumGapMs) {
    std::vector<Frame> out;
    for (size_t i = 0; i < frames.size();) {
        if (!frames[i].isGap()) {
            if (!out.empty() && sameSourceFrame(out.back(), frames[i]))
                out.back().holdFrames += frames[i].holdFrames;
            else
                out.push_back(frames[i]);
            ++i;
            continue;
        }
        size_t end = i;
        int hold = 0;
        for (; end < frames.size() && frames[end].isGap(); ++end) hold += frames[end].holdFrames;
        const bool between = !out.empty() && !out.back().isGap() && end < frames.size();
        if (between && frames[end].sourceRealMs - out.back().sourceRealMs < minimumGapMs)
            out.back().holdFrames += hold;
        else
            out.push_back(Frame::gap(frames[i].sourceRealMs, hold));
        i = end;
    }
    return out;
}

int minimumResolved(int targets) { return std::min(targets, std::max(2, (targets + 3) / 4)); }

int maximumGapHold(double outputFps) { return std::max(1, static_cast<int>(std::llround(outputFps))); }

Plan plan(int64_t judgedInstantMs, const Config& config, const FrameLocator::Locate& locate) {
    FrameLocator::Locate find = locate;
    if (!find) {
        auto locator = FrameLocator::forJudgedInstant(DataPaths::videoDir(), judgedInstantMs, config.leadUpMs,
                                                      config.toleranceMs);
        find = locator ? locator->asFunction() : [](int64_t, int64_t) -> FrameLocator::LocateResult {
            return FrameLocator::NoFrameNear{};
        };
    }
    const auto judged = find(judgedInstantMs, config.toleranceMs);
    if (!std::holds_alternative<FrameLocator::Located>(judged))
        throw PlanError(PlanError::JudgedInstantUnavailable{judged});

    const std::vector<int64_t> offsets = schedule(config);
    std::vector<Frame> frames;
    int resolved = 0;
    for (int64_t offset : offsets) {
        const int64_t target = judgedInstantMs - offset;
        const auto found = find(target, config.toleranceMs);
        if (const auto* located = std::get_if<FrameLocator::Located>(&found)) {
            frames.push_back({located->file, located->frameIndex, located->sourceRealMs, 1});
            ++resolved;
        } else {
            frames.push_back(Frame::gap(target, 1));
        }
    }
    const int minimum = minimumResolved(static_cast<int>(offsets.size()));
    if (resolved < minimum) throw PlanError(PlanError::TooFewFramesResolved{resolved, minimum});

    Plan result{.outputFps = config.outputFps, .judgedInstantMs = judgedInstantMs};
    result.frames = shareHolds(resolveGaps(frames, config.minimumGapMs), config);
    int start = 0;
    for (const Frame& frame : result.frames) {
        result.outputStarts.push_back(start);
        start += frame.holdFrames;
    }
    return result;
}

}  // namespace aimwise::RampClipPlan
