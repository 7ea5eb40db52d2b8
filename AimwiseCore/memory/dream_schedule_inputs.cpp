#include "AimwiseCore/memory/dream_schedule_inputs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "AimwiseCore/events/classifier_tick.h"
#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/memory/consolidation_events.h"
#include "AimwiseCore/memory/consolidation_pass.h"
#include "AimwiseCore/memory/memory_store.h"
#include "AimwiseCore/memory/memory_wipe.h"
#include "CaptureShared/common/atomic_file.h"

namespace aimwise::DreamScheduleInputs {

namespace fs = std::filesystem;

namespace {

// A classifier tick line is about 500 bytes and the log holds one every half minute at most, so the
// last 8 KiB hold the three minutes that presence looks at. The event log's last 16 KiB give its
// newest event and a failed pass that nothing has followed since.
constexpr size_t tickTailBytes = 8'192;
constexpr size_t eventTailBytes = 16'384;

std::optional<int64_t> firstEventAtOrAfter(const fs::path& path, int64_t floorMs) {
    try {
        requireRegularFileIfPresent(path);
    } catch (const std::filesystem::filesystem_error&) {
        return std::nullopt;
    }
    std::ifstream in(path);
    std::string line;
    while (in && std::getline(in, line))
        if (const auto event = EventLogEvent::decode(line); event && event->tsMs >= floorMs)
            return event->tsMs;
    return std::nullopt;
}

struct NewestDigest {
    std::optional<int64_t> endMs;
    std::optional<int64_t> generatedAtMs;
};

NewestDigest newestDigest(const fs::path& dataRoot, const std::set<int64_t>& starts, int64_t stepMs) {
    if (starts.empty()) return {};
    const int64_t start = *starts.rbegin();
    try {
        if (const auto digest =
                MemoryJSON::decodeDigest(readWholeFile(MemoryStore::digestPath(dataRoot, start))))
            return {digest->periodEndTsMs, digest->generatedAtTsMs};
    } catch (const std::exception&) {
    }
    // A damaged digest still closes its period.
    return {start + stepMs, std::nullopt};
}

}  // namespace

std::vector<std::string> tailLines(const fs::path& path, size_t bytes) {
    // Without O_NONBLOCK a FIFO in the log's place would hold the open until someone writes to it.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return {};
    struct stat info {};
    std::string data;
    if (::fstat(fd, &info) == 0 && info.st_size > 0) {
        const auto size = static_cast<size_t>(info.st_size);
        const size_t from = size > bytes ? size - bytes : 0;
        data.resize(size - from);
        const ssize_t got = ::pread(fd, data.data(), data.size(), static_cast<off_t>(from));
        data.resize(got > 0 ? static_cast<size_t>(got) : 0);
        // A window that starts mid-line drops that partial first line.
        if (from > 0) {
            const size_t newline = data.find('\n');
            data.erase(0, newline == std::string::npos ? data.size() : newline + 1);
        }
    }
    ::close(fd);
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < data.size()) {
        size_t end = data.find('\n', start);
        if (end == std::string::npos) end = data.size();
        if (end > start) lines.emplace_back(data, start, end - start);
        start = end + 1;
    }
    return lines;
}

Inputs read(const fs::path& dataRoot, int64_t asOfMs, int64_t stepIntervalSec) {
    Inputs inputs;
    DreamSchedule::Snapshot& snapshot = inputs.snapshot;
    snapshot.asOfMs = asOfMs;
    const int64_t stepMs = stepIntervalSec * 1000;
    const fs::path events = dataRoot / "io-layer" / "events.jsonl";

    const std::set<int64_t> starts = MemoryStore::digestStartsOnDisk(dataRoot);
    const NewestDigest newest = newestDigest(dataRoot, starts, stepMs);
    std::optional<int64_t> earliest;
    if (!newest.endMs) {
        const auto wipe = MemoryWipeLog::latestAtMs(MemoryWipeLog::defaultURL(dataRoot));
        earliest = firstEventAtOrAfter(
            events, std::max(MemoryConsolidation::earliestPlausibleEventMs, wipe.value_or(0)));
    } else {
        earliest = newest.endMs;  // only its presence matters once a digest exists
    }
    for (const auto& period :
         MemoryConsolidation::pendingPeriods(newest.endMs, earliest, asOfMs, stepIntervalSec))
        snapshot.pendingPeriodCount += starts.contains(period.startMs) ? 0 : 1;

    const auto standing = MemoryStore::readStandingMemory(dataRoot);
    inputs.standingMemorySalvaged = standing && standing->salvaged;
    for (const auto made :
         {newest.generatedAtMs, standing ? std::optional(standing->regeneratedAtTsMs) : std::nullopt})
        if (made) snapshot.lastPassEndedAtMs = std::max(snapshot.lastPassEndedAtMs.value_or(*made), *made);

    // The job's own lines are not the person's activity; a failed pass ended a pass all the same, and
    // backing off from it keeps a missing model server from costing a failure every half hour.
    for (const auto& line : tailLines(events, eventTailBytes)) {
        const auto event = EventLogEvent::decode(line);
        if (!event) continue;
        if (event->source != MemoryConsolidationEvents::source)
            snapshot.latestEventAtMs = std::max(snapshot.latestEventAtMs.value_or(event->tsMs), event->tsMs);
        else if (event->type == "memory_consolidation_failed")
            snapshot.lastPassEndedAtMs =
                std::max(snapshot.lastPassEndedAtMs.value_or(event->tsMs), event->tsMs);
    }

    // Presence costs a date parse, and the schedule holds without it when nothing is pending or the last
    // pass ended within the hour.
    const bool holdsAlready =
        snapshot.pendingPeriodCount < 1 ||
        (snapshot.lastPassEndedAtMs && asOfMs - *snapshot.lastPassEndedAtMs < DreamSchedule::passBackoffMs);
    if (holdsAlready) return inputs;

    // The classifier appends each tick as it judges, so the last line that decodes is the newest; the
    // lines before it would cost a date parse each for nothing.
    std::vector<ClassifierTick> newestTick;
    const auto lines = tailLines(dataRoot / "checker-log.jsonl", tickTailBytes);
    for (auto line = lines.rbegin(); line != lines.rend() && newestTick.empty(); ++line)
        if (auto tick = ClassifierTick::decode(*line)) newestTick.push_back(std::move(*tick));
    snapshot.presence = DreamSchedule::presence(newestTick, asOfMs);
    return inputs;
}

}  // namespace aimwise::DreamScheduleInputs
