#pragma once
// Stand-ins for the file watcher and the child runner: a test says what changed and how a child
// ended. Each keeps a real eventfd as its poll descriptor, readable while something waits, so a
// loop under test can poll them beside real descriptors.
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <utility>

#include "platform/child_runner.h"
#include "platform/file_watcher.h"

namespace aimwise::testing {

class PollableFake {
  public:
    PollableFake() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~PollableFake() { ::close(fd_); }
    PollableFake(const PollableFake&) = delete;
    PollableFake& operator=(const PollableFake&) = delete;

  protected:
    void signal() {
        const uint64_t one = 1;
        (void)!::write(fd_, &one, sizeof one);
    }
    void settle() {
        uint64_t value = 0;
        (void)!::read(fd_, &value, sizeof value);
    }
    int fd_;
};

class FakeFileWatcher final : public FileWatcher, PollableFake {
  public:
    void watch(const std::filesystem::path& directory, const std::vector<std::string>& names) override {
        for (const auto& name : names) watched.push_back(directory / name);
    }
    int pollFd() const override { return fd_; }
    std::vector<std::filesystem::path> readEvents() override {
        settle();
        return std::exchange(changed_, {});
    }

    // As if `path` was written; an unwatched path is not reported, as with the real watcher.
    void touch(const std::filesystem::path& path) {
        if (std::find(watched.begin(), watched.end(), path) == watched.end()) return;
        if (std::find(changed_.begin(), changed_.end(), path) == changed_.end()) changed_.push_back(path);
        signal();
    }

    std::vector<std::filesystem::path> watched;

  private:
    std::vector<std::filesystem::path> changed_;
};

class FakeChildRunner final : public ChildRunner, PollableFake {
  public:
    struct Started {
        std::string executable;
        std::vector<std::string> arguments;
        double timeoutSec = 0;
    };

    Id start(const std::string& executable, const std::vector<std::string>& arguments,
             double timeoutSec) override {
        started[++lastId_] = {executable, arguments, timeoutSec};
        return lastId_;
    }
    int pollFd() const override { return fd_; }
    std::vector<Ended> collect() override {
        settle();
        for (const Ended& end : ended_) started.erase(end.id);
        return std::exchange(ended_, {});
    }
    size_t running() const override { return started.size(); }

    // Ends child `id` as the test says; a normal exit when nothing else is given.
    void end(Id id, BoundedProcess::Outcome outcome = BoundedProcess::Finished{}) {
        ended_.push_back({id, std::move(outcome)});
        signal();
    }

    std::map<Id, Started> started;

  private:
    Id lastId_ = 0;
    std::vector<Ended> ended_;
};

}  // namespace aimwise::testing
