#pragma once
// What the classifier sees at one instant, and what it concludes.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "CaptureShared/signals/app_minutes.h"

namespace aimwise {

struct ClassifierState {
    int64_t tsMs = 0;
    std::optional<std::string> frontmostApp;
    std::optional<std::string> frontmostWindowTitle;
    std::optional<std::string> browserApp;
    std::optional<std::string> browserTitle;
    std::optional<std::string> browserURL;
    std::optional<double> idleAnySec;
    std::optional<std::string> declaredTask;
    std::vector<AppMinutes> recentApps10Min;
    std::optional<double> minutesSinceDeclared;
    std::optional<double> estimateMinutes;
    std::optional<double> minutesOverEstimate;
    std::optional<double> gapSinceLastPresentMinutes;
    std::optional<bool> gapFollowedTaskEndpoint;
    std::optional<double> minutesSinceReturn;

    bool operator==(const ClassifierState&) const = default;
};

// The model's answer is kept exactly as it arrived: the state is text, never validated.
struct ClassifierJudgment {
    std::string state;
    double confidence = 0;
    std::string reason;

    bool operator==(const ClassifierJudgment&) const = default;
};

namespace VerdictState {
inline constexpr const char* onTask = "ON_TASK";
inline constexpr const char* notAligned = "NOT_ALIGNED";
inline constexpr const char* idle = "IDLE";
inline constexpr const char* noTask = "NO_TASK";
inline constexpr const char* abstained = "ABSTAINED";
}  // namespace VerdictState

// Truncated toward zero to one decimal, as every derived minute count is.
double truncatedToOneDecimal(double value);

}  // namespace aimwise
