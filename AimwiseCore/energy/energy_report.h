#pragma once
// The energy report: what the system's work cost over the local days ending at an instant, per day
// and in all, from the energy rows in the data root. It reads and never writes, so it runs as well on
// a scratch copy as on the live root.
//
// Energy comes only from the battery's own counters, and only for time spent on battery: on mains
// power the battery does not see what work costs. What the battery gave while some of the system's
// work ran is the whole machine's draw in those spans, an upper bound on the work's own share. With
// no counters at all the report says so and stands on CPU time.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/energy/energy_row.h"
#include "AimwiseCore/energy/energy_rows_reader.h"

namespace aimwise::ClassifierEnergyReport {

inline constexpr int lookBackDays = 14;
// Two battery readings further apart than this, outside any run, say nothing about the time between
// them: the machine may have slept or been plugged in.
inline constexpr int64_t maxReadingGapMs = 15 * 60'000;
// "In use" counts the five-minute spans in which any row was made.
inline constexpr int64_t useSpanMs = 5 * 60'000;
inline constexpr size_t expensiveRunsShown = 5;

struct Day {
    int64_t startMs = 0;
    int64_t endMs = 0;  // exclusive
    std::string label;  // "Wed 01 May"
};

// The `count` local calendar days ending with the one that holds `nowMs`, in the process's time
// zone; the last one ends just after `nowMs`.
std::vector<Day> localDays(int64_t nowMs, int count);

struct Figures {
    int64_t judged = 0, skipped = 0, turns = 0, gates = 0, passes = 0;
    // Per judged check: energy only for checks on battery with comparable readings.
    std::vector<double> checkEnergyMwh;
    std::vector<double> checkTimeMs;
    std::vector<double> checkCpuMs;
    int64_t checksOnAC = 0;
    // What the battery gave while any work ran.
    double workMwh = 0;
    bool workMeasured = false;
    int64_t cpuMs = 0;
    bool cpuMeasured = false;

    bool empty() const { return judged + skipped + turns + gates + passes == 0; }
};

struct CostlyRun {
    EnergyRow row;
    std::optional<double> energyMwh;
    std::optional<int64_t> timeMs;
    std::optional<int64_t> cpuMs;
};

enum class Counters { present, onACOnly, none };

struct Report {
    std::vector<Day> days;
    int64_t nowMs = 0;
    std::vector<Figures> perDay;
    Figures total;
    Counters counters = Counters::none;

    int64_t useMs = 0;
    int64_t onBatteryMs = 0;
    double batteryGaveMwh = 0;
    std::optional<double> fullBatteryMwh;

    std::vector<CostlyRun> costliest;
    bool costliestByEnergy = false;

    // What the footnotes count.
    int64_t unreadableLines = 0;
    std::vector<std::string> unreadableFiles;
    int64_t runsWithMismatchedReadings = 0;
    int64_t batteryChanges = 0;
    int64_t counterJumps = 0;
    int64_t runsWithClockJump = 0;
};

// The middle value, or the mean of the two middle ones.
std::optional<double> median(std::vector<double> values);

// Folds rows into a report one at a time, in any order, so that a fortnight of rows is never held
// in memory. Rows outside the days are left out.
class ReportBuilder {
  public:
    ReportBuilder(std::vector<Day> days, int64_t nowMs);
    ~ReportBuilder();
    ReportBuilder(const ReportBuilder&) = delete;
    ReportBuilder& operator=(const ReportBuilder&) = delete;

    void add(const EnergyRow& row);
    Report finish(const EnergyRowsReader::Result& reading);

  private:
    struct State;
    std::unique_ptr<State> state_;
};
std::string render(const Report& report, const std::filesystem::path& dataRoot, bool dataRootExists);

// The report as the verb prints it.
std::string live(const std::filesystem::path& dataRoot, int64_t nowMs, int days = lookBackDays);

}  // namespace aimwise::ClassifierEnergyReport
