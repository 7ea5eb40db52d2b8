#pragma once
// The tick's energy rows. classifier-tick-energy.jsonl gets one row per judged tick, with the
// battery's counters before and after the judgment; classifier-skip-energy.jsonl one short row per
// tick that chose not to judge, so that skips are counted exactly. A skip is over before a battery
// counter can move, so only one in `skipSampleEvery` skips reads the battery, for the report's
// picture of the battery between judgments; every skip records its own times.
#include <cstdint>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>

#include "AimwiseCore/energy/battery_telemetry.h"
#include "AimwiseCore/energy/energy_meter.h"
#include "platform/power_source.h"

namespace aimwise::ClassifierTickEnergyLog {

inline constexpr const char* fileName = "classifier-tick-energy.jsonl";
inline constexpr int skipSampleEvery = 10;

struct Row {
    int64_t atMs = 0;
    int64_t startMs = 0;
    int64_t endMs = 0;
    std::string model;
    // Left out of the row when there is no battery to read.
    std::optional<PowerSource::BatteryReading> before;
    std::optional<PowerSource::BatteryReading> after;
};

EnergyRow energyRow(const Row& row);
JSONValue::Object encode(const Row& row);
// Throws JSONLAppend::AppendError or std::filesystem::filesystem_error.
void append(const Row& row, const std::filesystem::path& to);

// Made where a tick starts. A tick that passes through judged() writes the judged row; one that
// returns without it was a skip, whose row is written as the run goes out of scope. A tick that
// ends through exit (a failure, the watchdog) or an exception writes nothing.
class Run {
  public:
    // The probe's battery is read around the judgment by the tick itself; the run reads it only for
    // a sampled skip. Its power supply is not read: the battery's status says whether it was on AC.
    explicit Run(const std::filesystem::path& dataRoot, EnergyProbe probe = EnergyProbe{},
                 const Clock& clock = Clock::system());
    ~Run();
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    // Writes the judged row: the tick's readings around the judgment, with the run's times. Throws
    // as append() does.
    EnergyRow judged(const Row& row);

  private:
    std::filesystem::path dataRoot_;
    EnergyMeter meter_;
    int uncaughtAtStart_ = std::uncaught_exceptions();
    bool written_ = false;
};

}  // namespace aimwise::ClassifierTickEnergyLog
