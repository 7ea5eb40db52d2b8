#pragma once
// The battery and interval limits as the user sets them (whole minutes), and their translation into
// the environment variables that the cadence and the power policy read (seconds).
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "AimwiseCore/classifier/cadence.h"
#include "CaptureShared/common/environment.h"

namespace aimwise::ClassifierBatterySettings {

struct CheckLessOften {
    int floorMinutes;
    int ceilingMinutes;
    bool operator==(const CheckLessOften&) const = default;
};
struct CheckNormally {
    bool operator==(const CheckNormally&) const = default;
};
struct PauseOnBattery {
    bool operator==(const PauseOnBattery&) const = default;
};
using OnBatteryMode = std::variant<CheckLessOften, CheckNormally, PauseOnBattery>;

struct Values {
    OnBatteryMode onBattery = CheckNormally{};
    int pluggedInFloorMinutes = 1;
    int pluggedInCeilingMinutes = 5;
    bool operator==(const Values&) const = default;
};

// Seconds to whole minutes, half a minute rounding up, never below one minute: the settings
// offer nothing shorter, and a 90-second floor shown as "1 minute" would understate it.
int nearestMinutes(int seconds);
// Trimmed decimal integer above zero.
std::optional<int> positiveInt(std::string_view text);

Values read(const Environment& environment);
// Key to new value; an absent value removes the key. Keys equal to the built-in defaults are
// removed rather than written, so that a later change of default reaches the user.
std::map<std::string, std::optional<std::string>> envUpdates(const Values& values);
Environment applying(const std::map<std::string, std::optional<std::string>>& updates, Environment environment);
// The cadence config that these values give while on battery.
ClassifierCadence::Config effectiveOnBatteryConfig(const Values& values);

}  // namespace aimwise::ClassifierBatterySettings
