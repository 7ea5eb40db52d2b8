#pragma once
// The machine's power supplies as the kernel shows them under /sys/class/power_supply: whether it
// runs on battery, and the battery's own counters for energy accounting.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace aimwise::PowerSource {

inline constexpr const char* sysfsRoot = "/sys/class/power_supply";

struct Snapshot {
    // A battery reports "Discharging": the machine runs on it right now.
    std::optional<bool> onBattery;
    // A mains or USB supply reports itself online.
    std::optional<bool> isPluggedIn;
    bool operator==(const Snapshot&) const = default;
};

// The first battery's counters, converted from the kernel's micro-units. A counter the battery does
// not offer is absent, never zero: batteries report energy (µWh) or charge (µAh), rarely both.
struct BatteryReading {
    std::optional<std::string> status;
    std::optional<int64_t> voltageMv;
    std::optional<int64_t> currentMa;
    std::optional<int64_t> powerMw;
    std::optional<int64_t> energyMwh;
    std::optional<int64_t> energyFullMwh;
    std::optional<int64_t> chargeMah;
    std::optional<int64_t> chargeFullMah;
    std::optional<int64_t> capacityPercent;
    bool operator==(const BatteryReading&) const = default;
};

// What the capture agent's `ticks` row records of the supplies. A machine without a battery, or a
// driver that lacks a field, leaves that column NULL.
struct TickColumns {
    std::optional<int64_t> batteryPct;
    std::optional<bool> acPlugged;
    std::optional<int64_t> voltageMv;
    // Negative while discharging, as the battery telemetry columns expect.
    std::optional<int64_t> instantAmperageMa;
    std::optional<int64_t> fullChargeCapacityMah;
    bool operator==(const TickColumns&) const = default;
};

// Unknown fields when the root holds no supply of that kind, as on a desktop or in a container.
Snapshot read(const std::filesystem::path& root = sysfsRoot);
// Nothing without a battery.
std::optional<BatteryReading> readBattery(const std::filesystem::path& root = sysfsRoot);
// The battery's counters and the charger's word, as the `ticks` columns hold them.
TickColumns tickColumns(const Snapshot& snapshot, const std::optional<BatteryReading>& battery);
TickColumns readTickColumns(const std::filesystem::path& root = sysfsRoot);

}  // namespace aimwise::PowerSource
