#include "CaptureShared/dataroot/agent_config.h"

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/common/utf8.h"
#include "CaptureShared/dataroot/model_provisioning.h"

namespace aimwise::AgentConfig {

namespace fs = std::filesystem;

namespace {

using nlohmann::json;

ConfigWriteError malformed(std::string reason, fs::path path = {}) {
    return ConfigWriteError{ConfigWriteError::Kind::malformedConfig, {}, std::move(reason), std::move(path)};
}

fs::path resolve(const std::optional<fs::path>& at) { return at ? *at : configURL(); }

// The whole top level of an existing file, so a rewrite keeps every key it does not own.
json loadRawTop(const fs::path& path) {
    std::error_code ec;
    if (!fs::exists(path, ec)) return json::object();
    std::string text;
    try {
        text = readWholeFile(path, ReadLimit::setting);
    } catch (...) {
        throw malformed("config exists but could not be read", path);
    }
    if (!utf8::isValid(text)) throw malformed("config is not valid UTF-8", path);
    // Only a file with nothing in it is empty; white space alone is something a person wrote, so it is
    // refused like any other unparsable content rather than overwritten.
    if (text.empty()) return json::object();
    json top;
    try {
        top = json::parse(text);
    } catch (...) {
        throw malformed("config is not valid JSON", path);
    }
    if (!top.is_object()) throw malformed("config must be a JSON object", path);
    return top;
}

}  // namespace

const std::set<std::string>& allowedKeys() {
    static const std::set<std::string> keys = {
        "AIMCAP_MODEL_BACKEND",
        "AIMCAP_MODEL",
        "AIMCAP_MODEL_ENDPOINT",
        "AIMCAP_FALLBACK_MODEL",
        "AIMCAP_REASONING_EFFORT",
        "AIMCHECK_MODEL",
        "OPENROUTER_API_KEY",
        "AIMCAP_DUMP_REQUESTS",
        "AIMCAP_MAIN_WINDOW_CLOSE_EVENT",
        "AIMCAP_LAYER3",
        "AIMCAP_GATE_LOG",
        "AIMCAP_USER_NAME",
        "AIMCAP_GATE_UNCONSTRAINED",
        "AIMCAP_DREAM_REQUIRE_AC",
        "AIMCAP_CLASSIFY_MAX_INTERVAL_SEC",
        "AIMCAP_GATE_AWAY_MAX_INTERVAL_SEC",
        "AIMCAP_OFFLINE_MODE",
        "AIMCAP_CLASSIFY_REQUIRE_AC",
        "AIMCAP_CLASSIFY_BATTERY_MAX_INTERVAL_SEC",
        "AIMCAP_CLASSIFY_BATTERY_MIN_INTERVAL_SEC",
        "AIMCAP_CLASSIFY_MIN_INTERVAL_SEC",
        "AIMCAP_UNANSWERED_CHECKIN_HOLD_MAX_SEC",
        "AIMCAP_OLLAMA_KEEP_ALIVE",
        "AIMCAP_PROXY_URL",
        "AIMCAP_LOCAL_INFERENCE_ENDPOINT",
        "AIMCAP_COACH_BATTERY_MODE",
        "AIMCAP_CALL_PAUSE",
        "AIMCAP_FM_JUDGE_BIN",
        "AIMCAP_FM_JUDGE_ENDPOINT",
        "AIMCAP_FM_JUDGE_MODEL",
        "AIMCAP_MODEL_MIRROR",
    };
    return keys;
}

const std::vector<std::pair<std::string, std::string>>& defaultEnvForNewInstall() {
    static const std::vector<std::pair<std::string, std::string>> defaults = {
        {"AIMCAP_LAYER3", "1"},
        {"AIMCAP_MODEL_BACKEND", "ollama"},
        {"AIMCAP_OFFLINE_MODE", "1"},
        {"AIMCAP_GATE_LOG", "1"},
        {"AIMCAP_REASONING_EFFORT", "low"},
        {"AIMCHECK_MODEL", "gemma4:12b-it-qat"},
        {"AIMCAP_MAIN_WINDOW_CLOSE_EVENT", "1"},
    };
    return defaults;
}

const std::vector<std::string>& readmeLines() {
    static const std::vector<std::string> lines = {
        "Aimwise — machine-specific settings for the background agents.",
        "Read at startup by the capture supervisor, the classifier, the coach driver, the",
        "nightly consolidation job, and the app itself. Anything already set in the",
        "environment wins over this file.",
        "",
        "dataRoot: where captured data lives. Not set here on purpose — pick it in the app's",
        "Data Location panel. Nothing falls back to your boot disk if it is missing, so an",
        "unmounted volume means the agents record nothing rather than quietly filling your drive.",
        "",
        "env: passed to the agents as environment variables. Only a fixed set of keys is honoured;",
        "anything else is ignored and reported rather than silently applied.",
    };
    return lines;
}

fs::path configURL() { return DataPaths::configPath(); }

ParseResult parse(std::string_view text) {
    ParseResult result;
    if (!utf8::isValid(text)) {
        result.parseError = "config is not valid UTF-8";
        return result;
    }
    if (trimWhitespaceAndNewlines(text).empty()) return result;
    json top;
    try {
        top = json::parse(text);
    } catch (...) {
        result.parseError = "config is not valid JSON";
        return result;
    }
    if (!top.is_object()) {
        result.parseError = "config must be a JSON object";
        return result;
    }
    auto env = top.find("env");
    if (env == top.end()) return result;
    if (!env->is_object()) {
        result.parseError = "\"env\" must be an object of string values";
        return result;
    }
    // nlohmann's objects iterate in sorted key order.
    for (const auto& [key, value] : env->items()) {
        if (value.is_string() && allowedKeys().contains(key))
            result.settings[key] = value.get<std::string>();
        else
            result.unknownKeys.push_back(key);
    }
    return result;
}

ParseResult load(const std::optional<fs::path>& at) {
    std::string text;
    try {
        text = readWholeFile(resolve(at), ReadLimit::setting);
    } catch (...) {
        return {};
    }
    return parse(text);
}

std::vector<std::string> bootstrapProcessEnvironment(const std::optional<fs::path>& at,
                                                     const std::optional<std::string>& bakedOpenRouterKey) {
    const Environment snapshot = processEnvironment();
    const ParseResult config = load(at);
    const auto isUnset = [&](const std::string& key) {
        auto it = snapshot.find(key);
        return it == snapshot.end() || it->second.empty();
    };

    std::vector<std::string> applied;
    for (const auto& [key, value] : config.settings) {
        if (!isUnset(key)) continue;
        ::setenv(key.c_str(), value.c_str(), 1);
        applied.push_back(key);
    }

    if (bakedOpenRouterKey) {
        const std::string baked = trimWhitespaceAndNewlines(*bakedOpenRouterKey);
        const bool fileApplied = std::find(applied.begin(), applied.end(), "OPENROUTER_API_KEY") != applied.end();
        if (!baked.empty() && isUnset("OPENROUTER_API_KEY") && !fileApplied) {
            ::setenv("OPENROUTER_API_KEY", baked.c_str(), 1);
            applied.push_back("OPENROUTER_API_KEY");
        }
    }
    return applied;
}

std::vector<std::string> missingKeys(const std::vector<std::string>& required,
                                     const std::optional<std::map<std::string, std::string>>& settings,
                                     const Environment& environment) {
    const std::map<std::string, std::string> values = settings ? *settings : load().settings;
    const auto present = [](const auto& map, const std::string& key) {
        auto it = map.find(key);
        return it != map.end() && !it->second.empty();
    };
    std::vector<std::string> missing;
    for (const auto& key : required)
        if (!present(values, key) && !present(environment, key)) missing.push_back(key);
    return missing;
}

DataRootStatus dataRootStatus() {
    const bool explicitly = DataPaths::dataRootSource() != DataPaths::RootSource::unconfigured;
    const fs::path root = DataPaths::dataRoot();
    std::error_code ec;
    if (explicitly && fs::is_directory(root, ec)) return {DataRootStatus::Kind::available, root, true};
    return {DataRootStatus::Kind::missing, root, explicitly};
}

std::string describe(const DataRootStatus& status) {
    const std::string path = status.path.string();
    if (status.kind == DataRootStatus::Kind::available) return "Data root: " + path;
    if (status.wasExplicitlyConfigured)
        return "Data root " + path + " is not mounted — the agents will record nothing until it is.";
    return "No data root configured, and the default " + path +
           " is not present. Set it in the app's Data Location panel, or add \"dataRoot\" to " +
           configURL().string();
}

std::vector<std::string> seedDefaultEnvIfAbsent(const std::optional<fs::path>& at, uint64_t physicalMemoryBytes) {
    const ParseResult existing = load(at);
    std::map<std::string, std::string> defaults(defaultEnvForNewInstall().begin(), defaultEnvForNewInstall().end());
    if (auto model = ModelProvisioning::recommendedDefaultModel(physicalMemoryBytes))
        defaults["AIMCHECK_MODEL"] = *model;
    else
        defaults.erase("AIMCHECK_MODEL");

    std::vector<std::string> added;  // std::map keeps them sorted
    for (const auto& [key, value] : defaults)
        if (!existing.settings.contains(key)) added.push_back(key);
    if (added.empty()) return added;

    std::map<std::string, std::string> merged = existing.settings;
    for (const auto& key : added) merged[key] = defaults[key];
    setEnvSettings(merged, at);
    return added;
}

std::string exampleContents() {
    json example = json::object();
    example["env"] = json::object();
    for (const auto& [key, value] : defaultEnvForNewInstall()) example["env"][key] = value;
    example["_readme"] = readmeLines();
    return example.dump(2) + "\n";
}

bool writeExampleIfAbsent(const std::optional<fs::path>& at) {
    const fs::path path = resolve(at);
    std::error_code ec;
    if (fs::exists(path, ec)) return false;
    try {
        fs::create_directories(path.parent_path());
        writeFileAtomically(path, exampleContents(), 0600);
        return true;
    } catch (...) {
        return false;
    }
}

void setEnvValue(const std::optional<std::string>& value, const std::string& key, const std::optional<fs::path>& at) {
    if (!allowedKeys().contains(key)) throw ConfigWriteError{ConfigWriteError::Kind::unsupportedKeys, {key}, {}, {}};
    ParseResult current = load(at);
    if (current.parseError) throw malformed(*current.parseError, resolve(at));
    const std::string trimmed = value ? trimWhitespaceAndNewlines(*value) : std::string();
    if (trimmed.empty())
        current.settings.erase(key);
    else
        current.settings[key] = trimmed;
    setEnvSettings(current.settings, at);
}

void setEnvSettings(const std::map<std::string, std::string>& settings, const std::optional<fs::path>& at) {
    std::vector<std::string> unsupported;
    for (const auto& [key, value] : settings)
        if (!allowedKeys().contains(key)) unsupported.push_back(key);
    if (!unsupported.empty()) throw ConfigWriteError{ConfigWriteError::Kind::unsupportedKeys, unsupported, {}, {}};

    const fs::path path = resolve(at);
    fs::create_directories(path.parent_path());
    json top = loadRawTop(path);
    top["env"] = json(settings);
    // The file can hold an API key: private from the first byte.
    writeFileAtomically(path, top.dump(2) + "\n", 0600);
}

std::optional<std::string> redactedSuffix(const std::optional<std::string>& value) {
    if (!value || value->empty()) return std::nullopt;
    const std::vector<char32_t> scalars = utf8::decode(*value);
    if (scalars.size() < 8) return std::string("…");
    return "…" + utf8::encode(std::vector<char32_t>(scalars.end() - 4, scalars.end()));
}

}  // namespace aimwise::AgentConfig
