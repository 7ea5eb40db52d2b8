#pragma once
// What the schedule decides from, read cheaply: the nightly job is started every half hour and
// usually holds, so it reads only the ends of the logs, the names of the digests and the newest one,
// never the whole history.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/memory/dream_schedule.h"

namespace aimwise::DreamScheduleInputs {

struct Inputs {
    DreamSchedule::Snapshot snapshot;
    // The standing memory must be made again (salvaged) even with no period pending.
    bool standingMemorySalvaged = false;
};

// The last complete lines of a file, at most `bytes` from its end; none for a missing file.
std::vector<std::string> tailLines(const std::filesystem::path& path, size_t bytes);

// `lastPassEndedAtMs` is when the last pass ended: the newest digest's or standing memory's making, or
// a failed pass in the log. `latestEventAtMs` is the newest event not of the job's own. Pending periods
// follow the same rules as a pass, from the first event the wipe log leaves standing. Presence is read
// only when the decision turns on it, and is unknown otherwise.
Inputs read(const std::filesystem::path& dataRoot, int64_t asOfMs, int64_t stepIntervalSec);

}  // namespace aimwise::DreamScheduleInputs
