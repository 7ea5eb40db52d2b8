#include "agents/services/user_services.h"

#include <algorithm>
#include <cstdio>
#include <system_error>

#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "agents/services/model_server_unit.h"
#include "platform/bounded_process.h"

namespace aimwise::UserServices {

namespace fs = std::filesystem;

namespace {

constexpr double systemctlTimeoutSec = 30.0;

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

int runSystemctl(const Environment& environment, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "--user");
    const std::string program = systemctl(environment);
    const auto outcome = BoundedProcess::run(program, arguments, systemctlTimeoutSec);
    const auto* finished = std::get_if<BoundedProcess::Finished>(&outcome);
    if (!finished) {
        std::fprintf(stderr, "aimwise: %s %s: %s\n", program.c_str(), join(arguments, " ").c_str(),
                     BoundedProcess::describe(outcome).c_str());
        return 127;
    }
    std::fputs(finished->standardOutput.c_str(), stdout);
    std::fputs(finished->standardError.c_str(), stderr);
    return finished->succeeded() ? 0 : finished->terminatingSignal ? 128 : finished->exitStatus;
}

UnitState unitState(const Environment& environment, const std::string& name) {
    UnitState state;
    std::error_code error;
    state.installed = fs::exists(unitDirectory(environment) / name, error);
    const auto outcome = BoundedProcess::run(systemctl(environment), {"--user", "is-active", name}, 10.0);
    if (const auto* finished = std::get_if<BoundedProcess::Finished>(&outcome)) {
        const std::string said = trimWhitespaceAndNewlines(finished->standardOutput);
        if (!said.empty() && said.find(' ') == std::string::npos) state.activeState = said;
    }
    return state;
}

fs::path unitDirectory(const Environment& environment) {
    const auto configHome = lookup(environment, "XDG_CONFIG_HOME");
    const fs::path base = configHome && !configHome->empty() ? fs::path(*configHome)
                                                             : DataPaths::homeDirectory() / ".config";
    return base / "systemd" / "user";
}

std::vector<std::string> unitsToEnable(const std::vector<UnitFile>& units) {
    std::vector<std::string> names;
    for (const auto& unit : units) {
        if (endsWith(unit.name, ".timer")) {
            names.push_back(unit.name);
        } else if (endsWith(unit.name, ".service")) {
            const std::string timer = unit.name.substr(0, unit.name.size() - 8) + ".timer";
            const bool timed = std::any_of(units.begin(), units.end(), [&](const auto& u) { return u.name == timer; });
            if (!timed) names.push_back(unit.name);
        }
    }
    return names;
}

std::string systemctl(const Environment& environment) {
    const auto custom = lookup(environment, "AIMWISE_SYSTEMCTL");
    return custom && !custom->empty() ? *custom : "systemctl";
}

int install(const Environment& environment, Start start) {
    const fs::path directory = unitDirectory(environment);
    std::error_code error;
    fs::create_directories(directory, error);
    for (const auto& unit : embeddedUnits()) {
        try {
            writeFileAtomically(directory / unit.name, unit.text, 0644);
        } catch (const fs::filesystem_error& failure) {
            std::fprintf(stderr, "FAIL: could not write %s: %s\n", (directory / unit.name).c_str(), failure.what());
            return 1;
        }
        std::printf("wrote %s\n", (directory / unit.name).c_str());
    }

    const std::vector<std::string> enable = unitsToEnable(embeddedUnits());
    std::vector<std::string> arguments{"enable"};
    if (start == Start::now) arguments.push_back("--now");
    arguments.insert(arguments.end(), enable.begin(), enable.end());
    const int reload = runSystemctl(environment, {"daemon-reload"});
    const int enabled = reload == 0 ? runSystemctl(environment, arguments) : reload;
    if (enabled != 0) {
        std::fprintf(stderr,
                     "FAIL: the unit files are in place, but systemctl --user could not %s them (status %d). From "
                     "a terminal of your desktop session run: systemctl --user daemon-reload && systemctl --user "
                     "enable --now %s\n",
                     reload == 0 ? "enable" : "load", enabled, join(enable, " ").c_str());
        return 1;
    }
    std::printf("enabled %s%s\n", join(enable, ", ").c_str(), start == Start::now ? " and started them" : "");
    return 0;
}

int uninstall(const Environment& environment) {
    const fs::path directory = unitDirectory(environment);
    std::vector<std::string> names;
    for (const auto& unit : embeddedUnits())
        if (fs::exists(directory / unit.name)) names.push_back(unit.name);
    if (fs::exists(directory / ModelServerUnit::unitName)) names.push_back(ModelServerUnit::unitName);
    if (names.empty()) {
        std::printf("no aimwise units installed in %s\n", directory.c_str());
        return 0;
    }
    std::vector<std::string> disable{"disable", "--now"};
    disable.insert(disable.end(), names.begin(), names.end());
    // Units the manager never loaded cannot be disabled; their files go all the same.
    const int disabled = runSystemctl(environment, disable);
    int status = 0;
    for (const auto& name : names) {
        std::error_code error;
        if (fs::remove(directory / name, error)) {
            std::printf("removed %s\n", (directory / name).c_str());
        } else if (error) {
            std::fprintf(stderr, "FAIL: could not remove %s: %s\n", (directory / name).c_str(), error.message().c_str());
            status = 1;
        }
    }
    runSystemctl(environment, {"daemon-reload"});
    if (disabled != 0)
        std::fprintf(stderr, "note: systemctl --user disable exited with status %d; the unit files are removed\n",
                     disabled);
    return status;
}

}  // namespace aimwise::UserServices
