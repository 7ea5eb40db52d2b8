#pragma once
// gate-decisions.jsonl in the data root: one line per gate decision, written only by the coach
// driver, so that a person can see why the coach spoke or kept quiet. A line looks like
//   {"ts_ms":..., "outcome":"decided", "should_check_in":false, "summary_for_coach":"...",
//    "summary_second_person":false, "attempts":["unconstrained"], "unconstrained_skipped":false,
//    "breaker":{"consecutive_failures":0,"skips_remaining":0,"ticks_since_last_success":0},
//    "usage":{"prompt_tokens":...,"completion_tokens":...,"calls":1}, "low_effort":true, ...}
// with "failure_reason" in place of the decision when the outcome is "failed". The summary is model
// text about the screen, so it passes the privacy filters before it is kept.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "AimwiseCore/coach/coach_gate.h"
#include "AimwiseCore/events/json_value.h"
#include "CaptureShared/common/environment.h"

namespace aimwise::GateDecisionLog {

inline constexpr const char* fileName = "gate-decisions.jsonl";
inline constexpr const char* variable = "AIMCAP_GATE_LOG";

std::filesystem::path defaultURL(const std::filesystem::path& dataRoot);
// On when the variable is set to anything but "0", "false", "off" or "no"; off when it is absent.
bool isEnabled(const Environment& environment);

struct Record {
    int64_t tsMs = 0;
    GateOutcome outcome = GateOutcome::failed("not decided");
    CoachGate::Attempts attempts;
    std::optional<GateUnconstrainedBreaker::Counters> breaker;
    std::optional<ChatUsage> usage;
    std::optional<std::string> servedBy;
    bool lowEffort = false;
    int64_t messageCharacters = 0;
};

// Sums what each call of one decision used; pass `add` as the gate's onUsage.
struct UsageTally {
    std::optional<ChatUsage> usage;
    std::optional<std::string> servedBy;
    void add(const ChatResponse& response);
};

JSONValue::Object row(const Record& record);
// One line, one write. Throws JSONLAppend::AppendError or std::filesystem::filesystem_error.
void append(const Record& record, const std::filesystem::path& to);

}  // namespace aimwise::GateDecisionLog
