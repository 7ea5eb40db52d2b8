#include "AimwiseCore/classifier/call_hold.h"

#include <nlohmann/json.hpp>

#include "AimwiseCore/events/file_io.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/saturating.h"

namespace aimwise {

namespace CallAudioRule {

std::vector<AudioProcessActivity> twoWayHolders(const std::vector<AudioProcessActivity>& processes) {
    std::vector<AudioProcessActivity> holders;
    for (const auto& process : processes)
        if (process.runningInput && process.runningOutput) holders.push_back(process);
    return holders;
}

}  // namespace CallAudioRule

void InCallTracker::seed(const std::vector<EventLogEvent>& events, int64_t asOfMs) {
    for (const auto& event : events) {
        if (event.tsMs > asOfMs) continue;
        if (event.type == callStartedType) {
            if (!inCall_) episodeStartMs_ = event.tsMs;
            inCall_ = true;
        } else if (event.type == callEndedType) {
            inCall_ = false;
            episodeStartMs_.reset();
        }
    }
}

void InCallTracker::observe(const CallActivityReading& reading, int64_t nowMs) {
    if (!reading.inTwoWayCall()) {
        inCall_ = false;
        episodeStartMs_.reset();
        return;
    }
    if (!inCall_ || !episodeStartMs_) episodeStartMs_ = nowMs;
    inCall_ = true;
}

namespace ClassifierCallHold {

CallHold::Status decide(const std::vector<EventLogEvent>& events, const CallActivityReading& reading, int64_t nowMs,
                        const std::optional<ClassifierCadence::State>& lastCadence, const CallHoldControl& control) {
    if (!control.enabled) return CallHold::Disabled{};
    InCallTracker tracker;
    tracker.seed(events, nowMs);
    if (!tracker.episodeStartMs() && lastCadence && lastCadence->pausedForCall && lastCadence->callHoldSinceMs) {
        // The previous tick already held for this call; keep its start rather than restarting.
        tracker.seed({EventLogEvent{*lastCadence->callHoldSinceMs, "event", InCallTracker::callStartedType}}, nowMs);
    }
    tracker.observe(reading, nowMs);
    const auto start = tracker.episodeStartMs();
    if (!start || Saturating::subtract(nowMs, *start) >= maxEpisodeMs) return CallHold::NotInCall{};
    if (control.override && control.override->episodeStartMs == *start)
        return CallHold::Overridden{*start, control.override->overriddenAtMs};
    return CallHold::Held{*start};
}

}  // namespace ClassifierCallHold

namespace CallHoldOverrideStore {

std::optional<CallHoldOverride> read(const std::filesystem::path& from) {
    std::string contents;
    try {
        contents = readWholeFile(from, ReadLimit::setting);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    const auto json = nlohmann::json::parse(contents, nullptr, false);
    if (!json.is_object()) return std::nullopt;
    const auto start = json.find("episodeStartMs");
    const auto at = json.find("overriddenAtMs");
    if (start == json.end() || at == json.end() || !start->is_number_integer() || !at->is_number_integer())
        return std::nullopt;
    return CallHoldOverride{start->get<int64_t>(), at->get<int64_t>()};
}

void write(const CallHoldOverride& value, const std::filesystem::path& to) {
    events_io::createDirectories(to.parent_path(), 0700);
    const nlohmann::json json = {{"episodeStartMs", value.episodeStartMs}, {"overriddenAtMs", value.overriddenAtMs}};
    writeFileAtomically(to, json.dump() + "\n", 0600);
}

void clear(const std::filesystem::path& at) {
    std::error_code ignored;
    std::filesystem::remove(at, ignored);
}

}  // namespace CallHoldOverrideStore

}  // namespace aimwise
