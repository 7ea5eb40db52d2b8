#pragma once
// What the coach remembers about the person, as stored under memory/ in the data root. A memory is a
// claim about a person, so every fact carries how it is known and which log lines it came from.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/events/json_value.h"

namespace aimwise {

enum class MemoryFactProvenance { asserted, inferred };  // they said it / concluded from a pattern
std::string_view rawValue(MemoryFactProvenance provenance);

struct MemoryFact {
    std::string text;
    MemoryFactProvenance provenance = MemoryFactProvenance::inferred;
    std::vector<int64_t> sourceEventTsMs;
    bool operator==(const MemoryFact&) const = default;
};

enum class MemoryThreadStatus { active, dormant, done, dropped };
std::string_view rawValue(MemoryThreadStatus status);

struct MemoryThread {
    std::string name;
    MemoryThreadStatus status = MemoryThreadStatus::active;
    std::string notes;
    bool operator==(const MemoryThread&) const = default;
};

struct PeriodDigest {
    int64_t periodStartTsMs = 0;  // also the file's name
    int64_t periodEndTsMs = 0;
    int64_t generatedAtTsMs = 0;
    std::string summary;
    std::vector<MemoryFact> facts;
    std::vector<std::string> lessons;
    bool salvaged = false;
    bool operator==(const PeriodDigest&) const = default;
};

struct StandingMemory {
    int64_t regeneratedAtTsMs = 0;
    int64_t digestCount = 0;
    std::vector<MemoryThread> threads;
    std::vector<std::string> lessons;
    std::vector<MemoryFact> facts;
    bool salvaged = false;
    std::optional<int64_t> seed;
    std::optional<std::string> salvageDetail;
    bool operator==(const StandingMemory&) const = default;
};

struct SequentialMemoryState {
    StandingMemory standingMemory;
    std::vector<int64_t> foldedPeriodStartsTsMs;
    bool operator==(const SequentialMemoryState&) const = default;
};

// JSON with the records' exact keys; absent optionals are left out. Decoding wants every key that is
// not optional, with its type: anything else decodes to nothing.
namespace MemoryJSON {
JSONValue encode(const MemoryFact& fact);
JSONValue encode(const MemoryThread& thread);
JSONValue encode(const PeriodDigest& digest);
JSONValue encode(const StandingMemory& memory);
JSONValue encode(const SequentialMemoryState& state);

std::optional<PeriodDigest> decodeDigest(std::string_view text);
std::optional<StandingMemory> decodeStandingMemory(std::string_view text);
std::optional<SequentialMemoryState> decodeSequentialState(std::string_view text);
}  // namespace MemoryJSON

}  // namespace aimwise
