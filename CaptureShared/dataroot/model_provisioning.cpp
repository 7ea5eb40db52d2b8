#include "CaptureShared/dataroot/model_provisioning.h"

#include <unistd.h>

namespace aimwise::ModelProvisioning {

std::optional<std::string> recommendedDefaultModel(uint64_t physicalMemoryBytes) {
    constexpr uint64_t gib = 1024ULL * 1024 * 1024;
    // Firmware and the GPU keep a little back, so a "16 GB" machine reports somewhat less.
    if (physicalMemoryBytes >= 15 * gib) return "gemma4:12b-it-qat";
    if (physicalMemoryBytes >= 7 * gib) return "gemma4:4b-it-qat";
    return std::nullopt;
}

uint64_t physicalMemoryBytes() {
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long pageSize = ::sysconf(_SC_PAGESIZE);
    if (pages <= 0 || pageSize <= 0) return 0;
    return static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize);
}

}  // namespace aimwise::ModelProvisioning
