#include "agents/capture/recording_setting.h"

#include <nlohmann/json.hpp>

#include <cmath>

#include <fmt/format.h>
#include "CaptureShared/dataroot/data_paths.h"
#include "CaptureShared/staleness/small_json_file.h"

namespace aimwise::RecordingSetting {

std::filesystem::path path() { return DataPaths::supportDir() / fileName; }

std::optional<Setting> decode(const std::string& text) {
    if (text.find('\0') != std::string::npos) return std::nullopt;
    const auto object = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (object.is_discarded() || !object.is_object()) return std::nullopt;
    Setting setting;
    const auto enabled = object.find("enabled");
    if (enabled == object.end() || !enabled->is_boolean()) return std::nullopt;
    setting.enabled = enabled->get<bool>();
    if (const auto fps = object.find("fps"); fps != object.end()) {
        if (!fps->is_number()) return std::nullopt;
        setting.fps = fps->get<double>();
        if (!std::isfinite(setting.fps) || setting.fps < minFps || setting.fps > maxFps) return std::nullopt;
    }
    if (const auto days = object.find("keep_days"); days != object.end()) {
        if (!days->is_number_integer()) return std::nullopt;
        const auto value = days->get<int64_t>();
        if (value < 1 || value > maxKeepDays) return std::nullopt;
        setting.keepDays = static_cast<int>(value);
    }
    return setting;
}

Setting read(const std::filesystem::path& file) {
    const auto text = SmallJSONFile::read(file);
    return text ? decode(*text).value_or(Setting{}) : Setting{};
}

std::string encode(const Setting& setting) {
    return std::string("{\n  \"enabled\": ") + (setting.enabled ? "true" : "false") +
           ",\n  \"fps\": " + fmt::format("{:g}", setting.fps) + ",\n  \"keep_days\": " + std::to_string(setting.keepDays) +
           "\n}\n";
}

void write(const std::filesystem::path& file, const Setting& setting) { SmallJSONFile::replace(file, encode(setting)); }

}  // namespace aimwise::RecordingSetting
