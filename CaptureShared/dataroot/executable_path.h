#pragma once
#include <filesystem>
#include <string>

#include "CaptureShared/common/error.h"

namespace aimwise {

struct ExecutablePathError : Error {
    explicit ExecutablePathError(std::string detail)
        : Error("could not resolve own executable path: " + detail), detail(std::move(detail)) {}
    std::string detail;
};

namespace ExecutablePath {

// The running executable with symbolic links resolved. Throws ExecutablePathError.
std::filesystem::path resolveSelf();
std::filesystem::path siblingDirectory(const std::filesystem::path& executable);

}  // namespace ExecutablePath
}  // namespace aimwise
