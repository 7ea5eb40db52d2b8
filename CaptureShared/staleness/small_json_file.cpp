#include "CaptureShared/staleness/small_json_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace aimwise::SmallJSONFile {

namespace fs = std::filesystem;

namespace {

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

[[noreturn]] void throwErrno(const std::string& what, const fs::path& path, int error) {
    throw fs::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

}  // namespace

std::optional<std::string> read(const fs::path& path) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) return std::nullopt;
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) || static_cast<uintmax_t>(info.st_size) > maxBytes)
        return std::nullopt;
    std::string contents;
    char buffer[8192];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) break;
        contents.append(buffer, static_cast<size_t>(n));
        // The file may have grown since fstat.
        if (contents.size() > maxBytes) return std::nullopt;
    }
    return contents;
}

void replace(const fs::path& path, const std::string& contents) {
    if (path.has_parent_path()) fs::create_directories(path.parent_path());
    const fs::path temporary = path.string() + ".tmp-" + std::to_string(::getpid());
    FileDescriptor fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (fd.get() < 0) throwErrno("could not create", temporary, errno);

    size_t written = 0;
    while (written < contents.size()) {
        const ssize_t n = ::write(fd.get(), contents.data() + written, contents.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            const int error = errno;
            ::unlink(temporary.c_str());
            throwErrno("could not write", temporary, error);
        }
        written += static_cast<size_t>(n);
    }
    if (::close(fd.release()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        throwErrno("could not write", temporary, error);
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        throwErrno("could not replace", path, error);
    }
}

void remove(const fs::path& path) {
    std::error_code ignored;
    fs::remove(path, ignored);
}

}  // namespace aimwise::SmallJSONFile
