#pragma once
// Private to the events sources: the few POSIX calls that the log writers and readers share.
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace aimwise::events_io {

struct FileAttributes {
    uint64_t inode = 0;
    int64_t size = 0;
    double mtime = 0;  // seconds since the epoch, with the file system's fraction
    bool operator==(const FileAttributes&) const = default;
};

FileAttributes attributesOf(const struct stat& info);
// Throws std::filesystem::filesystem_error.
FileAttributes attributes(const std::filesystem::path& path);

// mkdir -p with every created directory at `mode`. Throws std::filesystem::filesystem_error.
void createDirectories(const std::filesystem::path& directory, mode_t mode = 0700);

// Appends one whole line (see LineAppend) and throws EventLogWriterError for what went wrong.
void appendLine(const std::filesystem::path& file, std::string_view line);

// Reads up to `length` bytes at `offset`; fewer at end of file. Returns false on an error.
bool readAt(int fd, int64_t offset, int64_t length, std::string& out);

// Closes the descriptor when it goes out of scope.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : fd_(fd) {}
    ~FileDescriptor();
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_;
};

// A regular file opened without blocking; an invalid descriptor for anything else.
FileDescriptor openForReading(const std::filesystem::path& path);

}  // namespace aimwise::events_io
