#pragma once
// The moment capture was removed, so that later capture activity can be told apart from
// leftovers of the removal.
#include <cstdint>
#include <filesystem>
#include <optional>

namespace aimwise {

struct CaptureRemovalIntent {
    int64_t removedAtMs = 0;  // stored at whole seconds
    bool operator==(const CaptureRemovalIntent&) const = default;
};

namespace CaptureRemovalIntentStore {

inline constexpr const char* fileName = "capture-removal-intent.json";

// Throws std::filesystem::filesystem_error.
void write(const CaptureRemovalIntent& intent, const std::filesystem::path& directory);
std::optional<CaptureRemovalIntent> read(const std::filesystem::path& directory);
void clear(const std::filesystem::path& directory);
// Capture came back: activity later than the removal by more than `marginMs`.
bool isSuperseded(const CaptureRemovalIntent& intent, std::optional<int64_t> captureActivityAtMs, int64_t marginMs);

}  // namespace CaptureRemovalIntentStore
}  // namespace aimwise
