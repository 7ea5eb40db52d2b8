#pragma once
// Desktop tests need programs that only scripts/setup puts on a machine. Without them a test skips
// and says which are missing, rather than fail for something that is not a fault of ours.
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/bounded_process.h"

namespace aimwise::testing {

// "needs sway, foot (scripts/setup installs them)" when any program (looked up in PATH, or an
// absolute path) is missing.
inline std::optional<std::string> missingTools(const std::vector<std::string>& programs) {
    std::string missing;
    for (const std::string& program : programs)
        if (program.starts_with('/') ? !std::filesystem::exists(program) : !BoundedProcess::findInPath(program))
            missing += (missing.empty() ? "" : ", ") + program;
    if (missing.empty()) return std::nullopt;
    return "needs " + missing + " (scripts/setup installs them)";
}

}  // namespace aimwise::testing
