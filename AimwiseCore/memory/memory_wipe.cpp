#include "AimwiseCore/memory/memory_wipe.h"

#include <algorithm>
#include <cmath>

#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/events/jsonl_append.h"
#include "CaptureShared/common/atomic_file.h"

namespace aimwise {

namespace MemoryWipeLog {

std::filesystem::path defaultURL(const std::filesystem::path& dataRoot) { return dataRoot / "memory-wipes.jsonl"; }

void request(int64_t atMs, const std::filesystem::path& to) { JSONLAppend::append({{"at_ms", atMs}}, to); }

std::optional<int64_t> latestAtMs(const std::filesystem::path& url) {
    std::string data;
    try {
        data = readWholeFile(url);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    std::optional<int64_t> latest;
    forEachLine(data, [&](std::string_view line) {
        const auto parsed = JSONValue::tryParse(line);
        const JSONValue* at = parsed ? parsed->member("at_ms") : nullptr;
        const double* number = at ? at->numberIfAny() : nullptr;
        if (!number || !std::isfinite(*number) || std::fabs(*number) > 9.0e18) return;
        const auto value = static_cast<int64_t>(*number);
        if (!latest || value > *latest) latest = value;
    });
    return latest;
}

}  // namespace MemoryWipeLog

namespace MemoryWipeFilter {

std::optional<StandingMemory> standingMemory(std::optional<StandingMemory> memory, std::optional<int64_t> wipeAtMs) {
    if (memory && wipeAtMs && memory->regeneratedAtTsMs < *wipeAtMs) return std::nullopt;
    return memory;
}

std::vector<PeriodDigest> digests(std::vector<PeriodDigest> digests, std::optional<int64_t> wipeAtMs) {
    if (wipeAtMs)
        std::erase_if(digests, [&](const PeriodDigest& digest) { return digest.periodStartTsMs < *wipeAtMs; });
    return digests;
}

std::vector<CoachCorrection> corrections(std::vector<CoachCorrection> corrections, std::optional<int64_t> wipeAtMs) {
    if (wipeAtMs)
        std::erase_if(corrections, [&](const CoachCorrection& correction) { return correction.atMs < *wipeAtMs; });
    return corrections;
}

}  // namespace MemoryWipeFilter

}  // namespace aimwise
