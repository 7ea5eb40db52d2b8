#pragma once
// What two battery readings say about the energy drawn between them. Batteries count energy
// (energy_now) or charge (charge_now); charge becomes energy at the mean of the two voltages, since
// the voltage sags under load and a product per reading would count the sag as energy.
#include <optional>
#include <string>
#include <variant>

#include "platform/power_source.h"

namespace aimwise::BatteryEnergy {

// Full capacities further apart than this belong to different batteries, or to a recalibration.
inline constexpr double sameBatteryTolerance = 0.05;

// From the battery's own status: "Discharging" is on battery; "Charging", "Full" and "Not charging"
// are on mains power; anything else is unknown.
std::optional<bool> onACFromStatus(const std::optional<std::string>& status);
// On battery per the reading's status, else per the run's onAC.
bool onBattery(const PowerSource::BatteryReading& reading, std::optional<bool> runOnAC);

// The counters that energy is worked out from, without the rest of a reading.
struct Counters {
    std::optional<int64_t> energyMwh, energyFullMwh, chargeMah, chargeFullMah, voltageMv;

    static Counters of(const PowerSource::BatteryReading& reading);
    // Energy, or charge with the voltage to make it energy.
    bool any() const { return energyMwh || (chargeMah && voltageMv); }
};

// The full capacity in mWh, when the battery says.
std::optional<double> fullMwh(const Counters& counters);
// Unknown capacities say nothing against being the same battery.
bool sameBattery(const Counters& a, const Counters& b);

enum class Unmeasured { noCounters, onAC, differentBattery, rose };
using Drawn = std::variant<double, Unmeasured>;  // mWh

// Energy drawn from the battery between the two readings, for a span spent on battery.
Drawn drawn(const Counters& before, const Counters& after);

// No laptop draws more than this; a counter that fell faster misread. The allowance covers a
// counter that refreshes in coarse steps, once a minute or so.
inline constexpr double mostPlausibleMw = 500'000.0;
inline constexpr double counterStepAllowanceMwh = 1'000.0;
bool plausible(double drawnMwh, int64_t overMs);
// The same for a run: nothing is measured on mains power, where the battery sees no cost.
Drawn drawnDuringRun(const std::optional<PowerSource::BatteryReading>& before,
                     const std::optional<PowerSource::BatteryReading>& after, std::optional<bool> onAC);

}  // namespace aimwise::BatteryEnergy
