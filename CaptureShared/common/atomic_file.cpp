#include "CaptureShared/common/atomic_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <mutex>
#include <set>
#include <string>
#include <system_error>

namespace aimwise {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void throwErrno(const std::string& what, const fs::path& path, int error = errno) {
    throw fs::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

const char* kindOf(mode_t mode) {
    if (S_ISFIFO(mode)) return "a named pipe";
    if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
    if (S_ISDIR(mode)) return "a directory";
    if (S_ISSOCK(mode)) return "a socket";
    return "not a regular file";
}

// Said once per path and process: a tick or an agent that meets the same file again says nothing new.
void reportOnce(const fs::path& path, const std::string& sentence) {
    static std::mutex lock;
    static std::set<std::string> said;
    {
        std::lock_guard guard(lock);
        if (!said.insert(path.string()).second) return;
    }
    std::fprintf(stderr, "%s\n", sentence.c_str());
}

[[noreturn]] void refuseKind(const fs::path& path, mode_t mode) {
    const std::string what = std::string(kindOf(mode)) + ", not a regular file; it was not read and counts as unreadable";
    reportOnce(path, path.string() + " is " + what);
    throw fs::filesystem_error("is " + what, path, std::make_error_code(std::errc::invalid_argument));
}

[[noreturn]] void refuseSize(const fs::path& path, size_t maxBytes) {
    const std::string what = "is larger than the " + std::to_string(maxBytes / 1024) +
                             " KiB such a file may hold; it was not read and counts as unreadable";
    reportOnce(path, path.string() + " " + what);
    throw fs::filesystem_error(what, path, std::make_error_code(std::errc::file_too_large));
}

// Reads [offset, offset + length) or up to the end of the file, whichever comes first. `expected`
// only sizes the first allocation.
std::string readRange(int fd, const fs::path& path, off_t offset, size_t length, size_t expected) {
    std::string contents;
    contents.reserve(std::min(length, expected));
    char buffer[65536];
    while (contents.size() < length) {
        const size_t want = std::min(sizeof buffer, length - contents.size());
        const ssize_t n = ::pread(fd, buffer, want, offset + static_cast<off_t>(contents.size()));
        if (n < 0) {
            if (errno == EINTR) continue;
            throwErrno("could not read", path);
        }
        if (n == 0) break;
        contents.append(buffer, static_cast<size_t>(n));
    }
    return contents;
}

}  // namespace

void removeStaleTemporaries(const fs::path& path, int64_t olderThanSec) {
    const fs::path directory = path.has_parent_path() ? path.parent_path() : fs::path(".");
    const std::string prefix = "." + path.filename().string() + ".";
    DIR* listing = ::opendir(directory.c_str());
    if (!listing) return;
    const int64_t cutoff = static_cast<int64_t>(::time(nullptr)) - olderThanSec;
    while (const dirent* entry = ::readdir(listing)) {
        const std::string_view name(entry->d_name);
        // mkstemp's six characters, nothing else: never a file this writer did not make.
        if (name.size() != prefix.size() + 6 || !name.starts_with(prefix)) continue;
        struct stat info {};
        if (::fstatat(::dirfd(listing), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(info.st_mode))
            continue;
        if (static_cast<int64_t>(info.st_mtim.tv_sec) < cutoff) ::unlinkat(::dirfd(listing), entry->d_name, 0);
    }
    ::closedir(listing);
}

void writeFileAtomically(const fs::path& path, std::string_view contents, mode_t mode, Durability durability) {
    removeStaleTemporaries(path);
    std::string temporary = (path.parent_path() / ("." + path.filename().string() + ".XXXXXX")).string();
    const int fd = mkstemp(temporary.data());
    if (fd < 0) throwErrno("could not create a temporary file", path);
    const auto abandon = [&](const char* what) {
        const int saved = errno;
        ::close(fd);
        ::unlink(temporary.c_str());
        throwErrno(what, path, saved);
    };
    size_t written = 0;
    while (written < contents.size()) {
        const ssize_t n = ::write(fd, contents.data() + written, contents.size() - written);
        if (n < 0) {
            if (errno == EINTR) continue;
            abandon("could not write");
        }
        written += static_cast<size_t>(n);
    }
    if (::fchmod(fd, mode) != 0 || (durability == Durability::synced && ::fsync(fd) != 0))
        abandon("could not finish writing");
    if (::close(fd) != 0) {
        const int saved = errno;
        ::unlink(temporary.c_str());
        throwErrno("could not finish writing", path, saved);
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int saved = errno;
        ::unlink(temporary.c_str());
        throwErrno("could not replace", path, saved);
    }
}

int openRegularFileForReading(const fs::path& path) {
    // O_NONBLOCK: opening a FIFO would otherwise wait for a writer that may never come.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) throwErrno("could not open", path);
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        const int saved = errno;
        ::close(fd);
        throwErrno("could not read the attributes of", path, saved);
    }
    if (!S_ISREG(info.st_mode)) {
        ::close(fd);
        refuseKind(path, info.st_mode);
    }
    return fd;
}

void requireRegularFileIfPresent(const fs::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) refuseKind(path, info.st_mode);
}

std::string readWholeFile(const fs::path& path, size_t maxBytes) {
    const Descriptor fd(openRegularFileForReading(path));
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0) throwErrno("could not read the attributes of", path);
    if (static_cast<uintmax_t>(info.st_size) > maxBytes) refuseSize(path, maxBytes);
    // One byte more than allowed tells a file that grew past the limit since fstat.
    std::string contents = readRange(fd.get(), path, 0, maxBytes + 1, static_cast<size_t>(info.st_size) + 1);
    if (contents.size() > maxBytes) refuseSize(path, maxBytes);
    return contents;
}

std::string readFileTail(const fs::path& path, size_t maxBytes) {
    const Descriptor fd(openRegularFileForReading(path));
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0) throwErrno("could not read the attributes of", path);
    const auto size = static_cast<size_t>(info.st_size);
    if (size <= maxBytes) return readRange(fd.get(), path, 0, maxBytes, size);
    std::string contents = readRange(fd.get(), path, static_cast<off_t>(size - maxBytes), maxBytes, maxBytes);
    // The window starts inside a line: that part of a line is not a record.
    const size_t newline = contents.find('\n');
    contents.erase(0, newline == std::string::npos ? contents.size() : newline + 1);
    return contents;
}

}  // namespace aimwise
