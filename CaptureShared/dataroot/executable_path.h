#pragma once
#include <filesystem>
#include <string>

namespace aimwise {

struct ExecutablePathError {
    std::string detail;
    std::string description() const { return "could not resolve own executable path: " + detail; }
};

namespace ExecutablePath {

// The running executable with symbolic links resolved. Throws ExecutablePathError.
std::filesystem::path resolveSelf();
std::filesystem::path siblingDirectory(const std::filesystem::path& executable);

}  // namespace ExecutablePath
}  // namespace aimwise
