#pragma once
// The memory files under memory/ in the data root. Readers answer nothing or empty for a missing or
// damaged file, so a damaged file costs the coach its memory for a turn and never stops it; only the
// writers throw. Writes are atomic, and a period's digest, once written, is never replaced.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <vector>

#include "AimwiseCore/memory/memory_records.h"
#include "CaptureShared/common/error.h"

namespace aimwise {

class MemoryStoreError : public Error {
public:
    struct DigestAlreadyExists {
        int64_t periodStartTsMs = 0;
    };
    static MemoryStoreError digestAlreadyExists(int64_t periodStartTsMs);
    const DigestAlreadyExists& value() const { return value_; }

private:
    explicit MemoryStoreError(DigestAlreadyExists value);
    DigestAlreadyExists value_;
};

namespace MemoryStore {

std::filesystem::path memoryDirectory(const std::filesystem::path& dataRoot);
std::filesystem::path digestsDirectory(const std::filesystem::path& dataRoot);
std::filesystem::path digestPath(const std::filesystem::path& dataRoot, int64_t periodStartTsMs);
std::filesystem::path standingMemoryPath(const std::filesystem::path& dataRoot);
std::filesystem::path sequentialStatePath(const std::filesystem::path& dataRoot);

std::optional<StandingMemory> readStandingMemory(const std::filesystem::path& dataRoot);
std::optional<SequentialMemoryState> readSequentialMemoryState(const std::filesystem::path& dataRoot);
// Sorted by period start; files that cannot be read or decoded are skipped.
std::vector<PeriodDigest> readAllDigests(const std::filesystem::path& dataRoot);
// The period starts that have a digest file, read from the names alone: a damaged digest still
// marks its period as done.
std::set<int64_t> digestStartsOnDisk(const std::filesystem::path& dataRoot);

// What a reader found, for callers that tell the person about a damaged file.
enum class FileState { absent, decoded, undecodable };
struct StandingMemoryRead {
    FileState state = FileState::absent;
    std::optional<StandingMemory> memory;
};
StandingMemoryRead inspectStandingMemory(const std::filesystem::path& dataRoot);

// Throws MemoryStoreError when the period already has a digest, std::filesystem::filesystem_error
// when the file cannot be written; the first digest then stays byte for byte.
void writeDigest(const PeriodDigest& digest, const std::filesystem::path& dataRoot);
// Throw std::filesystem::filesystem_error; the file replaced is then untouched.
void writeStandingMemory(const StandingMemory& memory, const std::filesystem::path& dataRoot);
void writeSequentialMemoryState(const SequentialMemoryState& state, const std::filesystem::path& dataRoot);

}  // namespace MemoryStore

}  // namespace aimwise
