#pragma once
// The classifier's production run: one short process per interval that decides whether a judgment
// is due, makes it if so, and records it. Everything between two ticks lives in files.
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/classifier/call_hold.h"
#include "AimwiseCore/classifier/power_policy.h"
#include "AimwiseCore/events/classifier_tick.h"
#include "AimwiseCore/events/event_log_event.h"
#include "CaptureShared/common/clock.h"
#include "VerdictBench/classifier_verb_support.h"
#include "platform/power_source.h"

namespace aimwise::tick {

inline constexpr const char* describeLogFileName = "classifier-describe.jsonl";
inline constexpr const char* disclosureProcessName = "AimwiseClassifier";

// What the run reads from the machine, apart from files; tests replace any of it.
struct Platform {
    // Nothing when no reading could be taken.
    std::function<std::optional<CallActivityReading>()> callActivity;
    std::function<ClassifierPowerPolicy::PowerSnapshot()> powerSnapshot;
    std::function<cli::LiveWindowContent(const SignalsReader&, HTTPSession&)> captureWindowContent;
    std::function<std::optional<PowerSource::BatteryReading>()> batteryTelemetry;
    std::function<void(const std::string& title, const std::string& message)> notify;

    static Platform live();
};

// Ends the whole process with status 1 once `ceilingSec` has passed (a timer signal), so that a tick
// stuck on a model call never blocks the next interval.
void armTickWatchdog(double ceilingSec);

// Returns 0 on every path that does not throw; a refusal or a missing state is a cli::Failure.
int runTick(const Platform& platform, const Clock& clock);

// One whole line in the encoder's key order. Returns what went wrong when the line could not be
// written whole, in plain words; the verdict has already been made, so the caller only says so.
std::optional<std::string> appendClassifierTick(const ClassifierTick& tick, const std::filesystem::path& to);

void discloseEndedBackoffWindow(const std::filesystem::path& dataRoot,
                                const std::optional<std::vector<EventLogEvent>>& events, int64_t nowMs,
                                const Platform& platform);

// "enabled" unless AIMCAP_CALL_PAUSE says "0", "false", "off" or "no".
bool callHoldEnabled(const Environment& environment);

// The classifier's standing note from coach-preferences.json, as the prompt carries it.
std::optional<std::string> classifierInstructions(const std::filesystem::path& dataRoot);

}  // namespace aimwise::tick
