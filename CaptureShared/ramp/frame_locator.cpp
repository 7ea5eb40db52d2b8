#include "CaptureShared/ramp/frame_locator.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <string>

namespace aimwise {

namespace fs = std::filesystem;

FrameLocator FrameLocator::sidecarWindow(const fs::path& sidecar, int64_t fromMs, int64_t toMs, int64_t toleranceMs) {
    FrameLocator locator;
    locator.directory_ = sidecar.parent_path();
    locator.sidecar_ = FrameTimestamps::readWindow(sidecar, fromMs - toleranceMs, toMs + toleranceMs);
    std::erase_if(locator.sidecar_.rows, [](const FrameTimestamps::Row& row) { return row.file.empty(); });
    return locator;
}

std::optional<FrameLocator> FrameLocator::forJudgedInstant(const fs::path& videoRoot, int64_t judgedMs,
                                                           int64_t leadUpMs, int64_t toleranceMs,
                                                           std::optional<int> display) {
    std::vector<int> displays;
    std::error_code ec;
    for (fs::directory_iterator it(videoRoot, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        int number = 0;
        const char* digits = name.data() + 8;
        if (name.starts_with("display-") && name.size() > 8 &&
            std::from_chars(digits, name.data() + name.size(), number).ptr == name.data() + name.size() &&
            (!display || number == *display))
            displays.push_back(number);
    }
    std::sort(displays.begin(), displays.end());
    std::optional<FrameLocator> first;
    for (int number : displays) {
        const fs::path sidecar = videoRoot / ("display-" + std::to_string(number)) / "frame_timestamps.csv";
        FrameLocator locator = sidecarWindow(sidecar, judgedMs - leadUpMs, judgedMs, toleranceMs);
        locator.display_ = number;
        if (std::holds_alternative<Located>(locator.locate(judgedMs, toleranceMs))) return locator;
        if (!first) first = std::move(locator);
    }
    return first;
}

FrameLocator::LocateResult FrameLocator::locate(int64_t targetMs, int64_t toleranceMs) const {
    if (!sidecar_.indexesFrames) return MomentTooOld{};
    const auto& rows = sidecar_.rows;
    const auto after = std::lower_bound(rows.begin(), rows.end(), targetMs,
                                        [](const FrameTimestamps::Row& row, int64_t ms) { return row.realMs < ms; });
    const FrameTimestamps::Row* best = nullptr;
    if (after != rows.begin()) best = &*std::prev(after);
    if (after != rows.end() && (!best || after->realMs - targetMs < targetMs - best->realMs)) best = &*after;
    if (!best || std::llabs(best->realMs - targetMs) > toleranceMs) {
        if (targetMs < frameIndexColumnsSinceMs) return MomentTooOld{};
        return NoFrameNear{};
    }
    return Located{directory_ / best->file, best->frameIndex, best->realMs, best->area};
}

}  // namespace aimwise
