#pragma once
// `aimwise memory`: the standing memory as a person reads it, or why there is none to read.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/memory/memory_store.h"

namespace aimwise::MemoryVerb {

// Threads, facts with how each is known and where it came from, lessons, and when it was made.
std::string render(const MemoryStore::StandingMemoryRead& read, std::optional<int64_t> wipeAtMs,
                   const std::filesystem::path& file);

// Returns the exit status.
int run(const std::vector<std::string>& arguments);

}  // namespace aimwise::MemoryVerb
