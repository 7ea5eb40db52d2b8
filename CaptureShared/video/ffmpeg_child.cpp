#include "CaptureShared/video/ffmpeg_child.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "CaptureShared/common/text.h"

extern char** environ;

namespace aimwise {

namespace {

constexpr size_t errorTailBytes = 4096;

bool isExecutable(const std::string& path) { return !path.empty() && ::access(path.c_str(), X_OK) == 0; }

std::pair<FileDescriptor, FileDescriptor> makePipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

}  // namespace

std::optional<std::string> FfmpegChild::locate(const Environment& environment) {
    if (auto named = lookup(environment, "AIMCAP_FFMPEG"); named && !named->empty())
        return isExecutable(*named) ? named : std::nullopt;
    std::vector<std::string> candidates;
    const std::string path = lookup(environment, "PATH").value_or("/usr/bin:/bin");
    for (size_t start = 0; start <= path.size();) {
        const size_t colon = std::min(path.find(':', start), path.size());
        if (colon > start) candidates.push_back(path.substr(start, colon - start) + "/ffmpeg");
        start = colon + 1;
    }
    for (const char* usual : {"/usr/bin/ffmpeg", "/usr/local/bin/ffmpeg", "/opt/homebrew/bin/ffmpeg"})
        candidates.push_back(usual);
    for (const auto& candidate : candidates)
        if (isExecutable(candidate)) return candidate;
    return std::nullopt;
}

FfmpegChild::FfmpegChild(const std::string& executable, const std::vector<std::string>& arguments, bool pipeOutput) {
    static const bool ignoringSigpipe = [] { return ::signal(SIGPIPE, SIG_IGN) != SIG_ERR; }();
    (void)ignoringSigpipe;
    auto [inputRead, inputWrite] = makePipe();
    auto [errorRead, errorWrite] = makePipe();
    FileDescriptor outputRead, outputWrite;
    if (pipeOutput) std::tie(outputRead, outputWrite) = makePipe();

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, inputRead.get(), 0);
    if (pipeOutput)
        posix_spawn_file_actions_adddup2(&actions, outputWrite.get(), 1);
    else
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, errorWrite.get(), 2);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);

    std::vector<std::string> argv{executable};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (auto& argument : argv) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    const int result = ::posix_spawn(&pid_, executable.c_str(), &actions, &attributes, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (result != 0) {
        pid_ = -1;
        throw std::system_error(result, std::generic_category(), executable);
    }
    input_ = std::move(inputWrite);
    output_ = std::move(outputRead);
    errorReader_ = std::thread([this, error = std::move(errorRead)] {
        char buffer[4096];
        ssize_t count;
        while ((count = ::read(error.get(), buffer, sizeof buffer)) > 0 || (count < 0 && errno == EINTR)) {
            if (count <= 0) continue;
            errorTail_.append(buffer, static_cast<size_t>(count));
            if (errorTail_.size() > 2 * errorTailBytes) errorTail_.erase(0, errorTail_.size() - errorTailBytes);
        }
    });
}

FfmpegChild::~FfmpegChild() {
    input_.reset();
    output_.reset();
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        wait();
    }
    if (errorReader_.joinable()) errorReader_.join();
}

void FfmpegChild::kill() {
    if (pid_ > 0) ::kill(pid_, SIGKILL);
}

bool FfmpegChild::wait() {
    if (pid_ > 0) {
        while (::waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
    }
    if (errorReader_.joinable()) errorReader_.join();
    return WIFEXITED(status_) && WEXITSTATUS(status_) == 0;
}

std::string FfmpegChild::failureDetail() const {
    std::string tail = trimWhitespaceAndNewlines(errorTail_.size() > errorTailBytes
                                                     ? errorTail_.substr(errorTail_.size() - errorTailBytes)
                                                     : errorTail_);
    if (!tail.empty()) return tail;
    if (WIFSIGNALED(status_)) return "ffmpeg ended on signal " + std::to_string(WTERMSIG(status_));
    return "ffmpeg exited with status " + std::to_string(WEXITSTATUS(status_));
}

}  // namespace aimwise
