#pragma once
// How hot the machine runs, and how close it is to throttling, as the nightly pass needs to know
// before it keeps a laptop busy. Linux reads /sys/class/thermal (linux/thermal_linux.cpp); a macOS
// reading of the operating system's thermal state and its sensors implements the same header.
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace aimwise {

// The operating system's thermal state, mildest first.
enum class ThermalPressure { nominal, fair, serious, critical };
const char* rawValue(ThermalPressure pressure);

namespace Thermal {

inline constexpr const char* sysfsRoot = "/sys/class/thermal";

// One thermal zone: its kind ("x86_pkg_temp", "acpitz", "cpu-thermal", ...), its temperature and the
// trip points the kernel acts on. A trip at or below 0 °C is a placeholder the firmware left unset.
struct Zone {
    std::string type;
    double tempC = 0;
    std::optional<double> passiveTripC;   // the kernel starts throttling
    std::optional<double> hotTripC;       // the kernel warns that it is nearly out of room
    std::optional<double> criticalTripC;  // the kernel shuts the machine down
    bool operator==(const Zone&) const = default;
};

struct Reading {
    std::optional<double> cpuTempC;
    std::optional<double> gpuTempC;
    std::optional<ThermalPressure> pressure;
    bool operator==(const Reading&) const = default;
};

// Zones whose temperature reads as a plausible number; the rest are left out.
std::vector<Zone> readZones(const std::filesystem::path& root = sysfsRoot);

// How close one zone is to its trips:
//   critical  at or above the hot trip, or past halfway from the passive trip to the critical one
//             (throttling is not holding the heat);
//   serious   at or above the passive trip (the kernel is throttling);
//   fair      within 10 °C below the passive trip;
//   nominal   cooler than that.
// A zone without a passive trip stands it in at 20 °C below its critical trip. A zone with neither
// says nothing.
std::optional<ThermalPressure> pressureOf(const Zone& zone);

// The processor is the package zone ("x86_pkg_temp"), else the hottest zone whose type names the
// CPU; the graphics processor a zone whose type names the GPU. The pressure is the most severe of
// any zone's, so the one closest to its trips decides. What cannot be read stays absent.
Reading summarize(const std::vector<Zone>& zones);
Reading read(const std::filesystem::path& root = sysfsRoot);

}  // namespace Thermal
}  // namespace aimwise
