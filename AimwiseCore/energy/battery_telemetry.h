#pragma once
// The battery's counters as the energy rows carry them.
#include <optional>

#include "AimwiseCore/events/json_value.h"
#include "platform/power_source.h"

namespace aimwise::BatteryTelemetry {

// Nothing on a machine without a battery.
std::optional<PowerSource::BatteryReading> read();
// Only the counters the battery offered: "status", "voltage_mv", "current_ma", "power_mw",
// "energy_mwh", "energy_full_mwh", "charge_mah", "charge_full_mah", "capacity_pct".
JSONValue::Object toJSON(const PowerSource::BatteryReading& reading);

}  // namespace aimwise::BatteryTelemetry
