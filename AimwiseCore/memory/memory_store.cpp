#include "AimwiseCore/memory/memory_store.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cerrno>
#include <string>
#include <system_error>

#include "CaptureShared/common/atomic_file.h"

namespace aimwise {

MemoryStoreError::MemoryStoreError(DigestAlreadyExists value)
    : Error("a period digest for the period starting at " + std::to_string(value.periodStartTsMs) +
            " already exists; a digest is written once and never changed, so the one on disk was kept"),
      value_(value) {}

MemoryStoreError MemoryStoreError::digestAlreadyExists(int64_t periodStartTsMs) {
    return MemoryStoreError(DigestAlreadyExists{periodStartTsMs});
}

namespace MemoryStore {

namespace fs = std::filesystem;

namespace {

std::optional<std::string> contents(const fs::path& path) {
    try {
        return readWholeFile(path);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

void writeReplacing(const fs::path& path, const JSONValue& value) {
    fs::create_directories(path.parent_path());
    writeFileAtomically(path, value.serialized());
}

}  // namespace

fs::path memoryDirectory(const fs::path& dataRoot) { return dataRoot / "memory"; }
fs::path digestsDirectory(const fs::path& dataRoot) { return memoryDirectory(dataRoot) / "period-digests"; }
fs::path digestPath(const fs::path& dataRoot, int64_t periodStartTsMs) {
    return digestsDirectory(dataRoot) / (std::to_string(periodStartTsMs) + ".json");
}
fs::path standingMemoryPath(const fs::path& dataRoot) { return memoryDirectory(dataRoot) / "standing-memory.json"; }
fs::path sequentialStatePath(const fs::path& dataRoot) {
    return memoryDirectory(dataRoot) / "standing-memory.sequential.json";
}

StandingMemoryRead inspectStandingMemory(const fs::path& dataRoot) {
    std::error_code error;
    if (!fs::exists(standingMemoryPath(dataRoot), error)) return {};
    const auto text = contents(standingMemoryPath(dataRoot));
    auto memory = text ? MemoryJSON::decodeStandingMemory(*text) : std::nullopt;
    if (!memory) return {FileState::undecodable, std::nullopt};
    return {FileState::decoded, std::move(memory)};
}

std::optional<StandingMemory> readStandingMemory(const fs::path& dataRoot) {
    return inspectStandingMemory(dataRoot).memory;
}

std::optional<SequentialMemoryState> readSequentialMemoryState(const fs::path& dataRoot) {
    const auto text = contents(sequentialStatePath(dataRoot));
    return text ? MemoryJSON::decodeSequentialState(*text) : std::nullopt;
}

std::vector<PeriodDigest> readAllDigests(const fs::path& dataRoot) {
    std::vector<PeriodDigest> digests;
    std::error_code error;
    for (fs::directory_iterator it(digestsDirectory(dataRoot), error), end; !error && it != end;
         it.increment(error)) {
        if (it->path().extension() != ".json") continue;
        const auto text = contents(it->path());
        if (auto digest = text ? MemoryJSON::decodeDigest(*text) : std::nullopt) digests.push_back(std::move(*digest));
    }
    std::stable_sort(digests.begin(), digests.end(), [](const PeriodDigest& a, const PeriodDigest& b) {
        return a.periodStartTsMs < b.periodStartTsMs;
    });
    return digests;
}

std::set<int64_t> digestStartsOnDisk(const fs::path& dataRoot) {
    std::set<int64_t> starts;
    std::error_code error;
    for (fs::directory_iterator it(digestsDirectory(dataRoot), error), end; !error && it != end; it.increment(error)) {
        if (it->path().extension() != ".json") continue;
        const std::string stem = it->path().stem().string();
        int64_t start = 0;
        const auto [ptr, parsed] = std::from_chars(stem.data(), stem.data() + stem.size(), start);
        if (parsed == std::errc() && ptr == stem.data() + stem.size()) starts.insert(start);
    }
    return starts;
}

void writeDigest(const PeriodDigest& digest, const fs::path& dataRoot) {
    fs::create_directories(digestsDirectory(dataRoot));
    const fs::path path = digestPath(dataRoot, digest.periodStartTsMs);
    std::error_code error;
    if (fs::exists(path, error)) throw MemoryStoreError::digestAlreadyExists(digest.periodStartTsMs);
    // Written whole beside it, then linked into place: a link never replaces a file, so even a writer
    // that raced past the check above cannot overwrite a digest.
    const fs::path pending = path.parent_path() / ("." + path.filename().string() + ".pending-" +
                                                   std::to_string(::getpid()));
    writeFileAtomically(pending, MemoryJSON::encode(digest).serialized());
    const int linked = ::link(pending.c_str(), path.c_str());
    const int saved = errno;
    ::unlink(pending.c_str());
    if (linked == 0) return;
    if (saved == EEXIST) throw MemoryStoreError::digestAlreadyExists(digest.periodStartTsMs);
    throw fs::filesystem_error("could not write the period digest", path, std::error_code(saved, std::generic_category()));
}

void writeStandingMemory(const StandingMemory& memory, const fs::path& dataRoot) {
    writeReplacing(standingMemoryPath(dataRoot), MemoryJSON::encode(memory));
}

void writeSequentialMemoryState(const SequentialMemoryState& state, const fs::path& dataRoot) {
    writeReplacing(sequentialStatePath(dataRoot), MemoryJSON::encode(state));
}

}  // namespace MemoryStore

}  // namespace aimwise
