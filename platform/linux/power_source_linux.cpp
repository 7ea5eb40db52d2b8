#include "platform/power_source.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <system_error>
#include <vector>

namespace aimwise::PowerSource {

namespace {

namespace fs = std::filesystem;

// sysfs attributes are one short line; a missing or unreadable one is simply absent.
std::optional<std::string> attribute(const fs::path& supply, const char* name) {
    std::ifstream in(supply / name);
    std::string line;
    if (!in || !std::getline(in, line)) return std::nullopt;
    while (!line.empty() && (line.back() == '\n' || line.back() == ' ' || line.back() == '\r')) line.pop_back();
    return line;
}

std::optional<int64_t> integer(const fs::path& supply, const char* name) {
    const auto text = attribute(supply, name);
    if (!text || text->empty()) return std::nullopt;
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (error != std::errc() || end != text->data() + text->size()) return std::nullopt;
    return value;
}

std::optional<int64_t> milli(const std::optional<int64_t>& micro) {
    if (!micro) return std::nullopt;
    return *micro / 1000;
}

// Sorted, so that "the first battery" is the same supply on every read. A wireless mouse's or
// headset's battery (scope "Device") always discharges and says nothing about the machine's power.
std::vector<fs::path> supplies(const fs::path& root) {
    std::vector<fs::path> found;
    std::error_code error;
    for (fs::directory_iterator it(root, error), end; !error && it != end; it.increment(error))
        if (attribute(it->path(), "scope") != "Device") found.push_back(it->path());
    std::sort(found.begin(), found.end());
    return found;
}

}  // namespace

Snapshot read(const fs::path& root) {
    Snapshot snapshot;
    for (const auto& supply : supplies(root)) {
        const auto type = attribute(supply, "type");
        if (!type) continue;
        if (*type == "Battery") {
            if (const auto status = attribute(supply, "status")) {
                const bool discharging = *status == "Discharging";
                snapshot.onBattery = snapshot.onBattery.value_or(false) || discharging;
            }
        } else if (*type == "Mains" || *type == "USB" || *type == "USB_C" || *type == "USB_PD") {
            if (const auto online = integer(supply, "online"))
                snapshot.isPluggedIn = snapshot.isPluggedIn.value_or(false) || *online != 0;
        }
    }
    return snapshot;
}

std::optional<BatteryReading> readBattery(const fs::path& root) {
    for (const auto& supply : supplies(root)) {
        if (attribute(supply, "type") != "Battery") continue;
        BatteryReading reading;
        reading.status = attribute(supply, "status");
        reading.voltageMv = milli(integer(supply, "voltage_now"));
        reading.currentMa = milli(integer(supply, "current_now"));
        reading.powerMw = milli(integer(supply, "power_now"));
        reading.energyMwh = milli(integer(supply, "energy_now"));
        reading.energyFullMwh = milli(integer(supply, "energy_full"));
        reading.chargeMah = milli(integer(supply, "charge_now"));
        reading.chargeFullMah = milli(integer(supply, "charge_full"));
        reading.capacityPercent = integer(supply, "capacity");
        return reading;
    }
    return std::nullopt;
}

TickColumns tickColumns(const Snapshot& snapshot, const std::optional<BatteryReading>& battery) {
    TickColumns reading;
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
    if (snapshot.isPluggedIn) reading.acPlugged = snapshot.isPluggedIn;
    return reading;
}

TickColumns readTickColumns(const fs::path& root) { return tickColumns(read(root), readBattery(root)); }

}  // namespace aimwise::PowerSource
