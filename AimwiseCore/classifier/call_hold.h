#pragma once
// Staying silent while the user is in a call: a judgment then is noise, and the screenshot could
// catch a video call. The user can override the hold for one call episode.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "AimwiseCore/classifier/cadence.h"
#include "AimwiseCore/events/event_log_event.h"

namespace aimwise {

struct AudioProcessActivity {
    std::string name;
    std::optional<std::string> appID;
    bool runningInput = false;
    bool runningOutput = false;
};

namespace CallAudioRule {
// A two-way call holds the microphone and the speaker at once; playback alone is not a call.
std::vector<AudioProcessActivity> twoWayHolders(const std::vector<AudioProcessActivity>& processes);
}  // namespace CallAudioRule

// What the platform's call activity probe saw. The probe itself is platform code.
struct CallActivityReading {
    std::vector<AudioProcessActivity> processes;
    bool inTwoWayCall() const { return !CallAudioRule::twoWayHolders(processes).empty(); }
};

struct CallHoldOverride {
    int64_t episodeStartMs = 0;
    int64_t overriddenAtMs = 0;
    bool operator==(const CallHoldOverride&) const = default;
};

struct CallHoldControl {
    bool enabled = false;
    std::optional<CallHoldOverride> override;
};

namespace CallHold {
struct Held {
    int64_t sinceMs;
    bool operator==(const Held&) const = default;
};
struct Overridden {
    int64_t sinceMs;
    int64_t atMs;
    bool operator==(const Overridden&) const = default;
};
struct Disabled {
    bool operator==(const Disabled&) const = default;
};
struct NotInCall {
    bool operator==(const NotInCall&) const = default;
};
using Status = std::variant<Held, Overridden, Disabled, NotInCall>;
}  // namespace CallHold

// When the current call episode began. Seeded from the event log's call events, then told the
// live reading, which wins: a call the log never saw starts at the reading.
class InCallTracker {
public:
    static constexpr const char* callStartedType = "call_started";
    static constexpr const char* callEndedType = "call_ended";

    void seed(const std::vector<EventLogEvent>& events, int64_t asOfMs);
    void observe(const CallActivityReading& reading, int64_t nowMs);
    std::optional<int64_t> episodeStartMs() const { return inCall_ ? episodeStartMs_ : std::nullopt; }

private:
    bool inCall_ = false;
    std::optional<int64_t> episodeStartMs_;
};

namespace ClassifierCallHold {

inline constexpr const char* skipReason = "in a call -- classifier paused until it ends";
// Older episodes are taken for a stuck audio session, not a call.
inline constexpr int64_t maxEpisodeMs = 14'400'000;

// `lastCadence` carries the hold's start from one tick process to the next, so the episode keeps
// the start that an override was recorded against.
CallHold::Status decide(const std::vector<EventLogEvent>& events, const CallActivityReading& reading, int64_t nowMs,
                        const std::optional<ClassifierCadence::State>& lastCadence, const CallHoldControl& control);

}  // namespace ClassifierCallHold

namespace CallHoldOverrideStore {
// Nothing for a missing or undecodable file.
std::optional<CallHoldOverride> read(const std::filesystem::path& from);
// Atomic replace at 0600; the directory is created at 0700. Throws std::filesystem::filesystem_error.
void write(const CallHoldOverride& value, const std::filesystem::path& to);
void clear(const std::filesystem::path& at);
}  // namespace CallHoldOverrideStore

}  // namespace aimwise
