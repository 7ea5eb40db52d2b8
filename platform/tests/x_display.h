#pragma once
// A private X server (Xvfb) and windows on it, for tests that need a real screen. Missing programs
// are failures, never skips: these tests are the only proof that capture works.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/screen_rect.h"

extern char** environ;

namespace aimwise::testing {

inline std::string testWindowProgram() { return AIMWISE_BINARY_DIR "/tests/aimwise-test-window"; }
inline std::string ocrHelperProgram() { return AIMWISE_BINARY_DIR "/bin/aimwise-ocr"; }

namespace xdetail {

struct Child {
    pid_t pid = -1;
    int readFd = -1;
};

// Starts `argv` with DISPLAY replaced and its stdout (or fd 3, for Xvfb) on a pipe.
inline Child spawn(const std::vector<std::string>& argv, const std::string& display, int reportFd) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e)
        if (std::strncmp(*e, "DISPLAY=", 8) != 0) envStrings.emplace_back(*e);
    if (!display.empty()) envStrings.push_back("DISPLAY=" + display);
    std::vector<char*> envp, args;
    for (auto& s : envStrings) envp.push_back(s.data());
    envp.push_back(nullptr);
    std::vector<std::string> argCopy = argv;
    for (auto& s : argCopy) args.push_back(s.data());
    args.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, fds[1], reportFd);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (rc != 0) {
        close(fds[0]);
        throw std::runtime_error(argv[0] + " could not be started: " + std::strerror(rc) +
                                 " (scripts/setup installs it)");
    }
    return Child{pid, fds[0]};
}

// The first line the child writes, within `timeoutMs`; empty when it wrote none.
inline std::string firstLine(int fd, int timeoutMs) {
    std::string line;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (line.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0) return {};
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        char buffer[256];
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) return {};
        line.append(buffer, static_cast<size_t>(n));
    }
    return line.substr(0, line.find('\n'));
}

inline void stop(Child& child) {
    if (child.pid > 0) {
        kill(child.pid, SIGTERM);
        int status = 0;
        waitpid(child.pid, &status, 0);
    }
    if (child.readFd >= 0) close(child.readFd);
    child = {};
}

}  // namespace xdetail

class XvfbDisplay {
public:
    explicit XvfbDisplay(int width = 1280, int height = 800) {
        // -displayfd lets the server pick a free display number and report it once it accepts clients.
        // -noreset: otherwise the server resets when its last client leaves, and a window opened
        // during that reset is refused.
        child_ = xdetail::spawn({"Xvfb", "-displayfd", "3", "-screen", "0",
                                 std::to_string(width) + "x" + std::to_string(height) + "x24", "-nolisten", "tcp",
                                 "-noreset"},
                                "", 3);
        const std::string number = xdetail::firstLine(child_.readFd, 15000);
        if (number.empty()) {
            xdetail::stop(child_);
            throw std::runtime_error("Xvfb did not report a display within 15 s");
        }
        name_ = ":" + number;
    }
    ~XvfbDisplay() { xdetail::stop(child_); }
    XvfbDisplay(const XvfbDisplay&) = delete;
    XvfbDisplay& operator=(const XvfbDisplay&) = delete;

    const std::string& name() const { return name_; }

private:
    xdetail::Child child_;
    std::string name_;
};

class TestWindow {
public:
    TestWindow(const XvfbDisplay& display, const std::string& windowClass, ScreenRect rect,
               const std::vector<std::string>& lines = {}, double points = 28) {
        std::vector<std::string> argv{testWindowProgram(), "--class", windowClass, "--geometry",
                                      std::to_string(int(rect.width)) + "x" + std::to_string(int(rect.height)) +
                                          "+" + std::to_string(int(rect.x)) + "+" + std::to_string(int(rect.y)),
                                      "--size", std::to_string(points)};
        for (const auto& line : lines) argv.insert(argv.end(), {"--line", line});
        child_ = xdetail::spawn(argv, display.name(), STDOUT_FILENO);
        if (xdetail::firstLine(child_.readFd, 15000) != "ready") {
            xdetail::stop(child_);
            throw std::runtime_error("test window " + windowClass + " did not appear");
        }
    }
    ~TestWindow() { xdetail::stop(child_); }
    TestWindow(const TestWindow&) = delete;
    TestWindow& operator=(const TestWindow&) = delete;

private:
    xdetail::Child child_;
};

}  // namespace aimwise::testing
