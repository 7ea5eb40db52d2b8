#pragma once
// Children that run beside the caller instead of in its way: each is started with a deadline and
// its end is collected later, without blocking, so that a notification tool that hangs never
// stalls a loop for seconds. The runner's descriptor is for the loop's one poll.
//
// A child past its deadline is terminated, then killed with its process group, and always reaped.
// Children read the null device and write to it: what they say is not collected.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CaptureShared/common/error.h"
#include "platform/bounded_process.h"

namespace aimwise {

struct ChildRunnerError : Error {
    using Error::Error;
};

class ChildRunner {
  public:
    using Id = uint64_t;

    struct Ended {
        Id id = 0;
        // Finished (its output empty), TimedOut, or LaunchFailed.
        BoundedProcess::Outcome outcome;
    };

    virtual ~ChildRunner() = default;

    // On Linux: posix_spawn, a pidfd per child and a timer for the deadlines, under one epoll.
    // Throws ChildRunnerError when the descriptors cannot be had.
    static std::unique_ptr<ChildRunner> create();

    // `executable` with a slash is a path; without one it is looked up in PATH. Never blocks and
    // never throws for the child's sake: a child that cannot be started ends at once, as LaunchFailed.
    virtual Id start(const std::string& executable, const std::vector<std::string>& arguments,
                     double timeoutSec) = 0;

    // Readable when a child may have ended or a deadline may have passed; for poll(2) with POLLIN.
    virtual int pollFd() const = 0;

    // The children that ended since the last call, in the order their ends were seen; a child past
    // its deadline is stopped here. Never blocks.
    virtual std::vector<Ended> collect() = 0;

    // Children started and not yet collected.
    virtual size_t running() const = 0;
};

}  // namespace aimwise
