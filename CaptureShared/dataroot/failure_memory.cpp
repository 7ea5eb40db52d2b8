#include "CaptureShared/dataroot/failure_memory.h"

#include <unistd.h>

#include "CaptureShared/common/atomic_file.h"

namespace aimwise::FailureMemory {

bool isNew(const std::filesystem::path& file, const std::string& description) {
    try {
        if (readWholeFile(file, ReadLimit::setting) == description) return false;
    } catch (const std::filesystem::filesystem_error&) {
        // Nothing remembered yet, or unreadable: said.
    }
    try {
        std::filesystem::create_directories(file.parent_path());
        writeFileAtomically(file, description, 0600, Durability::unsynced);
    } catch (const std::filesystem::filesystem_error&) {
        // Not remembered: said again next time, which is noise, never silence.
    }
    return true;
}

void forget(const std::filesystem::path& file) { ::unlink(file.c_str()); }

}  // namespace aimwise::FailureMemory
