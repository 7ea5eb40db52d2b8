#pragma once
// Whether the capture agent records the screen, kept in recording.json in the support directory:
//   {"enabled": true, "fps": 1, "keep_days": 7}
// `aimwise record on|off` writes it and the agent reads it again when it changes. A file that is
// missing or does not decode means off: the screen is recorded only on a readable request.
#include <filesystem>
#include <optional>
#include <string>

namespace aimwise::RecordingSetting {

inline constexpr const char* fileName = "recording.json";
inline constexpr double defaultFps = 1.0;
inline constexpr int defaultKeepDays = 7;
// Slower than one frame in five seconds is no recording; faster than five a second costs more
// than a review clip gains.
inline constexpr double minFps = 0.2, maxFps = 5.0;
inline constexpr int maxKeepDays = 365;

struct Setting {
    bool enabled = false;
    double fps = defaultFps;
    int keepDays = defaultKeepDays;
    bool operator==(const Setting&) const = default;
};

std::filesystem::path path();
// Off with the defaults when the file is missing, unreadable or out of range.
Setting read(const std::filesystem::path& file);
std::optional<Setting> decode(const std::string& text);
std::string encode(const Setting& setting);
// Replaces the file atomically, mode 0600. Throws std::filesystem::filesystem_error.
void write(const std::filesystem::path& file, const Setting& setting);

}  // namespace aimwise::RecordingSetting
