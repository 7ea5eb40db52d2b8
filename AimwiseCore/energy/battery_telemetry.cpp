#include "AimwiseCore/energy/battery_telemetry.h"

namespace aimwise::BatteryTelemetry {

std::optional<PowerSource::BatteryReading> read() {
    return PowerSource::readBattery();
}

JSONValue::Object toJSON(const PowerSource::BatteryReading& reading) {
    JSONValue::Object object;
    const auto put = [&](const char* key, const std::optional<int64_t>& value) {
        if (value) object[key] = *value;
    };
    if (reading.status) object["status"] = *reading.status;
    put("voltage_mv", reading.voltageMv);
    put("current_ma", reading.currentMa);
    put("power_mw", reading.powerMw);
    put("energy_mwh", reading.energyMwh);
    put("energy_full_mwh", reading.energyFullMwh);
    put("charge_mah", reading.chargeMah);
    put("charge_full_mah", reading.chargeFullMah);
    put("capacity_pct", reading.capacityPercent);
    return object;
}

}  // namespace aimwise::BatteryTelemetry
