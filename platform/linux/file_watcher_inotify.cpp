// The file watcher on inotify. Each directory is watched rather than each file: a watch on a file
// follows its inode, so it would be lost when the file is replaced by a rename, and a file that does
// not exist yet cannot be watched at all.
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>

#include "platform/file_watcher.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;

constexpr uint32_t directoryEvents =
    IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ATTRIB | IN_ONLYDIR;

class InotifyFileWatcher final : public FileWatcher {
  public:
    InotifyFileWatcher() : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        if (fd_ < 0)
            throw FileWatcherError(std::string("could not start watching files: ") + std::strerror(errno));
    }
    ~InotifyFileWatcher() override { ::close(fd_); }
    InotifyFileWatcher(const InotifyFileWatcher&) = delete;
    InotifyFileWatcher& operator=(const InotifyFileWatcher&) = delete;

    void watch(const fs::path& directory, const std::vector<std::string>& names) override {
        const int wd = ::inotify_add_watch(fd_, directory.c_str(), directoryEvents);
        if (wd < 0)
            throw FileWatcherError("could not watch " + directory.string() + ": " + std::strerror(errno));
        Directory& watched = directories_[wd];
        watched.path = directory;
        watched.names.insert(names.begin(), names.end());
    }

    int pollFd() const override { return fd_; }

    std::vector<fs::path> readEvents() override {
        std::vector<fs::path> changed;
        const auto report = [&](fs::path path) {
            if (std::find(changed.begin(), changed.end(), path) == changed.end())
                changed.push_back(std::move(path));
        };
        alignas(inotify_event) char buffer[16 * 1024];
        for (;;) {
            const ssize_t n = ::read(fd_, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            for (ssize_t at = 0; at < n;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
                if (event->mask & IN_Q_OVERFLOW) {
                    for (const auto& [wd, directory] : directories_)
                        for (const auto& name : directory.names) report(directory.path / name);
                    continue;
                }
                const auto directory = directories_.find(event->wd);
                if (directory == directories_.end() || event->len == 0) continue;
                const std::string name(event->name);
                if (directory->second.names.contains(name)) report(directory->second.path / name);
            }
        }
        return changed;
    }

  private:
    struct Directory {
        fs::path path;
        std::set<std::string> names;
    };

    int fd_;
    std::map<int, Directory> directories_;
};

}  // namespace

std::unique_ptr<FileWatcher> FileWatcher::create() {
    return std::make_unique<InotifyFileWatcher>();
}

}  // namespace aimwise
