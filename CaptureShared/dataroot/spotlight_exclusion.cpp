#include "CaptureShared/dataroot/spotlight_exclusion.h"

namespace aimwise::SpotlightExclusion {

void ensureMarker(const std::filesystem::path&) {}
bool rootLooksOwned(const std::filesystem::path&) { return false; }
void ensureDataRoot(const std::filesystem::path&, bool, const std::filesystem::path&) {}

}  // namespace aimwise::SpotlightExclusion
