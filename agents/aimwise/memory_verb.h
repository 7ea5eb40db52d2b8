#pragma once
// `aimwise memory`: the standing memory as a person reads it, or why there is none to read.
// `aimwise memory forget TEXT`: the person's request to forget what mentions TEXT, honoured on read.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/memory/memory_forget.h"
#include "AimwiseCore/memory/memory_store.h"

namespace aimwise::MemoryVerb {

// Threads, facts with how each is known and where it came from, lessons, and when it was made; what
// the person asked to forget is left out and counted.
std::string render(const MemoryStore::StandingMemoryRead& read, std::optional<int64_t> wipeAtMs,
                   const std::filesystem::path& file, const std::vector<MemoryForgetRequest>& forgotten = {});

// Records the request and says what it hides now. Throws what MemoryForgetLog::request throws.
std::string forget(const std::filesystem::path& dataRoot, const std::string& text, int64_t nowMs);

// Returns the exit status.
int run(const std::vector<std::string>& arguments);

}  // namespace aimwise::MemoryVerb
