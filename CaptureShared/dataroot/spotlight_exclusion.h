#pragma once
// Keeping the data root out of desktop search indexes. The markers that macOS honours mean nothing
// to Linux indexers, and none of them reads a per-directory opt-out file, so on Linux each
// operation does nothing. Callers still ask, so that another platform can fill these in.
#include <filesystem>

namespace aimwise::SpotlightExclusion {

void ensureMarker(const std::filesystem::path& directory);
bool rootLooksOwned(const std::filesystem::path& root);
void ensureDataRoot(const std::filesystem::path& root, bool rootLooksOwned, const std::filesystem::path& home);

}  // namespace aimwise::SpotlightExclusion
