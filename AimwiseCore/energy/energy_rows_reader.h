#pragma once
// Reads the energy files of a data root for a report. The files only grow, so they are read from the
// end backwards and the reading stops once it is well past the period: a year of skips costs no more
// than a fortnight.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "AimwiseCore/energy/energy_row.h"

namespace aimwise::EnergyRowsReader {

// Rows are appended in the order they are made, give or take a clock that was set back. Reading
// stops after this many rows in a row that are older than the period by more than a day.
inline constexpr int stopAfterOlderRows = 256;
inline constexpr int64_t disorderMarginMs = 86'400'000;

struct Result {
    int64_t unreadableLines = 0;
    // "<file name>: <reason>" for a file that exists but could not be read.
    std::vector<std::string> unreadableFiles;
};

// Calls `visit` with every row made in [sinceMs, untilMs] from the four energy files, newest lines
// of each file first, but in no order to rely on. Nothing for a missing root.
Result read(const std::filesystem::path& dataRoot, int64_t sinceMs, int64_t untilMs,
            const std::function<void(const EnergyRow&)>& visit);

}  // namespace aimwise::EnergyRowsReader
