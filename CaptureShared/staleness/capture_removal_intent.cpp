#include "CaptureShared/staleness/capture_removal_intent.h"

#include "CaptureShared/common/saturating.h"
#include "CaptureShared/staleness/json_fields.h"
#include "CaptureShared/staleness/small_json_file.h"

namespace aimwise::CaptureRemovalIntentStore {

void write(const CaptureRemovalIntent& intent, const std::filesystem::path& directory) {
    const nlohmann::json object = {{"removedAt", ISODate::format(intent.removedAtMs)}};
    SmallJSONFile::replace(directory / fileName, object.dump());
}

std::optional<CaptureRemovalIntent> read(const std::filesystem::path& directory) {
    const auto text = SmallJSONFile::read(directory / fileName);
    if (!text) return std::nullopt;
    const auto object = jsonfields::parseObject(*text);
    if (!object) return std::nullopt;
    const auto removedAt = jsonfields::dateField(*object, "removedAt");
    if (!removedAt) return std::nullopt;
    return CaptureRemovalIntent{*removedAt};
}

void clear(const std::filesystem::path& directory) { SmallJSONFile::remove(directory / fileName); }

bool isSuperseded(const CaptureRemovalIntent& intent, std::optional<int64_t> captureActivityAtMs, int64_t marginMs) {
    return captureActivityAtMs && *captureActivityAtMs > Saturating::add(intent.removedAtMs, marginMs);
}

}  // namespace aimwise::CaptureRemovalIntentStore
