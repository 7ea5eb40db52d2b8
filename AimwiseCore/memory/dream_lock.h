#pragma once
// memory/.dream.lock: one consolidation pass at a time across processes. The lock is an advisory
// flock taken without waiting, so a second holder is refused at once, and the kernel releases it when
// the holding process ends, however it ends. Within one process a second acquisition shares the first
// (a nightly run holds the lock across its passes, and each pass asks for it again).
#include <filesystem>
#include <memory>
#include <string>

namespace aimwise {

class DreamLockHandle;

struct LockAcquisition {
    enum class Kind { acquired, heldByAnotherProcess, unavailable };
    Kind kind = Kind::unavailable;
    // Why the lock could not be had, for `unavailable`.
    std::string reason;
    // Holds the lock while any copy of it lives.
    std::shared_ptr<DreamLockHandle> handle;

    bool acquired() const { return kind == Kind::acquired; }
};

std::filesystem::path dreamLockPath(const std::filesystem::path& dataRoot);
LockAcquisition acquireDreamLock(const std::filesystem::path& dataRoot);

}  // namespace aimwise
