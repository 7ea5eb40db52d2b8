#include "agents/capture/power_supply.h"

#include "platform/power_source.h"

namespace aimwise::PowerSupply {

Reading read(const std::filesystem::path& root) {
    Reading reading;
    const auto battery = PowerSource::readBattery(root);
    if (battery) {
        reading.batteryPct = battery->capacityPercent;
        if (!reading.batteryPct) {
            const auto now = battery->energyMwh ? battery->energyMwh : battery->chargeMah;
            const auto full = battery->energyMwh ? battery->energyFullMwh : battery->chargeFullMah;
            if (now && full && *full > 0) reading.batteryPct = std::min<int64_t>(*now * 100 / *full, 100);
        }
        reading.voltageMv = battery->voltageMv;
        if (battery->currentMa) {
            const int64_t magnitude = *battery->currentMa < 0 ? -*battery->currentMa : *battery->currentMa;
            reading.instantAmperageMa = battery->status == "Discharging" ? -magnitude : magnitude;
        }
        reading.fullChargeCapacityMah = battery->chargeFullMah;
        // Batteries that count energy: mWh over the present voltage in V.
        if (!reading.fullChargeCapacityMah && battery->energyFullMwh && battery->voltageMv && *battery->voltageMv > 0)
            reading.fullChargeCapacityMah = *battery->energyFullMwh * 1000 / *battery->voltageMv;
        if (battery->status == "Discharging") reading.acPlugged = false;
        else if (battery->status == "Charging" || battery->status == "Full" || battery->status == "Not charging")
            reading.acPlugged = true;
    }
    // The charger's own word beats what the battery's state suggests.
    if (const auto plugged = PowerSource::read(root).isPluggedIn) reading.acPlugged = plugged;
    return reading;
}

}  // namespace aimwise::PowerSupply
