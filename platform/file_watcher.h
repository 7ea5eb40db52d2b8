#pragma once
// Files watched by name, for a loop that waits on one poll: the watcher's descriptor becomes
// readable when a watched file may have changed, and readEvents says which.
//
// A file is named by its directory and its name rather than opened, so that one replaced by a
// rename (the atomic writers), deleted, or created only after the watch began is still seen.
// The directory itself must exist when it is watched and stay.
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "CaptureShared/common/error.h"

namespace aimwise {

struct FileWatcherError : Error {
    using Error::Error;
};

class FileWatcher {
  public:
    virtual ~FileWatcher() = default;

    // On Linux an inotify instance. Throws FileWatcherError.
    static std::unique_ptr<FileWatcher> create();

    // Adds `names` in `directory` to the watch. Throws FileWatcherError when the directory cannot
    // be watched (absent, unreadable, or the per-user watch limit reached).
    virtual void watch(const std::filesystem::path& directory, const std::vector<std::string>& names) = 0;

    // Readable while events wait to be read; for poll(2) with POLLIN.
    virtual int pollFd() const = 0;

    // Every watched file that was written, created, replaced or deleted since the last call, each
    // once, in the order first seen. Never blocks: nothing when nothing happened. When the kernel
    // dropped events, every watched file is reported, so the reader re-reads rather than misses.
    virtual std::vector<std::filesystem::path> readEvents() = 0;
};

}  // namespace aimwise
