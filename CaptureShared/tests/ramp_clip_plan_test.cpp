#include "CaptureShared/ramp/ramp_clip_plan.h"

#include <gtest/gtest.h>

#include <map>

namespace aimwise {
namespace {

using namespace RampClipPlan;
using Located = FrameLocator::Located;

constexpr int64_t judged = 1790000000000;  // after the sidecars indexed frames

TEST(RampSchedule, EndsOnTheInstantNeverRisesAndHasOneMoreEntryOnlyWithoutATail) {
    for (double fraction : {0.0, 0.15, 0.5, 0.99, 1.0}) {
        for (int n = 1; n <= 300; n += (n < 30 ? 1 : 37)) {
            const Config config{.tailFraction = fraction, .sourceFrameCount = n};
            const auto offsets = schedule(config);
            const int tail = static_cast<int>(fraction * n);
            ASSERT_EQ(offsets.size(), size_t(tail < 1 ? n + 1 : n)) << fraction << " " << n;
            EXPECT_EQ(offsets.back(), 0);
            EXPECT_TRUE(std::is_sorted(offsets.rbegin(), offsets.rend())) << fraction << " " << n;
            // With a head, the clip starts a full lead-up before the instant; with only a tail, one tail span.
            EXPECT_EQ(offsets.front(), tail < n ? 3600000 : (n - 1) * 60000 / n) << fraction << " " << n;
        }
    }
}

TEST(RampSchedule, TheHundredAndFortyFourFrameClip) {
    const auto offsets = schedule(Config{});
    ASSERT_EQ(offsets.size(), 144u);
    // 123 head frames from the full hour to just behind the tail, then 21 evenly spaced.
    EXPECT_EQ(std::vector<int64_t>(offsets.begin() + 120, offsets.begin() + 127),
              (std::vector<int64_t>{71234, 66422, 61726, 57142, 54285, 51428, 48571}));
    EXPECT_EQ(offsets[0], 3600000);
    EXPECT_EQ(offsets[142], 2857);
    EXPECT_EQ(schedule({.tailFraction = 1.0 / 144, .sourceFrameCount = 144}).back(), 0);
    EXPECT_EQ(schedule({.tailFraction = 0.0, .sourceFrameCount = 1}), (std::vector<int64_t>{3600000, 0}));
}

// Letters name source frames, '_' an unresolved target, one hold each; frame x lies at x's position in
// the alphabet times `spacingMs`.
std::vector<Frame> frames(const std::string& letters, int64_t spacingMs) {
    std::vector<Frame> out;
    for (size_t i = 0; i < letters.size(); ++i) {
        const int64_t at = int64_t(i) * spacingMs;
        if (letters[i] == '_')
            out.push_back(Frame::gap(at, 1));
        else
            out.push_back({std::string(1, letters[i]), 0, (letters[i] - 'a') * spacingMs, 1});
    }
    return out;
}

std::string render(const std::vector<Frame>& resolved) {
    std::string out;
    for (const Frame& frame : resolved)
        out += (frame.isGap() ? "_" : frame.file->string()) + std::to_string(frame.holdFrames) + " ";
    return out;
}

TEST(RampResolveGaps, MergesRunsOfGapsAndRepeatsAndHoldsOverStretchesShorterThanTheMinimum) {
    const struct {
        std::string letters;
        int64_t spacingMs;
        std::string expected;
    } cases[] = {
        {"abc", 1000, "a1 b1 c1 "},
        {"aab_e", 1000, "a2 b1 _1 e1 "},  // b to e is 3 s: a gap
        {"a___e", 1000, "a1 _3 e1 "},
        {"a_c", 1000, "a2 c1 "},  // 2 s without capture is no gap
        {"a___e", 500, "a4 e1 "},
        {"__c_e", 2000, "_2 c1 _1 e1 "},    // nothing before: always a gap
        {"a__", 1000, "a1 _2 "},
    };
    for (const auto& c : cases) EXPECT_EQ(render(resolveGaps(frames(c.letters, c.spacingMs), 3000)), c.expected) << c.letters;
}

// A recording with a frame every second, except in the stretches given.
FrameLocator::Locate recording(std::vector<std::pair<int64_t, int64_t>> missing) {
    return [missing](int64_t target, int64_t) -> FrameLocator::LocateResult {
        const int64_t nearest = (target + 500) / 1000 * 1000;
        for (auto [from, to] : missing)
            if (nearest >= from && nearest < to) return FrameLocator::NoFrameNear{};
        return Located{"rec.ts", (nearest - (judged - 4000000)) / 1000, nearest, {}};
    };
}

TEST(RampPlan, LastsTheClipEndsOnTheInstantAndShowsALongStretchWithoutCaptureBrieflyAsOneGap) {
    const Plan full = plan(judged, Config{}, recording({}));
    EXPECT_EQ(full.frames.size(), 144u);
    EXPECT_EQ(full.outputFrameCount(), 144);
    EXPECT_EQ(full.frames.back().sourceRealMs, judged);
    EXPECT_EQ(full.gapShare(), 0.0);

    // Capture was off from 50 to 20 minutes before the moment.
    const Plan gappy = plan(judged, Config{}, recording({{judged - 3000000, judged - 1200000}}));
    EXPECT_EQ(gappy.outputFrameCount(), 144);
    ASSERT_EQ(gappy.outputStarts.size(), gappy.frames.size());
    for (size_t i = 1; i < gappy.frames.size(); ++i) {
        EXPECT_EQ(gappy.outputStarts[i], gappy.outputStarts[i - 1] + gappy.frames[i - 1].holdFrames);
        EXPECT_GE(gappy.frames[i].holdFrames, 1);
        EXPECT_GT(gappy.frames[i].sourceRealMs, gappy.frames[i - 1].sourceRealMs);
    }
    const auto gaps = std::count_if(gappy.frames.begin(), gappy.frames.end(), [](const Frame& f) { return f.isGap(); });
    EXPECT_EQ(gaps, 1);
    EXPECT_EQ(gappy.gapOutputFrames(), maximumGapHold(12.0));
    EXPECT_NEAR(gappy.gapSourceMs(), 1800000, 60000);
    // The gap lasts until the next frame shown, which is never far into the last twenty minutes.
    EXPECT_EQ(gappy.gapSourceMs(1150000), 0);
    EXPECT_EQ(gappy.frames.back().sourceRealMs, judged);
}

TEST(RampPlan, RefusesInTheSystemsWords) {
    const auto refusal = [](FrameLocator::Locate locate, int64_t at = judged) {
        try {
            plan(at, Config{}, locate);
        } catch (const PlanError& error) {
            return error.description();
        }
        return std::string("planned");
    };
    EXPECT_EQ(refusal(recording({{judged - 5000, judged + 5000}})),
              "No capture frame near the judged instant — capture wasn't running then.");
    EXPECT_EQ(refusal([](int64_t, int64_t) -> FrameLocator::LocateResult { return FrameLocator::MomentTooOld{}; }),
              "This moment predates the frame-index sidecar columns (2026-07-07), so no frame can be resolved for it.");
    EXPECT_EQ(refusal(recording({{0, judged - 136000}})),
              "Only 35 of the lead-up frames resolved (need 36) — capture was mostly not running.");
    EXPECT_EQ(refusal(recording({{0, judged - 142000}})), "planned");
}

}  // namespace
}  // namespace aimwise
