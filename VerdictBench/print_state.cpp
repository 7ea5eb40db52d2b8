#include "VerdictBench/print_state.h"

#include <cstdio>

#include "CaptureShared/common/text.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise::cli {

namespace {

std::string text(const std::optional<std::string>& value) { return value ? *value : "nil"; }
std::string number(const std::optional<double>& value) { return value ? shortestRoundTrip(*value) : "nil"; }

}  // namespace

std::string renderState(const ClassifierState& state) {
    const std::optional<std::string> task =
        state.declaredTask ? std::optional<std::string>(utf8::prefix(*state.declaredTask, 80)) : std::nullopt;
    std::string out;
    out += "ts_ms:                  " + std::to_string(state.tsMs) + "\n";
    out += "frontmost_app:          " + text(state.frontmostApp) + "\n";
    out += "browser_app:            " + text(state.browserApp) + "\n";
    out += "browser_title:          " + text(state.browserTitle) + "\n";
    out += "idle_any_sec:           " + number(state.idleAnySec) + "\n";
    out += "declared_task:          " + text(task) + "\n";
    out += "minutes_since_declared: " + number(state.minutesSinceDeclared) + "\n";
    out += "estimate_minutes:       " + number(state.estimateMinutes) + "\n";
    out += "minutes_over_estimate:  " + number(state.minutesOverEstimate) + "\n";
    return out;
}

void printState(const ClassifierState& state) {
    const std::string rendered = escapedForTerminal(renderState(state), Newlines::kept);
    std::fwrite(rendered.data(), 1, rendered.size(), stdout);
}

}  // namespace aimwise::cli
