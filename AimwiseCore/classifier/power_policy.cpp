#include "AimwiseCore/classifier/power_policy.h"

#include <algorithm>
#include <cctype>

namespace aimwise::ClassifierPowerPolicy {

namespace {

std::optional<int> positiveSeconds(const Environment& environment, const char* key) {
    const auto raw = lookup(environment, key);
    if (!raw) return std::nullopt;
    const auto value = ClassifierCadence::parseInteger(*raw);
    if (!value || *value <= 0 || *value > INT32_MAX) return std::nullopt;
    return static_cast<int>(*value);
}

}  // namespace

bool isRequiredByEnvironment(const Environment& environment) {
    const auto raw = lookup(environment, "AIMCAP_CLASSIFY_REQUIRE_AC");
    if (!raw) return false;
    std::string value = *raw;
    std::transform(value.begin(), value.end(), value.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return !(value.empty() || value == "0" || value == "false" || value == "off" || value == "no");
}

std::optional<int> batteryFloorSec(const Environment& environment) {
    return positiveSeconds(environment, "AIMCAP_CLASSIFY_BATTERY_MIN_INTERVAL_SEC");
}

std::optional<int> batteryCeilingSec(const Environment& environment) {
    return positiveSeconds(environment, "AIMCAP_CLASSIFY_BATTERY_MAX_INTERVAL_SEC");
}

bool needsLiveReading(const Environment& environment) {
    return environment.contains("AIMCAP_CLASSIFY_REQUIRE_AC") ||
           environment.contains("AIMCAP_CLASSIFY_BATTERY_MIN_INTERVAL_SEC") ||
           environment.contains("AIMCAP_CLASSIFY_BATTERY_MAX_INTERVAL_SEC");
}

std::optional<bool> isOnBattery(const PowerSnapshot& snapshot) {
    if (snapshot.liveSource) return *snapshot.liveSource == PowerSource::battery;
    if (snapshot.isPluggedIn) return !*snapshot.isPluggedIn;
    return std::nullopt;
}

bool mustSkip(const PowerSnapshot& snapshot, const Environment& environment) {
    return isRequiredByEnvironment(environment) && isOnBattery(snapshot).value_or(false);
}

ClassifierCadence::Config effectiveConfig(ClassifierCadence::Config config, bool onBattery,
                                          const Environment& environment) {
    if (!onBattery) return config;
    if (const auto floor = batteryFloorSec(environment); floor && *floor > config.floorSec) {
        config.floorSec = *floor;
        config.ceilingSec = std::max(config.ceilingSec, *floor);
        config.onTaskCeilingSec = std::min(std::max(config.onTaskCeilingSec, *floor), config.ceilingSec);
    }
    if (const auto ceiling = batteryCeilingSec(environment); ceiling && *ceiling > config.ceilingSec) {
        config.ceilingSec = *ceiling;
    }
    return config;
}

std::optional<std::string> healthNote(const ClassifierCadence::State& state) {
    if (!state.pausedForPower) return std::nullopt;
    return "On battery — set to run only when plugged in";
}

}  // namespace aimwise::ClassifierPowerPolicy
