#include "CaptureShared/dataroot/data_root_presence.h"

#include <sys/stat.h>

#include "CaptureShared/dataroot/data_root_layout.h"

namespace aimwise::DataRootPresence {

namespace fs = std::filesystem;

namespace {

bool present(const fs::path& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

}  // namespace

bool holdsSystemFiles(const fs::path& root) {
    for (const DataRootLayout::Entry& entry : DataRootLayout::entries())
        if (const auto* exact = std::get_if<DataRootLayout::Exact>(&entry.name); exact && present(root / exact->name))
            return true;
    return false;
}

bool readyForNewSignals(const fs::path& root) {
    return present(root / "signals.sqlite") || present(root / "manifest.json");
}

std::string emptyRootSentence(const fs::path& root) {
    return "nothing was written: the data root " + root.string() +
           " holds none of this system's files, which is how the mount point of an unmounted disk looks. "
           "Mount the disk, or run `aimwise init " +
           root.string() + "` to start a new data root there";
}

std::string unpreparedRootSentence(const fs::path& root) {
    return "the data root " + root.string() +
           " holds no signals.sqlite and was not prepared by `aimwise init`, which is how the mount point of an "
           "unmounted disk looks; recording nothing until the disk is mounted or `aimwise init " +
           root.string() + "` prepares it";
}

}  // namespace aimwise::DataRootPresence
