#pragma once
// A person's request to forget is honoured by filtering on read, never by rewriting history: the wipe
// log records when they asked, and every reader drops what was made before it, so nothing wiped can
// flow back into a new memory.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

#include "AimwiseCore/coach/coach_correction.h"
#include "AimwiseCore/memory/memory_records.h"

namespace aimwise {

namespace MemoryWipeLog {
std::filesystem::path defaultURL(const std::filesystem::path& dataRoot);
// Appends {"at_ms": atMs}. Throws JSONLAppend::AppendError or std::filesystem::filesystem_error.
void request(int64_t atMs, const std::filesystem::path& to);
// The latest request; lines that do not parse are skipped, so a damaged line hides none after it.
std::optional<int64_t> latestAtMs(const std::filesystem::path& url);
}  // namespace MemoryWipeLog

// Without a wipe every filter passes its input through. A record made exactly at the wipe stands.
namespace MemoryWipeFilter {
std::optional<StandingMemory> standingMemory(std::optional<StandingMemory> memory, std::optional<int64_t> wipeAtMs);
std::vector<PeriodDigest> digests(std::vector<PeriodDigest> digests, std::optional<int64_t> wipeAtMs);
std::vector<CoachCorrection> corrections(std::vector<CoachCorrection> corrections, std::optional<int64_t> wipeAtMs);
}  // namespace MemoryWipeFilter

}  // namespace aimwise
