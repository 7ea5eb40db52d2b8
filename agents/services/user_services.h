#pragma once
// systemd user units for the agents: the capture agent, and the classifier's tick timer when the
// build carries it. The unit texts are fixed at build time with the paths of the built programs.
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "CaptureShared/common/environment.h"

namespace aimwise::UserServices {

struct UnitFile {
    std::string name;
    std::string text;
};

// The units this build carries, in a fixed order.
const std::vector<UnitFile>& embeddedUnits();

// ${XDG_CONFIG_HOME:-~/.config}/systemd/user
std::filesystem::path unitDirectory(const Environment& environment);

// What to enable: timers, and services that no timer of the same name starts.
std::vector<std::string> unitsToEnable(const std::vector<UnitFile>& units);

// AIMWISE_SYSTEMCTL, else "systemctl".
std::string systemctl(const Environment& environment);

enum class Start { now, later };

// Runs `systemctl --user ARGUMENTS`, passing its output on; the exit status, 127 when it could not run.
int runSystemctl(const Environment& environment, std::vector<std::string> arguments);

struct UnitState {
    bool installed = false;  // its file is in unitDirectory
    // What `systemctl --user is-active` said ("active", "inactive", "failed", ...); nothing when it
    // could not be asked.
    std::optional<std::string> activeState;
};
UnitState unitState(const Environment& environment, const std::string& name);

// Writes the units, reloads the user manager and enables them. Returns the exit status and
// reports on standard output and standard error.
int install(const Environment& environment, Start start);
// Stops and disables the units, the model server's among them, removes their files and reloads
// the user manager.
int uninstall(const Environment& environment);

}  // namespace aimwise::UserServices
