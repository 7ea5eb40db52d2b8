#pragma once
// Whole-file replacement that a reader never sees half-written.
#include <filesystem>
#include <string_view>
#include <sys/types.h>

namespace aimwise {

enum class Durability {
    synced,
    // For state worth less than the wait: a crash may leave the old contents, or none.
    unsynced,
};

// Writes `contents` to a temporary file beside `path`, syncs it (unless told otherwise), sets `mode`
// and renames it over `path`. Throws std::filesystem::filesystem_error on failure; the old file is
// then untouched.
void writeFileAtomically(const std::filesystem::path& path, std::string_view contents, mode_t mode = 0600,
                         Durability durability = Durability::synced);

// Reads a whole file. Throws std::filesystem::filesystem_error when it cannot be read.
std::string readWholeFile(const std::filesystem::path& path);

}  // namespace aimwise
