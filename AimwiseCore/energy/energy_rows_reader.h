#pragma once
// Reads the energy files of a data root for a report. The files only grow, so they are read from the
// end backwards and the reading stops once it is well past the period: a year of skips costs no more
// than a fortnight.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "AimwiseCore/energy/energy_row.h"

namespace aimwise::EnergyRowsReader {

// Rows are appended in the order they are made, give or take a clock that was set back. Reading
// stops after this many rows in a row that are older than the period by more than a day.
inline constexpr int stopAfterOlderRows = 256;
inline constexpr int64_t disorderMarginMs = 86'400'000;

struct Result {
    std::vector<EnergyRow> rows;  // in no particular order
    int64_t unreadableLines = 0;
    // "<file name>: <reason>" for a file that exists but could not be read.
    std::vector<std::string> unreadableFiles;
};

// Every row made in [sinceMs, untilMs] from the four energy files; nothing for a missing root.
Result read(const std::filesystem::path& dataRoot, int64_t sinceMs, int64_t untilMs);

}  // namespace aimwise::EnergyRowsReader
