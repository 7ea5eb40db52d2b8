#pragma once
// Whether to start a consolidation pass at all: only with work to do, not straight after the last
// pass, and only when nobody is using the machine.
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "AimwiseCore/events/classifier_tick.h"

namespace aimwise::DreamSchedule {

enum class Presence { away, present, unknown };
const char* rawValue(Presence presence);

struct Snapshot {
    int64_t pendingPeriodCount = 0;
    Presence presence = Presence::unknown;
    std::optional<int64_t> latestEventAtMs;
    std::optional<int64_t> lastPassEndedAtMs;
    int64_t asOfMs = 0;
    bool operator==(const Snapshot&) const = default;
};

struct Dream {
    int64_t periodCount = 0;
    bool operator==(const Dream&) const = default;
};
struct Hold {
    std::string reason;
    bool operator==(const Hold&) const = default;
};
using Decision = std::variant<Dream, Hold>;

inline constexpr int64_t tickFreshMs = 180'000;
inline constexpr int64_t passBackoffMs = 3'600'000;
inline constexpr int64_t quietLogMs = 7'200'000;
inline constexpr const char* lockScreenApp = "loginwindow";

// From the newest classifier tick: a tick older than 180 s says nothing; the lock screen is away.
Presence presence(const std::vector<ClassifierTick>& ticks, int64_t asOfMs);
Decision evaluate(const Snapshot& snapshot);

}  // namespace aimwise::DreamSchedule
