#include "CaptureShared/staleness/recording_pause.h"

#include <system_error>

#include "CaptureShared/dataroot/data_paths.h"
#include "CaptureShared/staleness/json_fields.h"
#include "CaptureShared/staleness/small_json_file.h"

namespace aimwise {

namespace RecordingPauseStore {

std::filesystem::path path() { return DataPaths::supportDir() / fileName; }

Reading read(const std::filesystem::path& file) {
    std::error_code error;
    const bool exists = std::filesystem::exists(file, error);
    if (error) return Unreadable{};
    if (!exists) return None{};

    const auto text = SmallJSONFile::read(file);
    if (!text) return Unreadable{};
    const auto object = jsonfields::parseObject(*text);
    if (!object) return Unreadable{};

    const auto requested = jsonfields::int64Field(*object, "requestedMs");
    const auto until = jsonfields::int64Field(*object, "untilMs");
    const auto resumed = jsonfields::optionalInt64Field(*object, "resumedAtMs");
    if (!requested || !until || !resumed) return Unreadable{};

    RecordingPause pause{*requested, *until, std::nullopt, *resumed};
    if (const auto it = object->find("reason"); it != object->end() && !it->is_null()) {
        if (!it->is_string()) return Unreadable{};
        pause.reason = it->get<std::string>();
    }
    return pause;
}

}  // namespace RecordingPauseStore

SignalsStaleness::Pause pauseAt(const RecordingPauseStore::Reading& reading, int64_t nowMs) {
    if (std::holds_alternative<RecordingPauseStore::None>(reading)) return SignalsStaleness::PauseNone{};
    // A pause file we cannot read still says a pause was asked for, just not since when.
    if (std::holds_alternative<RecordingPauseStore::Unreadable>(reading))
        return SignalsStaleness::PauseActive{std::nullopt};
    const auto& pause = std::get<RecordingPause>(reading);
    const int64_t endMs = pause.resumedAtMs ? std::min(pause.untilMs, *pause.resumedAtMs) : pause.untilMs;
    if (nowMs < endMs) return SignalsStaleness::PauseActive{pause.requestedMs};
    return SignalsStaleness::PauseNone{};
}

SignalsStaleness::Pause currentRecordingPause(int64_t nowMs) {
    return pauseAt(RecordingPauseStore::read(RecordingPauseStore::path()), nowMs);
}

}  // namespace aimwise
