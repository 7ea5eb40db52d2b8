#pragma once
// The tables of signals.sqlite as the capture agents create them.
#include <array>
#include <string_view>

namespace aimwise {

class SQLiteDB;

namespace Schema {

extern const char* const createTicks;
extern const char* const createWindows;
extern const char* const createEvents;

struct Column {
    std::string_view name;
    std::string_view type;
};

// Added to `ticks` after its first release, so older files lack them until ensured.
inline constexpr std::array<Column, 7> batteryTelemetryColumns{{
    {"battery_voltage_mv", "INTEGER"},
    {"battery_instant_amperage_ma", "INTEGER"},
    {"battery_update_time_s", "INTEGER"},
    {"battery_accumulated_system_load", "INTEGER"},
    {"battery_system_load_accumulator_count", "INTEGER"},
    {"battery_system_power_in_mw", "INTEGER"},
    {"battery_full_charge_capacity_mah", "INTEGER"},
}};

// The three tables in the order ticks, windows, events, then the telemetry columns.
void createAll(SQLiteDB& db);
// Adds whichever telemetry column is missing; safe on every start.
void ensureBatteryTelemetryColumns(SQLiteDB& db);

}  // namespace Schema
}  // namespace aimwise
