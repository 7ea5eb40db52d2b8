#include "AimwiseCore/events/file_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "AimwiseCore/events/event_log_writer.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/line_append.h"

namespace aimwise::events_io {

FileAttributes attributesOf(const struct stat& info) {
    return FileAttributes{static_cast<uint64_t>(info.st_ino), static_cast<int64_t>(info.st_size),
                          static_cast<double>(info.st_mtim.tv_sec) + static_cast<double>(info.st_mtim.tv_nsec) / 1e9};
}

FileAttributes attributes(const std::filesystem::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        throw std::filesystem::filesystem_error("could not read the attributes of", path,
                                                std::error_code(errno, std::generic_category()));
    return attributesOf(info);
}

void createDirectories(const std::filesystem::path& directory, mode_t mode) {
    if (directory.empty()) return;
    struct stat info {};
    if (::stat(directory.c_str(), &info) == 0) {
        if (S_ISDIR(info.st_mode)) return;
        throw std::filesystem::filesystem_error("not a directory", directory,
                                                std::make_error_code(std::errc::not_a_directory));
    }
    if (directory.has_parent_path() && directory.parent_path() != directory) createDirectories(directory.parent_path(), mode);
    if (::mkdir(directory.c_str(), mode) != 0 && errno != EEXIST)
        throw std::filesystem::filesystem_error("could not create directory", directory,
                                                std::error_code(errno, std::generic_category()));
}

void appendLine(const std::filesystem::path& file, std::string_view line) {
    const LineAppend::Result result = LineAppend::append(file, line, 0600);
    switch (result.failure) {
        case LineAppend::Failure::none: return;
        case LineAppend::Failure::openFailed:
            throw EventLogWriterError{EventLogWriterError::Kind::openFailed, result.error};
        case LineAppend::Failure::shortWrite:
            throw EventLogWriterError{EventLogWriterError::Kind::shortWrite, result.error, result.expected, result.written};
    }
}

bool readAt(int fd, int64_t offset, int64_t length, std::string& out) {
    out.resize(static_cast<size_t>(length));
    int64_t done = 0;
    while (done < length) {
        const ssize_t n = ::pread(fd, out.data() + done, static_cast<size_t>(length - done), offset + done);
        if (n < 0) {
            if (errno == EINTR) continue;
            out.clear();
            return false;
        }
        if (n == 0) break;
        done += n;
    }
    out.resize(static_cast<size_t>(done));
    return true;
}

FileDescriptor::~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
}

FileDescriptor openForReading(const std::filesystem::path& path) {
    try {
        return FileDescriptor(openRegularFileForReading(path));
    } catch (const std::filesystem::filesystem_error&) {
        return FileDescriptor();
    }
}

}  // namespace aimwise::events_io
