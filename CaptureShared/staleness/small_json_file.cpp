#include "CaptureShared/staleness/small_json_file.h"

#include "CaptureShared/common/atomic_file.h"

namespace aimwise::SmallJSONFile {

namespace fs = std::filesystem;

std::optional<std::string> read(const fs::path& path) {
    try {
        return readWholeFile(path, maxBytes);
    } catch (const fs::filesystem_error&) {
        return std::nullopt;
    }
}

void replace(const fs::path& path, const std::string& contents) {
    if (path.has_parent_path()) fs::create_directories(path.parent_path());
    writeFileAtomically(path, contents, 0600);
}

void remove(const fs::path& path) {
    std::error_code ignored;
    fs::remove(path, ignored);
}

}  // namespace aimwise::SmallJSONFile
