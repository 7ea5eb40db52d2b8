#pragma once
// Reading and replacing the small JSON state files of this folder.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace aimwise::SmallJSONFile {

// Larger files are not ours to trust; they read as undecodable.
inline constexpr uintmax_t maxBytes = 64 * 1024;

// The file's bytes, or nothing when it is missing, unreadable or larger than `maxBytes`.
std::optional<std::string> read(const std::filesystem::path& path);
// Makes the parent directory and replaces the file in one rename, mode 0600.
// Throws std::filesystem::filesystem_error.
void replace(const std::filesystem::path& path, const std::string& contents);
// Removes the file; a missing file or a failed removal changes nothing.
void remove(const std::filesystem::path& path);

}  // namespace aimwise::SmallJSONFile
