#include "agents/aimwise/first_run.h"

#include <cctype>

#include "CaptureShared/dataroot/data_paths.h"

namespace aimwise::FirstRun {

namespace {

constexpr const char* captureUnit = "aimwise-capture.service";

}  // namespace

std::optional<std::string> dataRootProblem() {
    if (DataPaths::isDataRootAvailable()) return std::nullopt;
    if (DataPaths::dataRootSource() == DataPaths::RootSource::environment && DataPaths::dataRoot().empty())
        return "AIMCAP_DATA_ROOT is set to nothing — unset it, and run `aimwise init PATH` if no data root is set up";
    if (DataPaths::dataRootSource() != DataPaths::RootSource::unconfigured)
        return "the data root " + DataPaths::dataRoot().string() +
               " is not there (an unmounted disk?) — mount it, or run `aimwise init PATH` to choose another";
    if (DataPaths::configFileExistsButFailedToParse())
        return DataPaths::configPath().string() +
               " is not a valid settings file, so no data root is known — fix it by hand, or move it aside and run "
               "`aimwise init PATH`";
    return "there is no data root yet — run `aimwise init PATH` to choose where captured data lives";
}

std::string dataRootLine() {
    std::optional<std::string> problem = dataRootProblem();
    if (!problem) return "Data root: " + DataPaths::dataRoot().string();
    (*problem)[0] = static_cast<char>(std::toupper(static_cast<unsigned char>((*problem)[0])));
    return *problem;
}

std::string noSignalsLine(const UserServices::UnitState& capture) {
    const std::string unit = captureUnit;
    const std::string none = "Signals: none yet — ";
    if (!capture.installed)
        return none + "the capture service is not installed; run `aimwise install-services` to record in the background";
    if (!capture.activeState)
        return none + "the capture service is installed, but systemctl --user could not say whether it runs";
    if (*capture.activeState == "active" || *capture.activeState == "activating")
        return none + "the capture service is running, and its first sample comes within a minute (if not, see "
                      "journalctl --user -u " + unit + ")";
    if (*capture.activeState == "failed")
        return none + "the capture service failed; journalctl --user -u " + unit +
               " says why, and systemctl --user restart " + unit + " tries again";
    return none + "the capture service is installed but not running (" + *capture.activeState +
           "); start it with systemctl --user start " + unit;
}

}  // namespace aimwise::FirstRun
