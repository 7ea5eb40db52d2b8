#include "CaptureShared/dataroot/executable_path.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace aimwise::ExecutablePath {

std::filesystem::path resolveSelf() {
    std::vector<char> buffer(256);
    for (;;) {
        const ssize_t n = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
        if (n < 0)
            throw ExecutablePathError{"readlink(/proc/self/exe) failed (" + std::string(std::strerror(errno)) + ")"};
        if (static_cast<size_t>(n) < buffer.size()) {
            const std::string path(buffer.data(), static_cast<size_t>(n));
            if (path.empty() || path[0] != '/')
                throw ExecutablePathError{"expected an absolute path, got \"" + path + "\""};
            std::error_code ec;
            auto resolved = std::filesystem::canonical(path, ec);
            return ec ? std::filesystem::path(path) : resolved;
        }
        buffer.resize(buffer.size() * 2);
    }
}

std::filesystem::path siblingDirectory(const std::filesystem::path& executable) { return executable.parent_path(); }

}  // namespace aimwise::ExecutablePath
