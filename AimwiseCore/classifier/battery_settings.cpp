#include "AimwiseCore/classifier/battery_settings.h"

#include <algorithm>

#include "AimwiseCore/classifier/power_policy.h"

namespace aimwise::ClassifierBatterySettings {

namespace {

constexpr const char* minKey = "AIMCAP_CLASSIFY_MIN_INTERVAL_SEC";
constexpr const char* maxKey = "AIMCAP_CLASSIFY_MAX_INTERVAL_SEC";
constexpr const char* requireACKey = "AIMCAP_CLASSIFY_REQUIRE_AC";
constexpr const char* batteryMinKey = "AIMCAP_CLASSIFY_BATTERY_MIN_INTERVAL_SEC";
constexpr const char* batteryMaxKey = "AIMCAP_CLASSIFY_BATTERY_MAX_INTERVAL_SEC";

std::optional<std::string> secondsUnlessDefault(int minutes, int defaultSec) {
    const int seconds = std::max(1, minutes) * 60;
    if (seconds == defaultSec) return std::nullopt;
    return std::to_string(seconds);
}

}  // namespace

int nearestMinutes(int seconds) { return std::max(1, (std::max(0, seconds) + 30) / 60); }

std::optional<int> positiveInt(std::string_view text) {
    const auto value = ClassifierCadence::parseInteger(text);
    if (!value || *value <= 0 || *value > INT32_MAX) return std::nullopt;
    return static_cast<int>(*value);
}

Values read(const Environment& environment) {
    const auto plugged = ClassifierCadence::Config::fromEnvironment(environment);
    Values values;
    values.pluggedInFloorMinutes = nearestMinutes(plugged.floorSec);
    values.pluggedInCeilingMinutes = std::max(values.pluggedInFloorMinutes, nearestMinutes(plugged.ceilingSec));
    if (ClassifierPowerPolicy::isRequiredByEnvironment(environment)) {
        values.onBattery = PauseOnBattery{};
    } else if (ClassifierPowerPolicy::batteryFloorSec(environment) ||
               ClassifierPowerPolicy::batteryCeilingSec(environment)) {
        const auto battery = ClassifierPowerPolicy::effectiveConfig(plugged, true, environment);
        const int floor = nearestMinutes(battery.floorSec);
        values.onBattery = CheckLessOften{floor, std::max(floor, nearestMinutes(battery.ceilingSec))};
    }
    return values;
}

std::map<std::string, std::optional<std::string>> envUpdates(const Values& values) {
    const ClassifierCadence::Config defaults;
    const int floorMinutes = std::max(1, values.pluggedInFloorMinutes);
    const int ceilingMinutes = std::max(floorMinutes, values.pluggedInCeilingMinutes);
    std::map<std::string, std::optional<std::string>> updates;
    updates[minKey] = secondsUnlessDefault(floorMinutes, defaults.floorSec);
    updates[maxKey] = secondsUnlessDefault(ceilingMinutes, std::max(defaults.ceilingSec, floorMinutes * 60));
    updates[requireACKey] = std::nullopt;
    updates[batteryMinKey] = std::nullopt;
    updates[batteryMaxKey] = std::nullopt;
    if (std::holds_alternative<PauseOnBattery>(values.onBattery)) {
        updates[requireACKey] = "1";
    } else if (const auto* less = std::get_if<CheckLessOften>(&values.onBattery)) {
        const int floor = std::max(1, less->floorMinutes);
        updates[batteryMinKey] = std::to_string(floor * 60);
        updates[batteryMaxKey] = std::to_string(std::max(floor, less->ceilingMinutes) * 60);
    }
    return updates;
}

Environment applying(const std::map<std::string, std::optional<std::string>>& updates, Environment environment) {
    for (const auto& [key, value] : updates) {
        if (value)
            environment[key] = *value;
        else
            environment.erase(key);
    }
    return environment;
}

ClassifierCadence::Config effectiveOnBatteryConfig(const Values& values) {
    const Environment environment = applying(envUpdates(values), {});
    return ClassifierPowerPolicy::effectiveConfig(ClassifierCadence::Config::fromEnvironment(environment), true,
                                                  environment);
}

}  // namespace aimwise::ClassifierBatterySettings
