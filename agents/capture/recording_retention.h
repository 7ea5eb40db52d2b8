#pragma once
// How long recordings stay, and how much disk they may leave free. Only files the recorder itself
// named and sealed are ever deleted: whatever else sits in the video folders stays.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace aimwise::RecordingRetention {

// "rec-20261118T110640Z.ts.sealed" for a file started then (UTC), with "-2", "-3" ... for the
// `attempt`th name when the first is taken.
std::string fileName(int64_t startMs, int attempt = 1);
bool isRecorderName(std::string_view name);

struct Sweep {
    int filesDeleted = 0;
    uint64_t bytesFreed = 0;
    std::vector<std::string> failures;
};
// In every display-N folder of `videoDir`: deletes the recorder's sealed files last written more than
// `keepDays` days before `nowMs`, and drops from frame_timestamps.csv the rows of files that are gone
// and the pause rows that old.
Sweep sweep(const std::filesystem::path& videoDir, int64_t nowMs, int keepDays);

// Free bytes for an unprivileged writer on the disk holding `path`.
std::optional<uint64_t> freeBytes(const std::filesystem::path& path);

}  // namespace aimwise::RecordingRetention
