#include "CaptureShared/common/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

namespace aimwise {

namespace {

[[noreturn]] void throwErrno(const std::string& what, const std::filesystem::path& path) {
    throw std::filesystem::filesystem_error(what, path, std::error_code(errno, std::generic_category()));
}

}  // namespace

void writeFileAtomically(const std::filesystem::path& path, std::string_view contents, mode_t mode,
                         Durability durability) {
    std::string temporary = (path.parent_path() / ("." + path.filename().string() + ".XXXXXX")).string();
    const int fd = mkstemp(temporary.data());
    if (fd < 0) throwErrno("could not create a temporary file", path);
    size_t written = 0;
    while (written < contents.size()) {
        const ssize_t n = ::write(fd, contents.data() + written, contents.size() - written);
        if (n < 0) {
            if (errno == EINTR) continue;
            const int saved = errno;
            ::close(fd);
            ::unlink(temporary.c_str());
            errno = saved;
            throwErrno("could not write", path);
        }
        written += static_cast<size_t>(n);
    }
    if (::fchmod(fd, mode) != 0 || (durability == Durability::synced && ::fsync(fd) != 0)) {
        const int saved = errno;
        ::close(fd);
        ::unlink(temporary.c_str());
        errno = saved;
        throwErrno("could not finish writing", path);
    }
    ::close(fd);
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int saved = errno;
        ::unlink(temporary.c_str());
        errno = saved;
        throwErrno("could not replace", path);
    }
}

std::string readWholeFile(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throwErrno("could not open", path);
    std::string contents;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            const int saved = errno;
            ::close(fd);
            errno = saved;
            throwErrno("could not read", path);
        }
        if (n == 0) break;
        contents.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return contents;
}

}  // namespace aimwise
