#pragma once
// Where the data root is, and the named paths inside it and the support directory.
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "CaptureShared/common/error.h"

namespace aimwise {

// Raised by the writers of config.json; see AgentConfig for the rendered words.
struct ConfigWriteError : Error {
    enum class Kind { unsupportedKeys, malformedConfig };
    ConfigWriteError(Kind kind, std::vector<std::string> keys, std::string reason,
                     std::filesystem::path path);
    Kind kind;
    std::vector<std::string> keys;  // unsupportedKeys
    std::string reason;             // malformedConfig
    std::filesystem::path path;     // the file refused; empty means DataPaths::configPath()
};

namespace DataPaths {

enum class RootSource { environment, configFile, unconfigured };
std::string rawValue(RootSource source);

// ${XDG_DATA_HOME:-~/.local/share}/AimCapture
std::filesystem::path supportDir();
std::filesystem::path homeDirectory();
// "~" and "~/x" become the home directory and a path inside it.
std::filesystem::path expandTilde(const std::string& path);

// The test override if one is set, otherwise the support directory's config.json.
std::filesystem::path configPath();
void setConfigPathOverrideForTesting(std::optional<std::filesystem::path> path);

std::filesystem::path dataRoot();
RootSource dataRootSource();
bool isDataRootAvailable();
std::optional<std::string> dataRootUnavailableReason();

std::optional<std::filesystem::path> configuredRoot();
void invalidateConfigCache();
bool configFileExistsButFailedToParse();
// Throws ConfigWriteError (malformedConfig) or std::filesystem::filesystem_error.
void setConfiguredRoot(const std::filesystem::path& root);
// Creates video/ and io-layer/ (0700) at an available root; does nothing at an absent one.
void ensureSubdirsExist();

// Registers a callback run after setConfiguredRoot changed the root (the process notification).
void onRootDidChange(void (*callback)());
inline constexpr const char* rootDidChangeName = "CaptureShared.DataPaths.rootDidChange";

std::filesystem::path signalsDB();
std::filesystem::path classifierCadence();
std::filesystem::path videoDir();
std::filesystem::path videoDir(int display);
std::filesystem::path frameTimestampsPath(int display);
std::filesystem::path frameMetaPath(int display);
std::filesystem::path callHoldOverride();
std::filesystem::path defaultRootForNewInstall();
std::filesystem::path unconfiguredRoot();

// Data-root-relative helpers used across the system.
std::filesystem::path eventsLog();      // io-layer/events.jsonl
std::filesystem::path classifierLog();  // checker-log.jsonl

// Tightens an adopted root to 0700 unless it is shared with other owners.
void hardenAdoptedRoot(const std::filesystem::path& root, const std::filesystem::path& home);
// "/", the home directory itself, or a mount point.
bool isSharedContainerRoot(const std::filesystem::path& root, const std::filesystem::path& home);

}  // namespace DataPaths
}  // namespace aimwise
