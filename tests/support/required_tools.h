#pragma once
// Desktop tests need programs that only scripts/setup puts on a machine. Without them a test skips
// and says which are missing, rather than fail for something that is not a fault of ours.
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace aimwise::testing {

// "needs sway, foot (scripts/setup installs them)" when any program (a name looked up in PATH, or an
// absolute path) is missing; nothing when all are there.
inline std::optional<std::string> missingTools(const std::vector<std::string>& programs) {
    const char* pathVariable = std::getenv("PATH");
    const std::string path = pathVariable ? pathVariable : "";
    std::string missing;
    for (const std::string& program : programs) {
        bool found = program.starts_with('/') && std::filesystem::exists(program);
        for (size_t at = 0; !found && !program.starts_with('/') && at < path.size();) {
            const size_t end = std::min(path.find(':', at), path.size());
            found = std::filesystem::exists(std::filesystem::path(path.substr(at, end - at)) / program);
            at = end + 1;
        }
        if (!found) missing += (missing.empty() ? "" : ", ") + program;
    }
    if (missing.empty()) return std::nullopt;
    return "needs " + missing + " (scripts/setup installs them)";
}

}  // namespace aimwise::testing
