#include "AimwiseCore/classifier/tick_energy_log.h"

#include "AimwiseCore/events/jsonl_append.h"

namespace aimwise {

namespace BatteryTelemetry {

std::optional<PowerSource::BatteryReading> read() { return PowerSource::readBattery(); }

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

}  // namespace BatteryTelemetry

namespace ClassifierTickEnergyLog {

JSONValue::Object encode(const Row& row) {
    JSONValue::Object object{{"v", 1},           {"atMs", row.atMs},   {"startMs", row.startMs},
                             {"endMs", row.endMs}, {"model", row.model}};
    if (row.before) object["before"] = BatteryTelemetry::toJSON(*row.before);
    if (row.after) object["after"] = BatteryTelemetry::toJSON(*row.after);
    return object;
}

void append(const Row& row, const std::filesystem::path& to) { JSONLAppend::append(encode(row), to); }

}  // namespace ClassifierTickEnergyLog
}  // namespace aimwise
