#pragma once
// One `ticks` row as the activity timeline consumes it. It lives beside the reader that
// fills it because the timeline's library sits above this one.
#include <cstdint>
#include <optional>
#include <string>

namespace aimwise::ActivityTimeline {

struct Sample {
    int64_t tsMs = 0;
    std::optional<std::string> frontmostApp;
    std::optional<double> idleAnySec;
    std::optional<std::string> browserTitle;
    std::optional<std::string> browserURL;
    bool operator==(const Sample&) const = default;
};

}  // namespace aimwise::ActivityTimeline
