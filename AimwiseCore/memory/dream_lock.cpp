#include "AimwiseCore/memory/dream_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <mutex>
#include <system_error>
#include <utility>

#include "AimwiseCore/memory/memory_store.h"

namespace aimwise {

class DreamLockHandle {
public:
    explicit DreamLockHandle(int fd) : fd_(fd) {}
    ~DreamLockHandle() {
        ::flock(fd_, LOCK_UN);
        ::close(fd_);
    }
    DreamLockHandle(const DreamLockHandle&) = delete;
    DreamLockHandle& operator=(const DreamLockHandle&) = delete;

private:
    int fd_;
};

namespace {

namespace fs = std::filesystem;

// The lock file's identity, so that two spellings of one data root share one holder.
using FileKey = std::pair<dev_t, ino_t>;

std::mutex heldMutex;
std::map<FileKey, std::weak_ptr<DreamLockHandle>>& heldByThisProcess() {
    static std::map<FileKey, std::weak_ptr<DreamLockHandle>> held;
    return held;
}

}  // namespace

fs::path dreamLockPath(const fs::path& dataRoot) {
    return MemoryStore::memoryDirectory(dataRoot) / ".dream.lock";
}

LockAcquisition acquireDreamLock(const fs::path& dataRoot) {
    using Kind = LockAcquisition::Kind;
    std::error_code error;
    fs::create_directories(MemoryStore::memoryDirectory(dataRoot), error);
    if (error) return {Kind::unavailable, "could not create memory/ directory: " + error.message(), nullptr};

    const int fd = ::open(dreamLockPath(dataRoot).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        return {Kind::unavailable, "could not open lock file (errno " + std::to_string(errno) + ")", nullptr};
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        const int saved = errno;
        ::close(fd);
        return {Kind::unavailable, "could not open lock file (errno " + std::to_string(saved) + ")", nullptr};
    }

    std::lock_guard guard(heldMutex);
    auto& held = heldByThisProcess();
    const FileKey key{info.st_dev, info.st_ino};
    if (auto existing = held[key].lock()) {
        ::close(fd);
        return {Kind::acquired, "", std::move(existing)};
    }
    while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno == EINTR) continue;
        const int saved = errno;
        ::close(fd);
        if (saved == EWOULDBLOCK) return {Kind::heldByAnotherProcess, "", nullptr};
        return {
            Kind::unavailable,
            "could not lock " + dreamLockPath(dataRoot).string() + " (errno " + std::to_string(saved) + ")",
            nullptr};
    }
    auto handle = std::make_shared<DreamLockHandle>(fd);
    held[key] = handle;
    return {Kind::acquired, "", std::move(handle)};
}

}  // namespace aimwise
