#include "AimwiseCore/memory/dream_guardrails.h"

#include <algorithm>
#include <cmath>

#include "CaptureShared/common/text.h"
#include "platform/power_source.h"

namespace aimwise::DreamGuardrails {

namespace {

std::optional<double> percentOf(const PowerSource::BatteryReading& battery) {
    if (battery.capacityPercent) return std::clamp(static_cast<double>(*battery.capacityPercent), 0.0, 100.0);
    // Some drivers give no capacity, only the counters it comes from.
    const auto now = battery.energyMwh ? battery.energyMwh : battery.chargeMah;
    const auto full = battery.energyMwh ? battery.energyFullMwh : battery.chargeFullMah;
    if (!now || !full || *full <= 0) return std::nullopt;
    return std::clamp(static_cast<double>(*now) * 100.0 / static_cast<double>(*full), 0.0, 100.0);
}

std::optional<Decision> thermalDecision(const Snapshot& snapshot) {
    if (snapshot.thermalPressure == ThermalPressure::critical)
        return Pause{
            "OS thermal state critical — system is already throttling to essential load; holding regardless "
            "of cause"};
    if (snapshot.thermalPressure == ThermalPressure::serious)
        return LowPower{"OS thermal state serious — system is under real thermal pressure; shedding load"};
    return std::nullopt;
}

std::optional<Decision> batteryDecision(const Snapshot& snapshot) {
    if (!isDraining(snapshot)) return std::nullopt;
    const auto& percent = snapshot.batteryPercent;
    if (!percent || std::isnan(*percent))
        return Pause{"battery draining, charge unreadable — holding to protect the reserve"};
    const std::string value = shortestRoundTrip(*percent);
    if (*percent <= batteryPauseFloorPercent)
        return Pause{"battery " + value + "% draining ≤ floor 30% — holding to protect the reserve"};
    if (*percent <= batteryLowPowerPercent)
        return LowPower{"battery " + value + "% draining ≤ 50% — shedding load"};
    return Decision{Proceed{}};
}

}  // namespace

Snapshot Snapshot::live() {
    return live(PowerSource::sysfsRoot, Thermal::sysfsRoot);
}

Snapshot Snapshot::live(const std::filesystem::path& powerSupplyRoot,
                        const std::filesystem::path& thermalRoot) {
    Snapshot snapshot;
    snapshot.isPluggedIn = PowerSource::read(powerSupplyRoot).isPluggedIn;
    if (const auto battery = PowerSource::readBattery(powerSupplyRoot)) {
        snapshot.batteryPercent = percentOf(*battery);
        // "Unknown" (some drivers while the charger negotiates) says nothing either way.
        if (battery->status == "Discharging")
            snapshot.batteryDischarging = true;
        else if (battery->status == "Charging" || battery->status == "Full" ||
                 battery->status == "Not charging")
            snapshot.batteryDischarging = false;
    }
    const Thermal::Reading thermal = Thermal::read(thermalRoot);
    snapshot.cpuTempC = thermal.cpuTempC;
    snapshot.gpuTempC = thermal.gpuTempC;
    snapshot.thermalPressure = thermal.pressure;
    return snapshot;
}

int severity(const Decision& decision) {
    if (std::holds_alternative<Abort>(decision)) return 3;
    if (std::holds_alternative<Pause>(decision)) return 2;
    if (std::holds_alternative<LowPower>(decision)) return 1;
    return 0;
}

bool moreSevere(const Decision& a, const Decision& b) {
    return severity(a) > severity(b);
}

std::string reasonOf(const Decision& decision) {
    return std::visit(
        [](const auto& value) -> std::string {
            if constexpr (requires { value.reason; })
                return value.reason;
            else
                return "";
        },
        decision);
}

bool isDraining(const Snapshot& snapshot) {
    if (snapshot.batteryDischarging) return *snapshot.batteryDischarging;
    return snapshot.isPluggedIn.has_value() && !*snapshot.isPluggedIn;
}

Decision evaluate(const Snapshot& snapshot) {
    if (snapshot.distantTempC && *snapshot.distantTempC >= distantTempAbortC)
        return Abort{
            "distant sensor " + shortestRoundTrip(*snapshot.distantTempC) +
            "°C ≥ 45°C — enclosure hot with no airflow (backpack case), unsafe to keep the machine spinning"};
    const auto thermal = thermalDecision(snapshot);
    const auto battery = batteryDecision(snapshot);
    if (thermal && battery) return moreSevere(*battery, *thermal) ? *battery : *thermal;
    if (thermal) return *thermal;
    if (battery) return *battery;
    return Proceed{};
}

}  // namespace aimwise::DreamGuardrails
