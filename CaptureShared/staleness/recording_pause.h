#pragma once
// The recording agents' pause file, read here so that a paused recorder is not taken for a
// stopped one.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>

#include "CaptureShared/staleness/signals_staleness.h"

namespace aimwise {

struct RecordingPause {
    int64_t requestedMs = 0;
    int64_t untilMs = 0;
    std::optional<std::string> reason;
    std::optional<int64_t> resumedAtMs;
    bool operator==(const RecordingPause&) const = default;
};

namespace RecordingPauseStore {

struct None {
    bool operator==(const None&) const = default;
};
struct Unreadable {
    bool operator==(const Unreadable&) const = default;
};
using Reading = std::variant<RecordingPause, None, Unreadable>;

inline constexpr const char* fileName = "recording-pause.json";

// recording-pause.json in the support directory.
std::filesystem::path path();
// A missing file is `None`; one that exists but does not decode is `Unreadable`.
Reading read(const std::filesystem::path& file);

}  // namespace RecordingPauseStore

// The pause in force at `nowMs` according to `reading`.
SignalsStaleness::Pause pauseAt(const RecordingPauseStore::Reading& reading, int64_t nowMs);
// `pauseAt` of the pause file at `RecordingPauseStore::path()`.
SignalsStaleness::Pause currentRecordingPause(int64_t nowMs);

}  // namespace aimwise
