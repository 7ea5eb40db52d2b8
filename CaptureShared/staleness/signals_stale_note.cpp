#include "CaptureShared/staleness/signals_stale_note.h"

#include "CaptureShared/common/saturating.h"
#include "CaptureShared/staleness/json_fields.h"
#include "CaptureShared/staleness/small_json_file.h"

namespace aimwise::SignalsStaleNoteStore {

bool isCurrent(const SignalsStaleNote& note, int64_t nowMs) {
    const double ageSec = static_cast<double>(Saturating::subtract(nowMs, note.updatedAtMs)) / 1000.0;
    return ageSec >= 0.0 && ageSec <= confirmationStaleAfterSec;
}

void write(const SignalsStaleNote& note, const std::filesystem::path& directory) {
    // std::map-backed objects dump with sorted keys.
    const nlohmann::json object = {{"lastGoodTickAtMs", note.lastGoodTickAtMs},
                                   {"updatedAt", ISODate::format(note.updatedAtMs)}};
    SmallJSONFile::replace(directory / fileName, object.dump());
}

std::optional<SignalsStaleNote> read(const std::filesystem::path& directory) {
    const auto text = SmallJSONFile::read(directory / fileName);
    if (!text) return std::nullopt;
    const auto object = jsonfields::parseObject(*text);
    if (!object) return std::nullopt;
    const auto lastGood = jsonfields::int64Field(*object, "lastGoodTickAtMs");
    const auto updated = jsonfields::dateField(*object, "updatedAt");
    if (!lastGood || !updated) return std::nullopt;
    return SignalsStaleNote{*lastGood, *updated};
}

void clear(const std::filesystem::path& directory) { SmallJSONFile::remove(directory / fileName); }

}  // namespace aimwise::SignalsStaleNoteStore
