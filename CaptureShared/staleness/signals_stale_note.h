#pragma once
// The note a tick leaves at a confirmed stale reading, for the application to show.
#include <cstdint>
#include <filesystem>
#include <optional>

namespace aimwise {

struct SignalsStaleNote {
    int64_t lastGoodTickAtMs = 0;
    int64_t updatedAtMs = 0;  // stored at whole seconds
    bool operator==(const SignalsStaleNote&) const = default;
};

namespace SignalsStaleNoteStore {

inline constexpr const char* fileName = "signals-stale-note.json";
// A note not refreshed for this long no longer describes the present.
inline constexpr double confirmationStaleAfterSec = 300.0;

bool isCurrent(const SignalsStaleNote& note, int64_t nowMs);
// Throws std::filesystem::filesystem_error.
void write(const SignalsStaleNote& note, const std::filesystem::path& directory);
std::optional<SignalsStaleNote> read(const std::filesystem::path& directory);
void clear(const std::filesystem::path& directory);

}  // namespace SignalsStaleNoteStore
}  // namespace aimwise
