#include "platform/power_source.h"

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::writeFile;

// A sysfs-shaped directory: one folder per supply, one file per attribute.
class PowerSourceTest : public ::testing::Test {
  protected:
    void supply(const std::string& name, const std::map<std::string, std::string>& attributes) {
        for (const auto& [key, value] : attributes) writeFile(dir / name / key, value + "\n");
    }
    testing::TempDir dir;
};

TEST_F(PowerSourceTest, NoSuppliesIsUnknownAndNoBattery) {
    EXPECT_EQ(PowerSource::read(dir.path()), PowerSource::Snapshot{});
    EXPECT_EQ(PowerSource::read(dir / "missing"), PowerSource::Snapshot{});
    EXPECT_FALSE(PowerSource::readBattery(dir.path()));
}

TEST_F(PowerSourceTest, ADischargingBatteryIsOnBatteryAndACChargingOneIsNot) {
    supply("AC", {{"type", "Mains"}, {"online", "0"}});
    supply("BAT0", {{"type", "Battery"}, {"status", "Discharging"}});
    EXPECT_EQ(PowerSource::read(dir.path()), (PowerSource::Snapshot{true, false}));

    supply("AC", {{"type", "Mains"}, {"online", "1"}});
    supply("BAT0", {{"type", "Battery"}, {"status", "Charging"}});
    EXPECT_EQ(PowerSource::read(dir.path()), (PowerSource::Snapshot{false, true}));
}

TEST_F(PowerSourceTest, BatteryCountersAreConvertedAndAbsentOnesStayAbsent) {
    supply("AC", {{"type", "Mains"}, {"online", "1"}});
    supply("BAT1", {{"type", "Battery"},
                    {"status", "Full"},
                    {"voltage_now", "12345678"},
                    {"current_now", "1500000"},
                    {"charge_now", "4000000"},
                    {"charge_full", "5000000"},
                    {"capacity", "80"},
                    {"power_now", "garbage"}});
    const auto reading = PowerSource::readBattery(dir.path());
    ASSERT_TRUE(reading);
    PowerSource::BatteryReading expected;
    expected.status = "Full";
    expected.voltageMv = 12345;
    expected.currentMa = 1500;
    expected.chargeMah = 4000;
    expected.chargeFullMah = 5000;
    expected.capacityPercent = 80;
    EXPECT_EQ(*reading, expected);
}

// The capture agent's columns over the same readings.
TEST_F(PowerSourceTest, TickColumnsALaptopBatteryAndItsChargerFillEveryColumnTheyCan) {
    supply("AC", {{"type", "Mains"}, {"online", "0"}});
    supply("BAT0", {{"type", "Battery"},
                    {"status", "Discharging"},
                    {"capacity", "76"},
                    {"voltage_now", "11850000"},
                    {"current_now", "1520000"},
                    {"charge_full", "4520000"}});
    // A wireless mouse's battery is not the machine's.
    supply("hidpp_battery_0", {{"type", "Battery"}, {"scope", "Device"}, {"capacity", "5"}});
    const auto reading = PowerSource::readTickColumns(dir.path());
    EXPECT_EQ(reading, (PowerSource::TickColumns{76, false, 11850, -1520, 4520}));
}

TEST_F(PowerSourceTest, TickColumnsMissingFieldsStayEmptyAndEnergyCountersStandInForCharge) {
    supply("BAT1", {{"type", "Battery"},
                    {"status", "Charging"},
                    {"energy_now", "30000000"},
                    {"energy_full", "40000000"},
                    {"voltage_now", "10000000"}});
    const auto reading = PowerSource::readTickColumns(dir.path());
    EXPECT_EQ(reading.batteryPct, 75);
    EXPECT_EQ(reading.acPlugged, true);  // charging means plugged in when no charger reports
    EXPECT_EQ(reading.fullChargeCapacityMah, 4000);
    EXPECT_EQ(reading.instantAmperageMa, std::nullopt);
}

TEST_F(PowerSourceTest, TickColumnsADesktopHasNoBatteryAndUnreadableValuesAreNotGuessed) {
    testing::TempDir empty;
    EXPECT_EQ(PowerSource::readTickColumns(empty.path()), PowerSource::TickColumns{});
    EXPECT_EQ(PowerSource::readTickColumns(empty / "absent"), PowerSource::TickColumns{});

    supply("ucsi-source-psy-USBC000:001", {{"type", "USB"}, {"online", "1"}});
    supply("BAT0", {{"type", "Battery"}, {"capacity", "n/a"}, {"status", "Unknown"}});
    const auto reading = PowerSource::readTickColumns(dir.path());
    EXPECT_EQ(reading.batteryPct, std::nullopt);
    EXPECT_EQ(reading.acPlugged, true);
}

}  // namespace
}  // namespace aimwise
