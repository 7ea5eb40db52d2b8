#pragma once
// Battery and charger readings from /sys/class/power_supply for the `ticks` row. A machine without
// a battery, or a driver that lacks a field, leaves that column NULL.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <optional>

namespace aimwise::PowerSupply {

struct Reading {
    std::optional<int64_t> batteryPct;
    std::optional<bool> acPlugged;
    std::optional<int64_t> voltageMv;
    // Negative while discharging, as the battery telemetry columns expect.
    std::optional<int64_t> instantAmperageMa;
    std::optional<int64_t> fullChargeCapacityMah;
    bool operator==(const Reading&) const = default;
};

inline constexpr const char* defaultRoot = "/sys/class/power_supply";

Reading read(const std::filesystem::path& root = defaultRoot);

}  // namespace aimwise::PowerSupply
