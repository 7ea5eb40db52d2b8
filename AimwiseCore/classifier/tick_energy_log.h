#pragma once
// classifier-tick-energy.jsonl: one row per judged tick with the battery's counters before and after
// the judgment, from which the energy report estimates what a check costs.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "AimwiseCore/events/json_value.h"
#include "platform/power_source.h"

namespace aimwise {

namespace BatteryTelemetry {
// Nothing on a machine without a battery.
std::optional<PowerSource::BatteryReading> read();
// Only the counters the battery offered: "status", "voltage_mv", "current_ma", "power_mw",
// "energy_mwh", "energy_full_mwh", "charge_mah", "charge_full_mah", "capacity_pct".
JSONValue::Object toJSON(const PowerSource::BatteryReading& reading);
}  // namespace BatteryTelemetry

namespace ClassifierTickEnergyLog {

inline constexpr const char* fileName = "classifier-tick-energy.jsonl";

struct Row {
    int64_t atMs = 0;
    int64_t startMs = 0;
    int64_t endMs = 0;
    std::string model;
    // Left out of the row when there is no battery to read.
    std::optional<PowerSource::BatteryReading> before;
    std::optional<PowerSource::BatteryReading> after;
};

JSONValue::Object encode(const Row& row);
// Throws JSONLAppend::AppendError or std::filesystem::filesystem_error.
void append(const Row& row, const std::filesystem::path& to);

}  // namespace ClassifierTickEnergyLog
}  // namespace aimwise
