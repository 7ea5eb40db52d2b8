#pragma once
// Where the data root is, and the named paths inside it and the support directory.
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "CaptureShared/common/error.h"

namespace aimwise {

namespace fs = std::filesystem;

// Raised by the writers of config.json; see AgentConfig for the rendered words.
struct ConfigWriteError : Error {
    enum class Kind { unsupportedKeys, malformedConfig };
    ConfigWriteError(Kind kind, std::vector<std::string> keys, std::string reason, fs::path path);
    Kind kind;
    std::vector<std::string> keys;  // unsupportedKeys
    std::string reason;             // malformedConfig
    fs::path path;                  // the file refused; empty means DataPaths::configPath()
};

namespace DataPaths {

enum class RootSource { environment, configFile, unconfigured };
std::string rawValue(RootSource source);

// ${XDG_DATA_HOME:-~/.local/share}/AimCapture
fs::path supportDir();
fs::path homeDirectory();
// "~" and "~/x" become the home directory and a path inside it.
fs::path expandTilde(const std::string& path);

// The test override if one is set, otherwise the support directory's config.json.
fs::path configPath();
void setConfigPathOverrideForTesting(std::optional<fs::path> path);

fs::path dataRoot();
RootSource dataRootSource();
bool isDataRootAvailable();
std::optional<std::string> dataRootUnavailableReason();

std::optional<fs::path> configuredRoot();
void invalidateConfigCache();
bool configFileExistsButFailedToParse();
// Throws ConfigWriteError (malformedConfig) or std::filesystem::filesystem_error.
void setConfiguredRoot(const fs::path& root);
// Creates video/ and io-layer/ (0700) at an available root; does nothing at an absent one.
void ensureSubdirsExist();

// Registers a callback run after setConfiguredRoot changed the root (the process notification).
void onRootDidChange(void (*callback)());
inline constexpr const char* rootDidChangeName = "CaptureShared.DataPaths.rootDidChange";

fs::path signalsDB();
fs::path classifierCadence();
fs::path videoDir();
fs::path videoDir(int display);
fs::path frameTimestampsPath(int display);
fs::path frameMetaPath(int display);
fs::path callHoldOverride();
fs::path defaultRootForNewInstall();
fs::path unconfiguredRoot();

// Data-root-relative helpers used across the system.
fs::path eventsLog();         // io-layer/events.jsonl
fs::path classifierLog();     // checker-log.jsonl

// Tightens an adopted root to 0700 unless it is shared with other owners.
void hardenAdoptedRoot(const fs::path& root, const fs::path& home);
// "/", the home directory itself, or a mount point.
bool isSharedContainerRoot(const fs::path& root, const fs::path& home);

}  // namespace DataPaths
}  // namespace aimwise
