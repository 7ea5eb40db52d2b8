#pragma once
// Whether it is safe to keep consolidating, asked between model calls: a laptop may be unplugged,
// run low or go into a bag in the middle of a pass. Unknown readings are tolerated; only an
// unreadable charge while draining holds.
#include <filesystem>
#include <optional>
#include <string>
#include <variant>

#include "platform/thermal.h"

namespace aimwise::DreamGuardrails {

struct Snapshot {
    std::optional<bool> isPluggedIn;
    std::optional<double> batteryPercent;
    std::optional<bool> batteryDischarging;
    // The enclosure sensor away from the processor; a hot one means no airflow.
    std::optional<double> distantTempC;
    std::optional<double> cpuTempC;
    std::optional<double> gpuTempC;
    std::optional<ThermalPressure> thermalPressure;
    bool operator==(const Snapshot&) const = default;

    // The machine now, through platform/: the power supplies and the thermal zones. On Linux the
    // distant sensor has no counterpart and stays absent.
    static Snapshot live();
    static Snapshot live(const std::filesystem::path& powerSupplyRoot,
                         const std::filesystem::path& thermalRoot);
};

struct LowPower {
    std::string reason;
    bool operator==(const LowPower&) const = default;
};
struct Pause {
    std::string reason;
    bool operator==(const Pause&) const = default;
};
struct Abort {
    std::string reason;
    bool operator==(const Abort&) const = default;
};
struct Proceed {
    bool operator==(const Proceed&) const = default;
};
using Decision = std::variant<LowPower, Pause, Abort, Proceed>;

// abort > pause > lowPower > proceed.
int severity(const Decision& decision);
bool moreSevere(const Decision& a, const Decision& b);
// The decision's reason; empty for proceed.
std::string reasonOf(const Decision& decision);

inline constexpr double distantTempAbortC = 45.0;
inline constexpr double batteryPauseFloorPercent = 30.0;
inline constexpr double batteryLowPowerPercent = 50.0;

bool isDraining(const Snapshot& snapshot);
Decision evaluate(const Snapshot& snapshot);

}  // namespace aimwise::DreamGuardrails
