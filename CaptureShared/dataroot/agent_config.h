#pragma once
// config.json: the machine's settings for the background agents. The real environment always wins
// over the file, and only a fixed set of keys is ever honoured.
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "CaptureShared/common/environment.h"
#include "CaptureShared/dataroot/data_paths.h"

namespace aimwise::AgentConfig {

struct ParseResult {
    std::map<std::string, std::string> settings;
    std::vector<std::string> unknownKeys;  // sorted ascending
    std::optional<std::string> parseError;
    bool operator==(const ParseResult&) const = default;
};

struct DataRootStatus {
    enum class Kind { available, missing };
    Kind kind;
    std::filesystem::path path;
    bool wasExplicitlyConfigured = false;
};

const std::set<std::string>& allowedKeys();
const std::vector<std::pair<std::string, std::string>>& defaultEnvForNewInstall();
const std::vector<std::string>& readmeLines();

std::filesystem::path configURL();

ParseResult parse(std::string_view text);
// A file that cannot be read is an empty result with no error: a missing file is ordinary.
ParseResult load(const std::optional<std::filesystem::path>& at = std::nullopt);

// Applies allowed settings that the real environment lacks (or holds empty); returns their keys.
std::vector<std::string> bootstrapProcessEnvironment(
    const std::optional<std::filesystem::path>& at = std::nullopt,
    const std::optional<std::string>& bakedOpenRouterKey = std::nullopt);

std::vector<std::string> missingKeys(const std::vector<std::string>& required,
                                     const std::optional<std::map<std::string, std::string>>& settings,
                                     const Environment& environment);

DataRootStatus dataRootStatus();
std::string describe(const DataRootStatus& status);

// Adds default keys the file lacks and never changes one already there. Throws ConfigWriteError.
std::vector<std::string> seedDefaultEnvIfAbsent(const std::optional<std::filesystem::path>& at,
                                                uint64_t physicalMemoryBytes);

std::string exampleContents();
bool writeExampleIfAbsent(const std::optional<std::filesystem::path>& at = std::nullopt);

// Both throw ConfigWriteError and leave the file as it was.
void setEnvValue(const std::optional<std::string>& value, const std::string& key,
                 const std::optional<std::filesystem::path>& at = std::nullopt);
void setEnvSettings(const std::map<std::string, std::string>& settings,
                    const std::optional<std::filesystem::path>& at = std::nullopt);

// "…" plus the last four characters, so a key can be recognised without being shown.
std::optional<std::string> redactedSuffix(const std::optional<std::string>& value);

}  // namespace aimwise::AgentConfig
