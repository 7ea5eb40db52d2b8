#include "tests/support/x_display.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <random>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace aimwise::testing {

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const Options& options) {
    std::vector<std::string> env;
    for (char** e = environ; e && *e; ++e) {
        const std::string entry = *e;
        if (!options.environment.contains(entry.substr(0, entry.find('=')))) env.push_back(entry);
    }
    for (const auto& [key, value] : options.environment) env.push_back(key + "=" + value);
    std::vector<char*> args, envp;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);

    int report[2] = {-1, -1};
    if (options.reportFd >= 0 && pipe2(report, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        const int null = open("/dev/null", O_RDWR);
        dup2(null, STDIN_FILENO);
        dup2(null, STDOUT_FILENO);
        if (!options.standardError.empty()) {
            const int err = open(options.standardError.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
            if (err >= 0) dup2(err, STDERR_FILENO);
        }
        if (options.reportFd >= 0) {
            if (report[1] == options.reportFd) fcntl(report[1], F_SETFD, 0);
            else dup2(report[1], options.reportFd);
        }
        execvpe(args[0], args.data(), envp.data());
        _exit(127);
    }
    if (options.reportFd >= 0) {
        close(report[1]);
        reportRead_ = report[0];
    }
}

std::string ChildProcess::firstLine(int timeoutMs) {
    std::string line;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (reportRead_ >= 0 && line.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0) return {};
        pollfd p{reportRead_, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        char buffer[256];
        const ssize_t n = read(reportRead_, buffer, sizeof buffer);
        if (n <= 0) return {};
        line.append(buffer, static_cast<size_t>(n));
    }
    return line.substr(0, line.find('\n'));
}

int ChildProcess::stop() {
    if (reportRead_ >= 0) close(reportRead_);
    reportRead_ = -1;
    if (pid_ <= 0) return status_;
    ::kill(pid_, SIGTERM);
    int status = 0;
    for (int i = 0; i < 100; ++i) {
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ::kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status_ = -1;
}

bool ChildProcess::running() {
    if (pid_ <= 0) return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return false;
    }
    return true;
}

XvfbDisplay::XvfbDisplay(Number number, std::filesystem::path log) : log_(std::move(log)) {
    if (number == Number::anyFree) {
        if (!start("")) throw std::runtime_error("Xvfb did not report a display within 15 s (scripts/setup installs it)");
        return;
    }
    std::mt19937 random(std::random_device{}());
    for (int attempt = 0; attempt < 20; ++attempt) {
        const std::string candidate = std::to_string(400 + random() % 500);
        if (std::filesystem::exists("/tmp/.X" + candidate + "-lock")) continue;
        if (start(candidate)) return;  // otherwise another server took the number first
    }
    throw std::runtime_error("Xvfb found no free display number (is it installed? scripts/setup installs it)");
}

void XvfbDisplay::restart() {
    server_.reset();
    if (!start(name_.substr(1))) throw std::runtime_error("Xvfb " + name_ + " did not start again");
}

bool XvfbDisplay::start(const std::string& number) {
    // The server writes its number to the -displayfd descriptor once it accepts clients, also when the
    // number was given. -noreset: otherwise the server resets when its last client leaves, and a
    // window opened during that reset is refused.
    std::vector<std::string> argv{"Xvfb"};
    if (!number.empty()) argv.push_back(":" + number);
    for (const char* arg : {"-displayfd", "3", "-screen", "0", "1280x800x24", "-nolisten", "tcp", "-noreset"})
        argv.push_back(arg);
    server_ = std::make_unique<ChildProcess>(argv, ChildProcess::Options{.standardError = log_, .reportFd = 3});
    const std::string reported = server_->firstLine(15000);
    if (reported.empty() || (!number.empty() && reported != number)) {
        server_.reset();
        return false;
    }
    name_ = ":" + reported;
    return true;
}

TestWindow::TestWindow(const XvfbDisplay& display, const std::string& windowClass, ScreenRect rect,
                       const std::vector<std::string>& lines, double points) {
    std::vector<std::string> argv{testWindowProgram(), "--class", windowClass, "--geometry",
                                  std::to_string(int(rect.width)) + "x" + std::to_string(int(rect.height)) + "+" +
                                      std::to_string(int(rect.x)) + "+" + std::to_string(int(rect.y)),
                                  "--size", std::to_string(points)};
    for (const auto& line : lines) argv.insert(argv.end(), {"--line", line});
    process_ = std::make_unique<ChildProcess>(
        argv, ChildProcess::Options{.environment = {{"DISPLAY", display.name()}}, .reportFd = STDOUT_FILENO});
    if (process_->firstLine(15000) != "ready") throw std::runtime_error("test window " + windowClass + " did not appear");
}

}  // namespace aimwise::testing
