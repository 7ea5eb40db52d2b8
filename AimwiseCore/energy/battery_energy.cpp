#include "AimwiseCore/energy/battery_energy.h"

#include <algorithm>
#include <cmath>

namespace aimwise::BatteryEnergy {

std::optional<bool> onACFromStatus(const std::optional<std::string>& status) {
    if (!status) return std::nullopt;
    if (*status == "Discharging") return false;
    if (*status == "Charging" || *status == "Full" || *status == "Not charging") return true;
    return std::nullopt;
}

bool onBattery(const PowerSource::BatteryReading& reading, std::optional<bool> runOnAC) {
    const std::optional<bool> ac = onACFromStatus(reading.status);
    if (ac) return !*ac;
    return runOnAC == false;
}

Counters Counters::of(const PowerSource::BatteryReading& reading) {
    return {reading.energyMwh, reading.energyFullMwh, reading.chargeMah, reading.chargeFullMah,
            reading.voltageMv};
}

std::optional<double> fullMwh(const Counters& counters) {
    if (counters.energyFullMwh && *counters.energyFullMwh > 0)
        return static_cast<double>(*counters.energyFullMwh);
    if (counters.chargeFullMah && *counters.chargeFullMah > 0 && counters.voltageMv &&
        *counters.voltageMv > 0)
        return static_cast<double>(*counters.chargeFullMah) * static_cast<double>(*counters.voltageMv) /
               1000.0;
    return std::nullopt;
}

bool sameBattery(const Counters& a, const Counters& b) {
    const auto close = [](const std::optional<int64_t>& x, const std::optional<int64_t>& y) {
        if (!x || !y || *x <= 0 || *y <= 0) return true;
        const double larger = static_cast<double>(std::max(*x, *y));
        return std::fabs(static_cast<double>(*x - *y)) <= sameBatteryTolerance * larger;
    };
    return close(a.energyFullMwh, b.energyFullMwh) && close(a.chargeFullMah, b.chargeFullMah);
}

Drawn drawn(const Counters& before, const Counters& after) {
    std::optional<double> mwh;
    if (before.energyMwh && after.energyMwh) {
        mwh = static_cast<double>(*before.energyMwh - *after.energyMwh);
    } else if (before.chargeMah && after.chargeMah && before.voltageMv && after.voltageMv) {
        const double meanVolts = static_cast<double>(*before.voltageMv + *after.voltageMv) / 2000.0;
        mwh = static_cast<double>(*before.chargeMah - *after.chargeMah) * meanVolts;
    }
    if (!mwh) return Unmeasured::noCounters;
    if (!sameBattery(before, after)) return Unmeasured::differentBattery;
    if (*mwh < 0) return Unmeasured::rose;
    return *mwh;
}

bool plausible(double drawnMwh, int64_t overMs) {
    return drawnMwh <= counterStepAllowanceMwh +
                           mostPlausibleMw * static_cast<double>(std::max<int64_t>(0, overMs)) / 3'600'000.0;
}

Drawn drawnDuringRun(const std::optional<PowerSource::BatteryReading>& before,
                     const std::optional<PowerSource::BatteryReading>& after, std::optional<bool> onAC) {
    if (!before || !after) return Unmeasured::noCounters;
    const Drawn result = drawn(Counters::of(*before), Counters::of(*after));
    if (std::holds_alternative<Unmeasured>(result) && std::get<Unmeasured>(result) == Unmeasured::noCounters)
        return result;
    if (!onBattery(*before, onAC) || !onBattery(*after, onAC)) return Unmeasured::onAC;
    return result;
}

}  // namespace aimwise::BatteryEnergy
