#pragma once
// A person's request to forget what mentions some text ("aimwise memory forget TEXT"). Like a wipe it
// is honoured on read and never by rewriting a digest: every reader of the memory and the nightly pass
// leave out each fact, lesson and thread that mentions the text, so nothing forgotten flows back into
// a new memory. The log, memory-forget-requests.jsonl, holds one {"at_ms", "text"} object per line.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/memory/memory_records.h"

namespace aimwise {

struct MemoryForgetRequest {
    int64_t atMs = 0;
    std::string text;
    bool operator==(const MemoryForgetRequest&) const = default;
};

namespace MemoryForgetLog {
std::filesystem::path defaultURL(const std::filesystem::path& dataRoot);
// Throws JSONLAppend::AppendError or std::filesystem::filesystem_error.
void request(const MemoryForgetRequest& request, const std::filesystem::path& to);
// Lines that do not decode, or hold blank text, are skipped; a missing file gives none.
std::vector<MemoryForgetRequest> read(const std::filesystem::path& url);
}  // namespace MemoryForgetLog

// Matching ignores case (full Unicode case folding) and runs of white space.
class MemoryForgetFilter {
public:
    explicit MemoryForgetFilter(const std::vector<MemoryForgetRequest>& requests);

    bool isEmpty() const { return needles_.empty(); }
    bool mentions(std::string_view text) const;

    struct Counts {
        size_t facts = 0, lessons = 0, threads = 0;
        size_t total() const { return facts + lessons + threads; }
        bool operator==(const Counts&) const = default;
    };
    // What the filter leaves out of `memory`, without changing it.
    Counts countIn(const StandingMemory& memory) const;

    StandingMemory standingMemory(StandingMemory memory) const;
    std::optional<StandingMemory> standingMemory(std::optional<StandingMemory> memory) const;
    // A summary that mentions the text is emptied as well.
    std::vector<PeriodDigest> digests(std::vector<PeriodDigest> digests) const;

private:
    std::vector<std::u16string> needles_;
};

}  // namespace aimwise
