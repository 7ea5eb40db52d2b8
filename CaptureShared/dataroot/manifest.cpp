#include "CaptureShared/dataroot/manifest.h"

#include <nlohmann/json.hpp>

#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/iso_date.h"

namespace aimwise {

Manifest Manifest::make(const std::string& dataRoot, double captureFps, double keyframeIntervalSec,
                        int64_t displayWidthTarget, int64_t nowMs) {
    return Manifest{1, dataRoot, captureFps, keyframeIntervalSec, displayWidthTarget, ISODate::format(nowMs)};
}

std::string Manifest::toJSON() const {
    nlohmann::json json = {
        {"schemaVersion", schemaVersion},
        {"dataRoot", dataRoot},
        {"captureFps", captureFps},
        {"keyframeIntervalSec", keyframeIntervalSec},
        {"displayWidthTarget", displayWidthTarget},
        {"startedAt", startedAt},
    };
    return json.dump(2) + "\n";
}

std::optional<Manifest> Manifest::fromJSON(const std::string& text) {
    try {
        const auto json = nlohmann::json::parse(text);
        if (!json.is_object()) return std::nullopt;
        Manifest manifest;
        manifest.schemaVersion = json.at("schemaVersion").get<int64_t>();
        manifest.dataRoot = json.at("dataRoot").get<std::string>();
        manifest.captureFps = json.at("captureFps").get<double>();
        manifest.keyframeIntervalSec = json.at("keyframeIntervalSec").get<double>();
        manifest.displayWidthTarget = json.at("displayWidthTarget").get<int64_t>();
        manifest.startedAt = json.at("startedAt").get<std::string>();
        return manifest;
    } catch (...) {
        return std::nullopt;
    }
}

void Manifest::write(const std::filesystem::path& root) const {
    writeFileAtomically(root / "manifest.json", toJSON(), 0600);
}

std::optional<Manifest> Manifest::read(const std::filesystem::path& root) {
    try {
        return fromJSON(readWholeFile(root / "manifest.json", ReadLimit::setting));
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace aimwise
