#pragma once
// Something the person told the coach about how it behaves ("don't ask what my first step is"),
// one line of coach-corrections.jsonl:
//   {"at_ms": 1763800000000, "text": "...", "scope": "whether_to_speak" | "what_to_say",
//    "ends_at_ms": 1763810800000, "folded_at_ms": 1763850000000}
// `scope` absent means both; `ends_at_ms` absent means until changed; `folded_at_ms` is set once the
// nightly pass has carried the correction into the standing memory.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace aimwise {

struct CoachCorrection {
    enum class Scope { whetherToSpeak, whatToSay };

    int64_t atMs = 0;
    std::string text;
    std::optional<Scope> scope;
    std::optional<int64_t> endsAtMs;
    std::optional<int64_t> foldedAtMs;

    bool isInForce(int64_t nowMs) const { return atMs <= nowMs && (!endsAtMs || nowMs < *endsAtMs); }
    static std::optional<Scope> scopeFromRaw(std::string_view raw);
    // A line without `at_ms` or a non-empty `text`, or with a key of the wrong type, gives nothing.
    static std::optional<CoachCorrection> decode(std::string_view line);
    bool operator==(const CoachCorrection&) const = default;
};

namespace CoachCorrections {
std::filesystem::path defaultURL(const std::filesystem::path& dataRoot);
// Every line that decodes, in file order; a missing or unreadable file gives none.
std::vector<CoachCorrection> read(const std::filesystem::path& url);
}  // namespace CoachCorrections

}  // namespace aimwise
