#pragma once
// Where a background agent's standard streams go. Only an agent started by the service manager
// redirects them; a command run by hand keeps its terminal.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "CaptureShared/common/environment.h"

namespace aimwise::AgentLogging {

// ${XDG_STATE_HOME:-~/.local/state}
std::filesystem::path logsRoot();
std::filesystem::path logURL(const std::string& subdirectory, const std::string& name);
std::filesystem::path rotatedURL(const std::filesystem::path& log);

// Parent process 1, or systemd's INVOCATION_ID in the environment.
bool startedByServiceManager(int parentPid, const Environment& environment);

std::optional<std::filesystem::path> redirectStandardStreams(const std::string& subdirectory, const std::string& name);
// True when the log was moved aside.
bool rotateIfNeeded(const std::string& subdirectory, const std::string& name, uint64_t maxBytes);
// Applies config.json to the environment, then, for a service-started agent, rotates and redirects.
std::optional<std::filesystem::path> bootstrap(const std::string& subdirectory, const std::string& name,
                                               std::optional<uint64_t> maxBytes, double rotationCheckIntervalSec);

// Appends "[AgentLogging] message" to `log`; errors are swallowed.
void note(const std::filesystem::path& log, const std::string& message);

}  // namespace aimwise::AgentLogging
