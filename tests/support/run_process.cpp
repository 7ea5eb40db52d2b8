#include "tests/support/run_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace aimwise::testing {

std::string verdictBenchPath() {
#ifdef VERDICT_BENCH_PATH
    return VERDICT_BENCH_PATH;
#else
    if (const char* path = std::getenv("VERDICT_BENCH_PATH")) return path;
    throw std::runtime_error("VERDICT_BENCH_PATH is not defined for this test program");
#endif
}

std::map<std::string, std::string> verdictBenchEnvironment(const std::string& dir, const std::string& endpoint) {
    return {{"AIMCAP_DATA_ROOT", dir + "/root"}, {"XDG_DATA_HOME", dir + "/xdg"},
            {"XDG_STATE_HOME", dir + "/state"},  {"HOME", dir + "/home"},
            {"AIMCAP_LOCAL_INFERENCE_ENDPOINT", endpoint}, {"AIMCHECK_MODEL", "judge-model"}};
}

ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments,
                         const ProcessOptions& options) {
    int out[2], err[2], in[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0 || pipe2(in, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");

    std::map<std::string, std::string> env;
    for (char** e = environ; !options.clearEnvironment && e && *e; ++e) {
        const char* eq = std::strchr(*e, '=');
        if (eq) env[std::string(*e, static_cast<size_t>(eq - *e))] = eq + 1;
    }
    for (const auto& key : options.unset) env.erase(key);
    for (const auto& [key, value] : options.environment) env[key] = value;
    std::vector<std::string> envStrings;
    for (const auto& [key, value] : env) envStrings.push_back(key + "=" + value);
    std::vector<char*> envp;
    for (auto& s : envStrings) envp.push_back(s.data());
    envp.push_back(nullptr);

    std::vector<std::string> argStrings{program};
    argStrings.insert(argStrings.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& s : argStrings) argv.push_back(s.data());
    argv.push_back(nullptr);

    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        execve(program.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    if (options.standardInput) {
        const std::string& input = *options.standardInput;
        size_t written = 0;
        while (written < input.size()) {
            const ssize_t n = write(in[1], input.data() + written, input.size() - written);
            if (n <= 0) break;
            written += static_cast<size_t>(n);
        }
    }
    close(in[1]);

    ProcessResult result;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.standardOutput, &result.standardError};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options.timeoutSec);
    int open = 2;
    while (open > 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            kill(pid, SIGKILL);
            break;
        }
        if (poll(fds, 2, static_cast<int>(left.count())) < 0) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buffer[65536];
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n <= 0) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            } else {
                sinks[i]->append(buffer, static_cast<size_t>(n));
            }
        }
    }
    for (auto& fd : fds)
        if (fd.fd >= 0) close(fd.fd);
    int status = 0;
    waitpid(pid, &status, 0);
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

}  // namespace aimwise::testing
