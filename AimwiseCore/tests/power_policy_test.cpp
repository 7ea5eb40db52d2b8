#include "AimwiseCore/classifier/power_policy.h"

#include <gtest/gtest.h>

#include "AimwiseCore/classifier/battery_settings.h"

namespace aimwise {
namespace {

using namespace ClassifierPowerPolicy;
using ClassifierCadence::Config;

TEST(PowerPolicy, RequiringACReadsCommonWaysOfSayingNo) {
    for (const char* no : {"0", "false", "OFF", "No", ""})
        EXPECT_FALSE(isRequiredByEnvironment({{"AIMCAP_CLASSIFY_REQUIRE_AC", no}})) << no;
    for (const char* yes : {"1", "true", "yes", "anything"})
        EXPECT_TRUE(isRequiredByEnvironment({{"AIMCAP_CLASSIFY_REQUIRE_AC", yes}})) << yes;
    EXPECT_FALSE(isRequiredByEnvironment({}));
}

TEST(PowerPolicy, OnlyTicksWithAPowerSettingReadThePowerState) {
    EXPECT_FALSE(needsLiveReading({{"AIMCAP_CLASSIFY_MIN_INTERVAL_SEC", "90"}}));
    EXPECT_TRUE(needsLiveReading({{"AIMCAP_CLASSIFY_REQUIRE_AC", "0"}}));
    EXPECT_TRUE(needsLiveReading({{"AIMCAP_CLASSIFY_BATTERY_MIN_INTERVAL_SEC", "x"}}));
    EXPECT_TRUE(needsLiveReading({{"AIMCAP_CLASSIFY_BATTERY_MAX_INTERVAL_SEC", "600"}}));
    EXPECT_EQ(batteryFloorSec({{"AIMCAP_CLASSIFY_BATTERY_MIN_INTERVAL_SEC", " 120 "}}), 120);
    EXPECT_FALSE(batteryFloorSec({{"AIMCAP_CLASSIFY_BATTERY_MIN_INTERVAL_SEC", "0"}}));
    EXPECT_FALSE(batteryCeilingSec({{"AIMCAP_CLASSIFY_BATTERY_MAX_INTERVAL_SEC", "-5"}}));
}

TEST(PowerPolicy, SkipsOnBatteryFromTheLiveSourceThenTheACFlag) {
    const Environment required = {{"AIMCAP_CLASSIFY_REQUIRE_AC", "1"}};
    EXPECT_TRUE(mustSkip({PowerSource::battery, true}, required)) << "the live source wins over the flag";
    EXPECT_FALSE(mustSkip({PowerSource::ac, false}, required));
    EXPECT_TRUE(mustSkip({std::nullopt, false}, required));
    EXPECT_FALSE(mustSkip({std::nullopt, true}, required));
    EXPECT_FALSE(mustSkip({std::nullopt, std::nullopt}, required)) << "unknown power never silences";
    EXPECT_FALSE(mustSkip({PowerSource::battery, false}, {}));
}

TEST(PowerPolicy, EffectiveConfigRaisesTheFloorAndCapsTheOnTaskCeiling) {
    const auto raisedPastCeiling =
        effectiveConfig({}, true, {{"AIMCAP_CLASSIFY_BATTERY_MIN_INTERVAL_SEC", "400"}});
    EXPECT_EQ(raisedPastCeiling.floorSec, 400);
    EXPECT_EQ(raisedPastCeiling.ceilingSec, 400);
    EXPECT_EQ(raisedPastCeiling.onTaskCeilingSec, 400);

    const auto ceilingOnly = effectiveConfig({}, true, {{"AIMCAP_CLASSIFY_BATTERY_MAX_INTERVAL_SEC", "600"}});
    EXPECT_EQ(ceilingOnly.floorSec, 60);
    EXPECT_EQ(ceilingOnly.ceilingSec, 600);
    EXPECT_EQ(ceilingOnly.onTaskCeilingSec, 120) << "the on-task ceiling is left where it was";
}

TEST(PowerPolicy, HealthNoteOnlyWhilePausedForPower) {
    ClassifierCadence::State state;
    EXPECT_FALSE(healthNote(state));
    state.pausedForPower = true;
    EXPECT_EQ(healthNote(state), "On battery — set to run only when plugged in");
}

using namespace ClassifierBatterySettings;

TEST(BatterySettings, MinutesRoundToTheNearestWholeMinuteAndNeverToZero) {
    EXPECT_EQ(nearestMinutes(0), 1);
    EXPECT_EQ(nearestMinutes(29), 1);
    EXPECT_EQ(nearestMinutes(89), 1);
    EXPECT_EQ(nearestMinutes(90), 2);
    EXPECT_EQ(nearestMinutes(300), 5);
    EXPECT_EQ(positiveInt(" 7 "), 7);
    EXPECT_FALSE(positiveInt("0"));
    EXPECT_FALSE(positiveInt("7m"));
}

TEST(BatterySettings, ReadsEachModeFromTheEnvironment) {
    EXPECT_EQ(read({}), (Values{CheckNormally{}, 1, 5}));
    EXPECT_EQ(read({{"AIMCAP_CLASSIFY_REQUIRE_AC", "yes"}, {"AIMCAP_CLASSIFY_BATTERY_MIN_INTERVAL_SEC", "600"}}).onBattery,
              OnBatteryMode(PauseOnBattery{}));
    EXPECT_EQ(read({{"AIMCAP_CLASSIFY_BATTERY_MIN_INTERVAL_SEC", "150"}}).onBattery,
              OnBatteryMode(CheckLessOften{3, 5}));
    EXPECT_EQ(read({{"AIMCAP_CLASSIFY_MIN_INTERVAL_SEC", "120"}, {"AIMCAP_CLASSIFY_MAX_INTERVAL_SEC", "900"}}),
              (Values{CheckNormally{}, 2, 15}));
}

TEST(BatterySettings, UpdatesRoundTripThroughTheEnvironment) {
    const std::vector<Values> cases = {
        {CheckNormally{}, 1, 5},       {PauseOnBattery{}, 2, 10},     {CheckLessOften{5, 20}, 1, 5},
        {CheckLessOften{10, 10}, 3, 3}, {CheckNormally{}, 8, 8},        {CheckLessOften{2, 30}, 1, 12},
    };
    for (const auto& values : cases) {
        const Environment written = applying(envUpdates(values), {{"AIMCAP_CLASSIFY_REQUIRE_AC", "1"}, {"OTHER", "kept"}});
        EXPECT_EQ(read(written), values);
        EXPECT_EQ(written.at("OTHER"), "kept");
    }
    // The defaults are left unwritten so that a later default reaches the user.
    const auto defaults = applying(envUpdates(Values{}), {});
    EXPECT_TRUE(defaults.empty());

    const Config battery = effectiveOnBatteryConfig(Values{CheckLessOften{3, 15}, 1, 5});
    EXPECT_EQ(battery.floorSec, 180);
    EXPECT_EQ(battery.ceilingSec, 900);
    EXPECT_EQ(effectiveOnBatteryConfig(Values{PauseOnBattery{}, 2, 10}).ceilingSec, 600);
}

}  // namespace
}  // namespace aimwise
