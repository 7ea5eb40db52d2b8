#include "CaptureShared/dataroot/agent_logging.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "CaptureShared/dataroot/agent_config.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "CaptureShared/dataroot/spotlight_exclusion.h"

namespace aimwise::AgentLogging {

namespace fs = std::filesystem;

fs::path logsRoot() {
    auto state = getEnv("XDG_STATE_HOME");
    if (state && !state->empty() && (*state)[0] == '/') return fs::path(*state);
    return DataPaths::homeDirectory() / ".local" / "state";
}

fs::path logURL(const std::string& subdirectory, const std::string& name) {
    return logsRoot() / subdirectory / (name + ".log");
}

fs::path rotatedURL(const fs::path& log) { return fs::path(log.string() + ".1"); }

bool startedByServiceManager(int parentPid, const Environment& environment) {
    return parentPid == 1 || environment.contains("INVOCATION_ID");
}

std::optional<fs::path> redirectStandardStreams(const std::string& subdirectory, const std::string& name) {
    const fs::path log = logURL(subdirectory, name);
    std::error_code ec;
    fs::create_directories(log.parent_path(), ec);
    if (ec) return std::nullopt;
    // Open once first so that a failure leaves both streams where they were.
    const int fd = ::open(log.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return std::nullopt;
    ::close(fd);
    if (!std::freopen(log.c_str(), "a", stdout)) return std::nullopt;
    if (!std::freopen(log.c_str(), "a", stderr)) return std::nullopt;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::setvbuf(stderr, nullptr, _IONBF, 0);
    SpotlightExclusion::ensureMarker(log.parent_path());
    return log;
}

void note(const fs::path& log, const std::string& message) {
    const int fd = ::open(log.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return;
    const std::string line = "[AgentLogging] " + message + "\n";
    [[maybe_unused]] ssize_t ignored = ::write(fd, line.data(), line.size());
    ::close(fd);
}

bool rotateIfNeeded(const std::string& subdirectory, const std::string& name, uint64_t maxBytes) {
    const fs::path log = logURL(subdirectory, name);
    std::error_code ec;
    const uintmax_t size = fs::file_size(log, ec);
    if (ec || size < maxBytes) return false;
    const fs::path old = rotatedURL(log);
    fs::remove(old, ec);
    fs::rename(log, old, ec);
    if (ec) return false;
    note(log, "log rotated at " + std::to_string(size) + " bytes (cap " + std::to_string(maxBytes) +
                  ") — previous generation is " + old.filename().string() +
                  ". A child process that inherited this log before the rotation keeps writing to that older file "
                  "until it restarts.");
    return true;
}

std::optional<fs::path> bootstrap(const std::string& subdirectory, const std::string& name,
                                  std::optional<uint64_t> maxBytes, double rotationCheckIntervalSec) {
    // No build-carried credential on this platform.
    AgentConfig::bootstrapProcessEnvironment(std::nullopt, std::nullopt);
    if (!startedByServiceManager(static_cast<int>(::getppid()), processEnvironment())) return std::nullopt;
    if (!maxBytes) return redirectStandardStreams(subdirectory, name);

    rotateIfNeeded(subdirectory, name, *maxBytes);
    auto log = redirectStandardStreams(subdirectory, name);
    if (log) {
        // Long-running agents only: a detached thread stands in for a timer on a run loop.
        std::thread([subdirectory, name, bytes = *maxBytes, rotationCheckIntervalSec] {
            const auto interval = std::chrono::duration<double>(rotationCheckIntervalSec);
            for (;;) {
                std::this_thread::sleep_for(interval);
                // This process holds the moved file open too; follow the log to its new file.
                if (rotateIfNeeded(subdirectory, name, bytes)) redirectStandardStreams(subdirectory, name);
            }
        }).detach();
    }
    return log;
}

}  // namespace aimwise::AgentLogging
