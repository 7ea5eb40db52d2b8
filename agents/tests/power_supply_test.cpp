#include "agents/capture/power_supply.h"

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::TempDir;
using testing::writeFile;

void supply(const TempDir& dir, const std::string& name, const std::map<std::string, std::string>& fields) {
    for (const auto& [field, value] : fields) writeFile(dir / name / field, value + "\n");
}

TEST(PowerSupplyTest, ALaptopBatteryAndItsChargerFillEveryColumnTheyCan) {
    TempDir dir;
    supply(dir, "AC", {{"type", "Mains"}, {"online", "0"}});
    supply(dir, "BAT0", {{"type", "Battery"},
                         {"status", "Discharging"},
                         {"capacity", "76"},
                         {"voltage_now", "11850000"},
                         {"current_now", "1520000"},
                         {"charge_full", "4520000"}});
    // A wireless mouse's battery is not the machine's.
    supply(dir, "hidpp_battery_0", {{"type", "Battery"}, {"scope", "Device"}, {"capacity", "5"}});
    const auto reading = PowerSupply::read(dir.path());
    EXPECT_EQ(reading, (PowerSupply::Reading{76, false, 11850, -1520, 4520}));
}

TEST(PowerSupplyTest, MissingFieldsStayEmptyAndEnergyCountersStandInForCharge) {
    TempDir dir;
    supply(dir, "BAT1", {{"type", "Battery"},
                         {"status", "Charging"},
                         {"energy_now", "30000000"},
                         {"energy_full", "40000000"},
                         {"voltage_now", "10000000"}});
    const auto reading = PowerSupply::read(dir.path());
    EXPECT_EQ(reading.batteryPct, 75);
    EXPECT_EQ(reading.acPlugged, true);  // charging means plugged in when no charger reports
    EXPECT_EQ(reading.fullChargeCapacityMah, 4000);
    EXPECT_EQ(reading.instantAmperageMa, std::nullopt);
}

TEST(PowerSupplyTest, ADesktopHasNoBatteryAndUnreadableValuesAreNotGuessed) {
    TempDir empty;
    EXPECT_EQ(PowerSupply::read(empty.path()), PowerSupply::Reading{});
    EXPECT_EQ(PowerSupply::read(empty / "absent"), PowerSupply::Reading{});

    TempDir dir;
    supply(dir, "ucsi-source-psy-USBC000:001", {{"type", "USB"}, {"online", "1"}});
    supply(dir, "BAT0", {{"type", "Battery"}, {"capacity", "n/a"}, {"status", "Unknown"}});
    const auto reading = PowerSupply::read(dir.path());
    EXPECT_EQ(reading.batteryPct, std::nullopt);
    EXPECT_EQ(reading.acPlugged, true);
}

}  // namespace
}  // namespace aimwise
