#pragma once
// Whether a directory is a data root in use or an empty stand-in for one. When the disk that holds
// the data root is unmounted, its mount point stays behind as an empty directory on the system disk;
// writing there would fill the wrong disk and split the record in two, so writers wait instead.
#include <filesystem>
#include <string>

namespace aimwise::DataRootPresence {

// True when `root` holds at least one top-level entry of the inventory.
bool holdsSystemFiles(const std::filesystem::path& root);
// True when the capture agent may start a new signals.sqlite in `root`: `aimwise init` left its
// manifest there, or a signals.sqlite already is.
bool readyForNewSignals(const std::filesystem::path& root);

// What a writer of the logs says at a root that holds none of the system's files.
std::string emptyRootSentence(const std::filesystem::path& root);
// What the capture agent says at a root that `aimwise init` did not prepare.
std::string unpreparedRootSentence(const std::filesystem::path& root);

}  // namespace aimwise::DataRootPresence
