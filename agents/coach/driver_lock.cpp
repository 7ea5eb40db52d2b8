#include "agents/coach/driver_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace aimwise {

namespace fs = std::filesystem;

namespace {

std::optional<long> readPid(int fd) {
    char text[32] = {};
    const ssize_t got = ::pread(fd, text, sizeof text - 1, 0);
    if (got <= 0) return std::nullopt;
    char* end = nullptr;
    const long pid = std::strtol(text, &end, 10);
    return end != text && pid > 0 ? std::optional(pid) : std::nullopt;
}

}  // namespace

DriverLock::Held::Held(std::optional<long> ownerPid)
    : Error("another coach driver " + (ownerPid ? "(process " + std::to_string(*ownerPid) + ") " : std::string()) +
            "is already running for this data root; this one is leaving it in charge and exiting. Nothing was "
            "changed."),
      ownerPid(ownerPid) {}

fs::path DriverLock::path(const fs::path& dataRoot) { return dataRoot / "io-layer" / fileName; }

DriverLock::DriverLock(const fs::path& dataRoot) {
    const fs::path at = path(dataRoot);
    std::error_code ignored;
    fs::create_directories(at.parent_path(), ignored);
    fd_ = ::open(at.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0)
        throw Unavailable("could not open the coach driver's lock file " + at.string() + ": " + std::strerror(errno) +
                          ". Nothing was changed.");
    if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        const auto owner = readPid(fd_);
        ::close(fd_);
        fd_ = -1;
        throw Held(owner);
    }
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd_, 0) != 0 || ::pwrite(fd_, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        // The lock still holds; only the refusal of a second driver loses the name of this one.
    }
}

DriverLock::~DriverLock() {
    if (fd_ >= 0) ::close(fd_);
}

}  // namespace aimwise
