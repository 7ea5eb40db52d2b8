#pragma once
// Finds the recorded frame nearest an instant through a display's frame_timestamps.csv.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <variant>
#include <vector>

#include "CaptureShared/video/frame_timestamps.h"

namespace aimwise {

class FrameLocator {
public:
    struct Located {
        std::filesystem::path file;
        int64_t frameIndex = 0;
        int64_t sourceRealMs = 0;
        FrameTimestamps::CaptureArea area;
        bool operator==(const Located&) const = default;
    };
    struct NoFrameNear {
        bool operator==(const NoFrameNear&) const = default;
    };
    // Before the sidecars indexed frames.
    struct MomentTooOld {
        bool operator==(const MomentTooOld&) const = default;
    };
    using LocateResult = std::variant<Located, NoFrameNear, MomentTooOld>;
    using Locate = std::function<LocateResult(int64_t targetMs, int64_t toleranceMs)>;

    // 2026-07-07T00:00:00Z: the first sidecar with frame-index columns was written that day.
    static constexpr int64_t frameIndexColumnsSinceMs = 1783382400000;

    // The part of `sidecar` that can answer targets in [fromMs, toMs] within `toleranceMs`.
    static FrameLocator sidecarWindow(const std::filesystem::path& sidecar, int64_t fromMs, int64_t toMs,
                                      int64_t toleranceMs);
    // Over the display with the lowest number whose sidecar has a frame near `judgedMs`, or the first
    // display when none has; absent when there is no display directory at all.
    static std::optional<FrameLocator> forJudgedInstant(const std::filesystem::path& videoRoot, int64_t judgedMs,
                                                        int64_t leadUpMs, int64_t toleranceMs,
                                                        std::optional<int> display = std::nullopt);

    // The frame nearest `targetMs`, the earlier one on a tie, if it lies within `toleranceMs`.
    LocateResult locate(int64_t targetMs, int64_t toleranceMs) const;
    Locate asFunction() const {
        return [self = *this](int64_t targetMs, int64_t toleranceMs) { return self.locate(targetMs, toleranceMs); };
    }
    std::optional<int> display() const { return display_; }
    const std::vector<FrameTimestamps::Row>& rows() const { return sidecar_.rows; }

private:
    std::filesystem::path directory_;
    FrameTimestamps::Sidecar sidecar_;
    std::optional<int> display_;
};

}  // namespace aimwise
