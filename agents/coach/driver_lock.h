#pragma once
// One coach driver per data root: a non-blocking flock on io-layer/coach-driver.lock, which holds the
// owner's process id for the refusal to name. The lock goes with the process, so a driver that
// crashed never leaves a stale one behind.
#include <filesystem>
#include <optional>
#include <string>

#include "CaptureShared/common/error.h"

namespace aimwise {

class DriverLock {
public:
    struct Held : Error {
        explicit Held(std::optional<long> ownerPid);
        std::optional<long> ownerPid;
    };
    struct Unavailable : Error {
        using Error::Error;
    };

    static constexpr const char* fileName = "coach-driver.lock";
    static std::filesystem::path path(const std::filesystem::path& dataRoot);

    // Throws Held when another process has it, Unavailable when the file cannot be opened.
    explicit DriverLock(const std::filesystem::path& dataRoot);
    ~DriverLock();
    DriverLock(const DriverLock&) = delete;
    DriverLock& operator=(const DriverLock&) = delete;

private:
    int fd_ = -1;
};

}  // namespace aimwise
