#include "AimwiseCore/memory/dream_schedule.h"

#include <gtest/gtest.h>

#include <cmath>

#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/memory/dream_guardrails.h"
#include "AimwiseCore/memory/dream_power_policy.h"
#include "platform/thermal.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using namespace DreamGuardrails;
using DreamSchedule::Presence;

constexpr int64_t hour = 3'600'000;

TEST(DreamSchedule, PresenceComesFromTheNewestTickWhileItIsAtMostThreeMinutesOld) {
    const int64_t asOf = *ProjectionDateParsing::parseLocal("2026-03-10T10:03:00");
    const auto tick = [](const char* at, std::optional<std::string> app) {
        return ClassifierTick{.at = at, .frontmostApp = app};
    };
    const std::vector<ClassifierTick> older{tick("2026-03-10T09:59:00", "Code"),
                                            tick("2026-03-10T10:00:00", "loginwindow")};
    EXPECT_EQ(DreamSchedule::presence(older, asOf), Presence::away) << "a tick exactly 180 s old is used";
    EXPECT_EQ(
        DreamSchedule::presence({tick("2026-03-10T10:01:00", "Code"), tick("garbled", "loginwindow")}, asOf),
        Presence::present);
    EXPECT_EQ(DreamSchedule::presence({tick("2026-03-10T09:59:59", "Code")}, asOf), Presence::unknown);
    EXPECT_EQ(DreamSchedule::presence({tick("2026-03-10T10:02:00", std::nullopt)}, asOf), Presence::unknown);
    EXPECT_EQ(DreamSchedule::presence({}, asOf), Presence::unknown);
}

TEST(DreamSchedule, EvaluatesWorkThenBackoffThenPresenceThenTheQuietLog) {
    const int64_t now = 100 * hour;
    const auto snapshot = [&](int64_t pending, Presence presence, std::optional<int64_t> eventAgo,
                              std::optional<int64_t> passAgo) {
        return DreamSchedule::Snapshot{pending, presence,
                                       eventAgo ? std::optional(now - *eventAgo) : std::nullopt,
                                       passAgo ? std::optional(now - *passAgo) : std::nullopt, now};
    };
    using DreamSchedule::Dream, DreamSchedule::Hold;
    const struct {
        DreamSchedule::Snapshot snapshot;
        DreamSchedule::Decision expected;
    } cases[] = {
        {snapshot(0, Presence::away, {}, {}), Hold{"no pending periods -- memory is up to date"}},
        {snapshot(2, Presence::away, {}, hour - 60'000), Hold{"last pass ended 59 min ago -- backing off"}},
        {snapshot(2, Presence::away, 0, hour), Dream{2}},
        {snapshot(1, Presence::present, 3 * hour, {}),
         Hold{"he's at the machine -- dreaming can wait for a locked screen"}},
        {snapshot(3, Presence::unknown, 2 * hour, {}), Dream{3}},
        {snapshot(3, Presence::unknown, {}, {}), Dream{3}},
        {snapshot(3, Presence::unknown, 2 * hour - 1, {}),
         Hold{"no presence signal and the log was active 119 min ago -- staying out"}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(DreamSchedule::evaluate(c.snapshot), c.expected) << c.snapshot.pendingPeriodCount;
}

TEST(DreamGuardrails, HeatBeatsEverythingThenTheMoreSevereOfThermalAndBattery) {
    const struct {
        Snapshot snapshot;
        Decision expected;
    } cases[] = {
        {{.isPluggedIn = true, .distantTempC = 45.0},
         Abort{"distant sensor 45.0°C ≥ 45°C — enclosure hot with no airflow (backpack case), unsafe to keep "
               "the machine spinning"}},
        {{.distantTempC = NAN}, Proceed{}},
        {{.batteryPercent = 30.0, .batteryDischarging = true},
         Pause{"battery 30.0% draining ≤ floor 30% — holding to protect the reserve"}},
        {{.batteryPercent = 50.0, .batteryDischarging = true},
         LowPower{"battery 50.0% draining ≤ 50% — shedding load"}},
        {{.batteryPercent = 50.1, .batteryDischarging = true}, Proceed{}},
        {{.isPluggedIn = true, .batteryPercent = 5.0, .batteryDischarging = false}, Proceed{}},
        {{.isPluggedIn = false},
         Pause{"battery draining, charge unreadable — holding to protect the reserve"}},
        {{.batteryPercent = 80.0, .batteryDischarging = true, .thermalPressure = ThermalPressure::critical},
         Pause{"OS thermal state critical — system is already throttling to essential load; holding "
               "regardless of cause"}},
        {{.batteryPercent = 20.0, .batteryDischarging = true, .thermalPressure = ThermalPressure::serious},
         Pause{"battery 20.0% draining ≤ floor 30% — holding to protect the reserve"}},
        {{.batteryPercent = 40.0, .batteryDischarging = true, .thermalPressure = ThermalPressure::serious},
         LowPower{"OS thermal state serious — system is under real thermal pressure; shedding load"}},
        {{.cpuTempC = 99, .thermalPressure = ThermalPressure::fair}, Proceed{}},
    };
    for (const auto& c : cases) EXPECT_EQ(evaluate(c.snapshot), c.expected) << reasonOf(c.expected);
    EXPECT_TRUE(isDraining({.isPluggedIn = true, .batteryDischarging = true})) << "the battery's word wins";
    EXPECT_FALSE(isDraining({}));
}

TEST(DreamPowerPolicy, RequiringACTurnsProceedAndLowPowerIntoAPauseOnBattery) {
    for (const char* off : {"0", "false", "OFF", "No", ""})
        EXPECT_FALSE(DreamPowerPolicy::isRequiredByEnvironment({{"AIMCAP_DREAM_REQUIRE_AC", off}})) << off;
    EXPECT_TRUE(DreamPowerPolicy::isRequiredByEnvironment({{"AIMCAP_DREAM_REQUIRE_AC", "maybe"}}));
    const Environment required{{"AIMCAP_DREAM_REQUIRE_AC", "1"}};
    const Pause deferred{
        "on battery -- consolidation deferred until AC power returns (AIMCAP_DREAM_REQUIRE_AC)"};
    EXPECT_EQ(DreamPowerPolicy::checkpoint({.batteryPercent = 90, .batteryDischarging = true}, required),
              Decision{deferred});
    EXPECT_EQ(DreamPowerPolicy::checkpoint({.batteryPercent = 45, .batteryDischarging = true}, required),
              Decision{deferred});
    EXPECT_EQ(DreamPowerPolicy::checkpoint({.batteryPercent = 10, .batteryDischarging = true}, required),
              evaluate({.batteryPercent = 10, .batteryDischarging = true}))
        << "a pause of the guardrails' own keeps its reason";
    EXPECT_EQ(DreamPowerPolicy::checkpoint({.isPluggedIn = true}, required), Decision{Proceed{}});
    EXPECT_EQ(DreamPowerPolicy::decision({.batteryPercent = 90, .batteryDischarging = true}, {}),
              std::nullopt);
}

TEST(Thermal, PressureFollowsHowCloseTheZoneIsToItsTrips) {
    const auto zone = [](double t, std::optional<double> passive, std::optional<double> hot,
                         std::optional<double> critical) {
        return Thermal::Zone{"acpitz", t, passive, hot, critical};
    };
    using enum ThermalPressure;
    EXPECT_EQ(Thermal::pressureOf(zone(79.9, 90, {}, 110)), nominal);
    EXPECT_EQ(Thermal::pressureOf(zone(80, 90, {}, 110)), fair);
    EXPECT_EQ(Thermal::pressureOf(zone(90, 90, {}, 110)), serious);
    EXPECT_EQ(Thermal::pressureOf(zone(100, 90, {}, 110)), critical) << "halfway from passive to critical";
    EXPECT_EQ(Thermal::pressureOf(zone(95, 90, 95, 110)), critical) << "the hot trip";
    EXPECT_EQ(Thermal::pressureOf(zone(80, {}, {}, 100)), serious)
        << "passive stands in 20 °C below critical";
    EXPECT_EQ(Thermal::pressureOf(zone(80, {}, {}, {})), std::nullopt);
}

TEST(Thermal, LiveSnapshotReadsSysfsAndLeavesWhatItCannotReadAbsent) {
    testing::TempDir power, thermal;
    const auto write = [](const std::filesystem::path& dir, std::map<std::string, std::string> files) {
        for (const auto& [name, value] : files) testing::writeFile(dir / name, value + "\n");
    };
    write(power.path(), {{"AC/type", "Mains"},
                         {"AC/online", "0"},
                         {"BAT0/type", "Battery"},
                         {"BAT0/status", "Discharging"},
                         {"BAT0/energy_now", "18000000"},
                         {"BAT0/energy_full", "40000000"}});
    write(thermal.path(), {{"thermal_zone0/type", "acpitz"},
                           {"thermal_zone0/temp", "50000"},
                           {"thermal_zone0/trip_point_0_type", "critical"},
                           {"thermal_zone0/trip_point_0_temp", "105000"},
                           {"thermal_zone1/type", "x86_pkg_temp"},
                           {"thermal_zone1/temp", "92000"},
                           {"thermal_zone1/trip_point_0_type", "passive"},
                           {"thermal_zone1/trip_point_0_temp", "0"},
                           {"thermal_zone1/trip_point_1_type", "passive"},
                           {"thermal_zone1/trip_point_1_temp", "90000"},
                           {"thermal_zone2/type", "gpu-thermal"},
                           {"thermal_zone2/temp", "-274000"}});
    EXPECT_EQ(Snapshot::live(power.path(), thermal.path()),
              (Snapshot{.isPluggedIn = false,
                        .batteryPercent = 45.0,
                        .batteryDischarging = true,
                        .cpuTempC = 92.0,
                        .thermalPressure = ThermalPressure::serious}));
    EXPECT_EQ(Snapshot::live(power / "none", thermal / "none"), Snapshot{});
    // A desktop whose only battery is a wireless mouse's: that battery says nothing about the machine.
    testing::TempDir desktop;
    write(desktop.path(), {{"AC/type", "Mains"},
                           {"AC/online", "1"},
                           {"hid/type", "Battery"},
                           {"hid/scope", "Device"},
                           {"hid/status", "Discharging"},
                           {"hid/capacity", "3"}});
    EXPECT_EQ(evaluate(Snapshot::live(desktop.path(), thermal / "none")), Decision{Proceed{}});
}

}  // namespace
}  // namespace aimwise
