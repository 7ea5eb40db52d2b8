// The child runner on Linux: a pidfd per child says when it ended, a timerfd when the nearest
// deadline (or the end of a terminated child's grace) came, an eventfd when a launch failed, and
// one epoll instance over them all is the descriptor the caller polls.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <optional>

#include "CaptureShared/common/clock.h"
#include "platform/child_runner.h"
#include "platform/linux/spawn.h"


namespace aimwise {
namespace {

// Between the polite SIGTERM and SIGKILL, as for the blocking runner.
constexpr int64_t terminateGraceMs = 500;

std::string errnoText(int error) {
    return std::strerror(error);
}

void drainCounter(int fd) {
    uint64_t value = 0;
    while (::read(fd, &value, sizeof value) > 0) {
    }
}

// The child in a process group of its own, with default signals and the null device for its streams.
std::optional<pid_t> spawn(const std::string& executable, const std::vector<std::string>& arguments,
                           int& error) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    error = Spawn::inOwnGroup(pid, executable, arguments, actions);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) return std::nullopt;
    return pid;
}

class LinuxChildRunner final : public ChildRunner {
  public:
    LinuxChildRunner()
        : epoll_(::epoll_create1(EPOLL_CLOEXEC)),
          timer_(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)),
          wake_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
        if (epoll_ < 0 || timer_ < 0 || wake_ < 0)
            throw ChildRunnerError("could not prepare to run children: " + errnoText(errno));
        for (int fd : {timer_, wake_}) add(fd, 0);
    }

    ~LinuxChildRunner() override {
        // Nothing is left running behind the runner.
        for (Child& child : children_) {
            ::kill(-child.pid, SIGKILL);
            int status = 0;
            while (::waitpid(child.pid, &status, 0) < 0 && errno == EINTR) {
            }
            ::close(child.pidfd);
        }
        for (int fd : {epoll_, timer_, wake_}) ::close(fd);
    }
    LinuxChildRunner(const LinuxChildRunner&) = delete;
    LinuxChildRunner& operator=(const LinuxChildRunner&) = delete;

    Id start(const std::string& executable, const std::vector<std::string>& arguments,
             double timeoutSec) override {
        const Id id = ++lastId_;
        int error = 0;
        const auto pid = spawn(executable, arguments, error);
        if (!pid) return failed(id, "could not start " + executable + ": " + errnoText(error));
        // Through syscall: the C library of Debian 12 declares pidfd_open without C linkage.
        const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, *pid, 0));
        if (pidfd < 0) {
            const int openError = errno;
            ::kill(-*pid, SIGKILL);
            int status = 0;
            while (::waitpid(*pid, &status, 0) < 0 && errno == EINTR) {
            }
            return failed(id, "could not watch " + executable + ": " + errnoText(openError));
        }
        add(pidfd, id);
        const double seconds = std::isfinite(timeoutSec) ? std::max(0.0, timeoutSec) : 0.0;
        children_.push_back({id, *pid, pidfd, clock().monotonicMs() + static_cast<int64_t>(seconds * 1000.0),
                             timeoutSec, std::nullopt});
        rearm();
        return id;
    }

    int pollFd() const override { return epoll_; }

    std::vector<Ended> collect() override {
        drainCounter(timer_);
        drainCounter(wake_);
        std::vector<Ended> ended = std::move(launchFailures_);
        launchFailures_.clear();
        const int64_t now = clock().monotonicMs();
        for (auto child = children_.begin(); child != children_.end();) {
            int status = 0;
            pid_t reaped;
            while ((reaped = ::waitpid(child->pid, &status, WNOHANG)) < 0 && errno == EINTR) {
            }
            if (reaped == child->pid) {
                ended.push_back({child->id, outcome(*child, status)});
                ::epoll_ctl(epoll_, EPOLL_CTL_DEL, child->pidfd, nullptr);
                ::close(child->pidfd);
                child = children_.erase(child);
                continue;
            }
            if (!child->killAtMs && now >= child->deadlineMs) {
                ::kill(-child->pid, SIGTERM);
                child->killAtMs = now + terminateGraceMs;
            } else if (child->killAtMs && now >= *child->killAtMs) {
                // Whatever the child left in its group goes too; its pidfd reports the end.
                ::kill(-child->pid, SIGKILL);
                child->killAtMs = INT64_MAX;
            }
            ++child;
        }
        rearm();
        return ended;
    }

    size_t running() const override { return children_.size() + launchFailures_.size(); }

  private:
    struct Child {
        Id id;
        pid_t pid;
        int pidfd;
        int64_t deadlineMs;
        double timeoutSec;
        // Set once SIGTERM was sent: when SIGKILL follows.
        std::optional<int64_t> killAtMs;
    };

    static const Clock& clock() { return Clock::system(); }

    void add(int fd, Id id) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = id;
        if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) != 0)
            throw ChildRunnerError("could not watch a child: " + errnoText(errno));
    }

    Id failed(Id id, std::string reason) {
        launchFailures_.push_back({id, BoundedProcess::LaunchFailed{std::move(reason)}});
        const uint64_t one = 1;
        (void)!::write(wake_, &one, sizeof one);
        return id;
    }

    static BoundedProcess::Outcome outcome(const Child& child, int status) {
        if (child.killAtMs) return BoundedProcess::TimedOut{child.timeoutSec, {}, {}};
        BoundedProcess::Finished finished;
        if (WIFSIGNALED(status))
            finished.terminatingSignal = WTERMSIG(status);
        else
            finished.exitStatus = WEXITSTATUS(status);
        return finished;
    }

    // The timer fires at the nearest deadline or end of grace still ahead; disarmed when none is.
    void rearm() {
        std::optional<int64_t> next;
        for (const Child& child : children_) {
            const int64_t at = child.killAtMs ? *child.killAtMs : child.deadlineMs;
            if (at != INT64_MAX) next = std::min(next.value_or(at), at);
        }
        itimerspec due{};  // all zero disarms the timer
        if (next) {
            const int64_t at = std::max<int64_t>(*next, 1);
            due.it_value.tv_sec = at / 1000;
            due.it_value.tv_nsec = (at % 1000) * 1'000'000;
        }
        ::timerfd_settime(timer_, TFD_TIMER_ABSTIME, &due, nullptr);
    }

    int epoll_, timer_, wake_;
    Id lastId_ = 0;
    std::vector<Child> children_;
    std::vector<Ended> launchFailures_;
};

}  // namespace

std::unique_ptr<ChildRunner> ChildRunner::create() {
    return std::make_unique<LinuxChildRunner>();
}

}  // namespace aimwise
