#pragma once
// Whole-file replacement that a reader never sees half-written, and the bounded reads of the files
// this system owns.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace aimwise {

enum class Durability {
    synced,
    // For state worth less than the wait: a crash may leave the old contents, or none.
    unsynced,
};

// The most a reader takes of a file, by kind. A settings or state file beyond its limit is refused
// as unreadable; of a log read whole only the newest lines within the limit are read. So a corrupt
// or hostile file costs bounded memory and time.
namespace ReadLimit {
// config.json, preferences, the cadence state, notes, manifests: a few kilobytes when healthy.
inline constexpr size_t setting = 256 * 1024;
// Whole documents: standing memory, digests, model manifests.
inline constexpr size_t document = 32u << 20;
// The newest part of an append-only log that a reader parses whole (the event and classifier logs).
inline constexpr size_t log = 64u << 20;
}  // namespace ReadLimit

// A temporary left by a writer that died mid-write is removed by the next writer of the same file
// once it is this old; a younger one may belong to a writer still at work.
inline constexpr int64_t staleTemporaryAgeSec = 3600;

// Writes `contents` to a temporary file beside `path`, syncs it (unless told otherwise), sets `mode`
// and renames it over `path`. Throws std::filesystem::filesystem_error on failure; the old file is
// then untouched. Temporaries of earlier writes of the same file older than staleTemporaryAgeSec are
// removed first.
void writeFileAtomically(const std::filesystem::path& path, std::string_view contents, mode_t mode = 0600,
                         Durability durability = Durability::synced);
// Removes `.<name>.XXXXXX` temporaries of `path` last modified more than `olderThanSec` ago.
void removeStaleTemporaries(const std::filesystem::path& path, int64_t olderThanSec = staleTemporaryAgeSec);

// Opens a file for reading without ever blocking: a FIFO, a device or a directory is refused (and
// reported once per process on standard error), as is a file that cannot be opened. Returns the
// descriptor; throws std::filesystem::filesystem_error.
int openRegularFileForReading(const std::filesystem::path& path);
// Throws like openRegularFileForReading when `path` exists and is not a regular file; an absent
// path passes. For readers that stream a file through a library that opens it by name.
void requireRegularFileIfPresent(const std::filesystem::path& path);

// Reads a whole regular file of at most `maxBytes`. Throws std::filesystem::filesystem_error when
// it cannot be read, is not a regular file or is larger.
std::string readWholeFile(const std::filesystem::path& path, size_t maxBytes = ReadLimit::document);
// The newest whole lines of a regular file within its last `maxBytes` (all of a smaller file).
// Throws like readWholeFile.
std::string readFileTail(const std::filesystem::path& path, size_t maxBytes = ReadLimit::log);

}  // namespace aimwise
