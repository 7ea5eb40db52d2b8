#include "CaptureShared/dataroot/data_paths.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <nlohmann/json.hpp>

#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/environment.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/spotlight_exclusion.h"

namespace aimwise {

namespace fs = std::filesystem;

namespace {

std::string describeConfigWrite(ConfigWriteError::Kind kind, const std::vector<std::string>& keys,
                                const std::string& reason, const fs::path& path) {
    if (kind == ConfigWriteError::Kind::unsupportedKeys) {
        std::string joined;
        for (const auto& key : keys) joined += (joined.empty() ? "" : ", ") + key;
        if (keys.size() == 1)
            return joined + " isn't a setting this file can apply, so writing it would look configured and do nothing.";
        return joined + " aren't settings this file can apply, so writing them would look configured and do nothing.";
    }
    return (path.empty() ? DataPaths::configPath() : path).string() + " is malformed (" + reason +
           ") — refusing to save, so nothing already in it is lost. Fix it by hand, or delete it and reconfigure.";
}

}  // namespace

ConfigWriteError::ConfigWriteError(Kind kind, std::vector<std::string> keys, std::string reason, fs::path path)
    : Error(describeConfigWrite(kind, keys, reason, path)),
      kind(kind),
      keys(std::move(keys)),
      reason(std::move(reason)),
      path(std::move(path)) {}

namespace DataPaths {

namespace {

// Guards the configured root and the test override of the config path. Held only to exchange
// values, never across file access.
std::mutex cacheLock;
// Outer optional: read or not yet read. Inner: whether config.json names a root.
std::optional<std::optional<fs::path>> cachedConfiguredRoot;
std::optional<fs::path> configPathOverride;
std::vector<void (*)()> rootDidChangeCallbacks;

std::optional<fs::path> absoluteEnvPath(const char* key) {
    auto value = getEnv(key);
    if (!value || value->empty() || (*value)[0] != '/') return std::nullopt;
    return fs::path(*value);
}

std::optional<fs::path> readConfiguredRoot() {
    try {
        const std::string text = readWholeFile(configPath(), ReadLimit::setting);
        const auto json = nlohmann::json::parse(text);
        if (!json.is_object()) return std::nullopt;
        auto it = json.find("dataRoot");
        if (it == json.end() || !it->is_string()) return std::nullopt;
        std::string value = trimWhitespaceAndNewlines(it->get<std::string>());
        if (value.empty()) return std::nullopt;
        return expandTilde(value);
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace

std::string rawValue(RootSource source) {
    switch (source) {
        case RootSource::environment: return "environment";
        case RootSource::configFile: return "configFile";
        case RootSource::unconfigured: return "unconfigured";
    }
    return "";
}

fs::path homeDirectory() {
    if (auto home = getEnv("HOME"); home && !home->empty()) return fs::path(*home);
    if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_dir) return fs::path(entry->pw_dir);
    return fs::path("/");
}

fs::path expandTilde(const std::string& path) {
    if (path == "~") return homeDirectory();
    if (path.rfind("~/", 0) == 0) return homeDirectory() / path.substr(2);
    return fs::path(path);
}

fs::path supportDir() {
    const fs::path base = absoluteEnvPath("XDG_DATA_HOME").value_or(homeDirectory() / ".local" / "share");
    return base / "AimCapture";
}

fs::path configPath() {
    {
        std::lock_guard lock(cacheLock);
        if (configPathOverride) return *configPathOverride;
    }
    return supportDir() / "config.json";
}

void setConfigPathOverrideForTesting(std::optional<fs::path> path) {
    std::lock_guard lock(cacheLock);
    configPathOverride = std::move(path);
    cachedConfiguredRoot.reset();
}

std::optional<fs::path> configuredRoot() {
    {
        std::lock_guard lock(cacheLock);
        if (cachedConfiguredRoot) return *cachedConfiguredRoot;
    }
    std::optional<fs::path> value = readConfiguredRoot();
    std::lock_guard lock(cacheLock);
    if (!cachedConfiguredRoot) cachedConfiguredRoot = value;
    return *cachedConfiguredRoot;
}

void invalidateConfigCache() {
    std::lock_guard lock(cacheLock);
    cachedConfiguredRoot.reset();
}

RootSource dataRootSource() {
    if (getEnv("AIMCAP_DATA_ROOT")) return RootSource::environment;
    if (configuredRoot()) return RootSource::configFile;
    return RootSource::unconfigured;
}

fs::path dataRoot() {
    if (auto fromEnvironment = getEnv("AIMCAP_DATA_ROOT")) return fs::path(*fromEnvironment);
    if (auto fromFile = configuredRoot()) return *fromFile;
    return unconfiguredRoot();
}

bool isDataRootAvailable() {
    if (dataRootSource() == RootSource::unconfigured) return false;
    std::error_code ec;
    return fs::is_directory(dataRoot(), ec);
}

std::optional<std::string> dataRootUnavailableReason() {
    if (isDataRootAvailable()) return std::nullopt;
    if (dataRootSource() == RootSource::unconfigured)
        return "no data root configured yet — run first-run setup or choose one in Settings";
    return "configured data root (" + dataRoot().string() + ") isn't mounted";
}

bool configFileExistsButFailedToParse() {
    std::error_code ec;
    if (!fs::exists(configPath(), ec)) return false;
    try {
        return !nlohmann::json::parse(readWholeFile(configPath(), ReadLimit::setting)).is_object();
    } catch (...) {
        return true;
    }
}

void setConfiguredRoot(const fs::path& root) {
    const fs::path path = configPath();
    fs::create_directories(path.parent_path());
    SpotlightExclusion::ensureMarker(path.parent_path());

    nlohmann::json top = nlohmann::json::object();
    std::error_code ec;
    if (fs::exists(path, ec)) {
        std::string text;
        try {
            text = readWholeFile(path, ReadLimit::setting);
        } catch (...) {
            throw ConfigWriteError{ConfigWriteError::Kind::malformedConfig, {}, "config exists but could not be read", {}};
        }
        if (!text.empty()) {
            try {
                top = nlohmann::json::parse(text);
            } catch (...) {
                throw ConfigWriteError{ConfigWriteError::Kind::malformedConfig, {}, "config is not valid JSON", {}};
            }
            if (!top.is_object())
                throw ConfigWriteError{ConfigWriteError::Kind::malformedConfig, {}, "config must be a JSON object", {}};
        }
    }
    top["dataRoot"] = root.string();
    writeFileAtomically(path, top.dump(2) + "\n", 0600);

    std::vector<void (*)()> callbacks;
    {
        std::lock_guard lock(cacheLock);
        cachedConfiguredRoot.reset();
        callbacks = rootDidChangeCallbacks;
    }
    for (auto callback : callbacks) callback();
}

void onRootDidChange(void (*callback)()) {
    std::lock_guard lock(cacheLock);
    rootDidChangeCallbacks.push_back(callback);
}

void ensureSubdirsExist() {
    if (!isDataRootAvailable()) return;
    const fs::path root = dataRoot();
    const bool looksOwned = SpotlightExclusion::rootLooksOwned(root);
    for (const char* name : {"video", "io-layer"}) {
        fs::create_directories(root / name);
        fs::permissions(root / name, fs::perms::owner_all, fs::perm_options::replace);
    }
    SpotlightExclusion::ensureDataRoot(root, looksOwned, homeDirectory());
}

bool isSharedContainerRoot(const fs::path& root, const fs::path& home) {
    std::error_code ec;
    const fs::path resolved = fs::weakly_canonical(root, ec);
    if (ec) return false;
    if (resolved == "/") return true;
    const fs::path resolvedHome = fs::weakly_canonical(home, ec);
    if (!ec && resolved == resolvedHome) return true;
    // A mount point is the root of a volume: its device differs from its parent's.
    struct stat self {}, parent {};
    if (::stat(resolved.c_str(), &self) != 0 || ::stat(resolved.parent_path().c_str(), &parent) != 0) return false;
    return self.st_dev != parent.st_dev;
}

void hardenAdoptedRoot(const fs::path& root, const fs::path& home) {
    std::error_code ec;
    if (!fs::is_directory(root, ec)) return;
    if (isSharedContainerRoot(root, home)) return;
    fs::permissions(root, fs::perms::owner_all, fs::perm_options::replace, ec);
}

fs::path signalsDB() { return dataRoot() / "signals.sqlite"; }
fs::path classifierCadence() { return dataRoot() / "classifier-cadence.json"; }
fs::path videoDir() { return dataRoot() / "video"; }
fs::path videoDir(int display) { return videoDir() / ("display-" + std::to_string(display)); }
fs::path frameTimestampsPath(int display) { return videoDir(display) / "frame_timestamps.csv"; }
fs::path frameMetaPath(int display) { return videoDir(display) / "frame_meta.jsonl"; }
fs::path callHoldOverride() { return supportDir() / "call-hold-override.json"; }
fs::path defaultRootForNewInstall() { return supportDir() / "data"; }
fs::path unconfiguredRoot() { return configPath().parent_path() / "no-data-root-configured"; }
fs::path eventsLog() { return dataRoot() / "io-layer" / "events.jsonl"; }
fs::path classifierLog() { return dataRoot() / "checker-log.jsonl"; }

}  // namespace DataPaths
}  // namespace aimwise
