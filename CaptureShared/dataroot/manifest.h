#pragma once
// manifest.json at the top of the data root: written by `aimwise init` when it prepares a root (the
// capture agent starts signals.sqlite only beside one), and by the capture supervisor at capture start.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace aimwise {

struct Manifest {
    int64_t schemaVersion = 1;
    std::string dataRoot;
    double captureFps = 0;
    double keyframeIntervalSec = 0;
    int64_t displayWidthTarget = 0;
    std::string startedAt;  // ISO 8601, UTC, whole seconds

    static Manifest make(const std::string& dataRoot, double captureFps, double keyframeIntervalSec,
                         int64_t displayWidthTarget, int64_t nowMs);

    std::string toJSON() const;
    // Absent when the text is not a manifest.
    static std::optional<Manifest> fromJSON(const std::string& text);

    // Replaces `root`/manifest.json atomically; throws std::filesystem::filesystem_error.
    void write(const std::filesystem::path& root) const;
    static std::optional<Manifest> read(const std::filesystem::path& root);
    bool operator==(const Manifest&) const = default;
};

}  // namespace aimwise
