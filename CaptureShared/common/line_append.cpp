#include "CaptureShared/common/line_append.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace aimwise::LineAppend {

Result append(const std::filesystem::path& file, std::string_view line, mode_t mode) {
    // Read as well as write: the last byte tells whether the file ends in a cut line.
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, mode);
    if (fd < 0) return {Failure::openFailed, errno, static_cast<int64_t>(line.size()), 0};
    struct stat info {};
    const bool attributes = ::fstat(fd, &info) == 0;
    if (!attributes || !S_ISREG(info.st_mode)) {
        const int error = attributes ? EINVAL : errno;
        ::close(fd);
        return {Failure::openFailed, error, static_cast<int64_t>(line.size()), 0};
    }
    std::string whole;
    char last = '\n';
    if (info.st_size > 0 && ::pread(fd, &last, 1, info.st_size - 1) == 1 && last != '\n') {
        whole.reserve(line.size() + 1);
        whole.push_back('\n');
        whole.append(line);
        line = whole;
    }
    ssize_t written;
    do {
        written = ::write(fd, line.data(), line.size());
    } while (written < 0 && errno == EINTR);
    const int error = written < 0 ? errno : ENOSPC;
    ::close(fd);
    if (written != static_cast<ssize_t>(line.size()))
        return {Failure::shortWrite, error, static_cast<int64_t>(line.size()), static_cast<int64_t>(written)};
    return {Failure::none, 0, static_cast<int64_t>(line.size()), static_cast<int64_t>(written)};
}

}  // namespace aimwise::LineAppend
