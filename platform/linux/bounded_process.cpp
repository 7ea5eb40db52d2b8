#include "platform/bounded_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <fmt/format.h>

#include "platform/linux/spawn.h"

namespace aimwise::BoundedProcess {
namespace {

using Clock = std::chrono::steady_clock;

// The same cadence at which the child's exit is noticed when it writes nothing.
constexpr int pollIntervalMs = 20;

class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(other.release()) {}
    Fd& operator=(Fd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~Fd() { reset(); }
    int get() const { return fd_; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

struct Stream {
    Fd fd;
    std::string bytes;
};

// Reads what is there without blocking; closes the stream at end of file.
void drain(Stream& stream, size_t limit) {
    char buffer[16384];
    while (stream.fd.get() >= 0) {
        const ssize_t n = ::read(stream.fd.get(), buffer, sizeof buffer);
        if (n > 0) {
            const size_t room = limit > stream.bytes.size() ? limit - stream.bytes.size() : 0;
            stream.bytes.append(buffer, std::min(room, static_cast<size_t>(n)));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        stream.fd.reset();
    }
}

std::string errnoText(int error) { return std::strerror(error); }

std::optional<int> reapWithoutBlocking(pid_t pid, int& status) {
    for (;;) {
        const pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid) return status;
        if (r < 0 && errno == EINTR) continue;
        return std::nullopt;
    }
}

void reapBlocking(pid_t pid, int& status) {
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}

// What is left of the child's standard input. A socket rather than a pipe, so that a child that
// exits without reading costs an error code instead of SIGPIPE.
struct Input {
    Fd fd;
    std::string bytes;
    size_t written = 0;
};

void feed(Input& input) {
    while (input.fd.get() >= 0 && input.written < input.bytes.size()) {
        const ssize_t n = ::send(input.fd.get(), input.bytes.data() + input.written, input.bytes.size() - input.written,
                                 MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            input.written += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        break;
    }
    input.fd.reset();  // all written, or the child stopped reading: either way it sees the end
}

void waitForOutput(Stream& out, Stream& err, int timeoutMs, const Input* input = nullptr) {
    pollfd fds[3];
    nfds_t count = 0;
    for (Stream* s : {&out, &err})
        if (s->fd.get() >= 0) fds[count++] = pollfd{s->fd.get(), POLLIN, 0};
    if (input && input->fd.get() >= 0) fds[count++] = pollfd{input->fd.get(), POLLOUT, 0};
    if (count == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(timeoutMs));
        return;
    }
    ::poll(fds, count, timeoutMs);
}

Finished finished(int status, Stream& out, Stream& err) {
    Finished result;
    if (WIFSIGNALED(status))
        result.terminatingSignal = WTERMSIG(status);
    else
        result.exitStatus = WEXITSTATUS(status);
    result.standardOutput = std::move(out.bytes);
    result.standardError = std::move(err.bytes);
    return result;
}

}  // namespace

std::optional<std::string> findInPath(const std::string& name) {
    if (name.empty() || name.find('/') != std::string::npos) return std::nullopt;
    const char* path = std::getenv("PATH");
    std::string_view rest = path ? path : "/usr/local/bin:/usr/bin:/bin";
    while (true) {
        const size_t colon = rest.find(':');
        std::string_view dir = rest.substr(0, colon);
        if (dir.empty()) dir = ".";
        const std::string candidate = std::string(dir) + "/" + name;
        struct stat st {};
        if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(candidate.c_str(), X_OK) == 0)
            return candidate;
        if (colon == std::string_view::npos) return std::nullopt;
        rest.remove_prefix(colon + 1);
    }
}

Outcome run(const std::string& executable, const std::vector<std::string>& arguments, double timeoutSec,
            const Options& options) {
    int outPipe[2], errPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC | O_NONBLOCK) != 0) return LaunchFailed{"pipe: " + errnoText(errno)};
    Stream out{Fd(outPipe[0]), {}};
    Fd outWrite(outPipe[1]);
    if (::pipe2(errPipe, O_CLOEXEC | O_NONBLOCK) != 0) return LaunchFailed{"pipe: " + errnoText(errno)};
    Stream err{Fd(errPipe[0]), {}};
    Fd errWrite(errPipe[1]);
    // The child's ends must block: a tool writing to a non-blocking stdout could lose output.
    for (int fd : {outWrite.get(), errWrite.get()}) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);

    Input input;
    Fd inputRead;
    if (options.standardInput) {
        int pair[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
            return LaunchFailed{"socketpair: " + errnoText(errno)};
        input.fd.reset(pair[0]);
        inputRead.reset(pair[1]);
        ::shutdown(pair[1], SHUT_WR);
        input.bytes = *options.standardInput;
    }

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (options.standardInput)
        posix_spawn_file_actions_adddup2(&actions, inputRead.get(), STDIN_FILENO);
    else
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outWrite.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errWrite.get(), STDERR_FILENO);

    pid_t pid = -1;
    const int spawnError = Spawn::inOwnGroup(pid, executable, arguments, actions);
    posix_spawn_file_actions_destroy(&actions);
    outWrite.reset();
    errWrite.reset();
    inputRead.reset();
    if (spawnError != 0) return LaunchFailed{fmt::format("could not start {}: {}", executable, errnoText(spawnError))};

    const auto timeout = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(std::isfinite(timeoutSec) ? std::max(0.0, timeoutSec) : 0.0));
    const Clock::time_point deadline = Clock::now() + timeout;
    int status = 0;
    for (;;) {
        feed(input);
        drain(out, options.outputLimitBytes);
        drain(err, options.outputLimitBytes);
        if (reapWithoutBlocking(pid, status)) {
            // Whatever is still buffered in the pipes belongs to the result.
            drain(out, options.outputLimitBytes);
            drain(err, options.outputLimitBytes);
            return finished(status, out, err);
        }
        const Clock::time_point now = Clock::now();
        if (now >= deadline) break;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count();
        waitForOutput(out, err, static_cast<int>(std::clamp<long long>(left, 1, pollIntervalMs)), &input);
    }

    input.fd.reset();
    ::kill(-pid, SIGTERM);
    const Clock::time_point graceEnd =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(std::max(0.0, options.terminateGraceSec)));
    bool reaped = false;
    while (Clock::now() < graceEnd) {
        drain(out, options.outputLimitBytes);
        drain(err, options.outputLimitBytes);
        if (reapWithoutBlocking(pid, status)) {
            reaped = true;
            break;
        }
        waitForOutput(out, err, pollIntervalMs);
    }
    // Whatever the child left in its group goes too; the child itself is reaped before returning.
    ::kill(-pid, SIGKILL);
    if (!reaped) reapBlocking(pid, status);
    drain(out, options.outputLimitBytes);
    drain(err, options.outputLimitBytes);
    return TimedOut{timeoutSec, std::move(out.bytes), std::move(err.bytes)};
}

std::string describe(const Outcome& outcome) {
    if (const auto* f = std::get_if<Finished>(&outcome)) {
        if (f->terminatingSignal) return fmt::format("signal {}", *f->terminatingSignal);
        return fmt::format("exit status {}", f->exitStatus);
    }
    if (const auto* t = std::get_if<TimedOut>(&outcome)) return fmt::format("timed out after {:g}s", t->timeoutSec);
    return std::get<LaunchFailed>(outcome).reason;
}

}  // namespace aimwise::BoundedProcess
