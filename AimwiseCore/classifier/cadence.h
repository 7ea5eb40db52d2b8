#pragma once
// When a wake of the tick should judge. A judgment costs a model call, so the interval stretches
// while nothing changes and snaps back to the floor when something does.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>

#include "CaptureShared/common/environment.h"

namespace aimwise::ClassifierCadence {

struct Config {
    int floorSec = 60;
    int ceilingSec = 300;
    // Shorter than ceilingSec on purpose: an on-task verdict is the one most worth re-checking.
    int onTaskCeilingSec = 120;
    double growthExponent = 0.57;
    int warmupSec = 600;
    int regimeGapSec = 240;
    int volatilityBoost = 3;

    // AIMCAP_CLASSIFY_MIN_INTERVAL_SEC and AIMCAP_CLASSIFY_MAX_INTERVAL_SEC; unparseable values count
    // as unset.
    static Config fromEnvironment(const Environment& environment);
    bool operator==(const Config&) const = default;
};

struct Episode {
    std::optional<double> minutesSinceDeclared;
    std::optional<std::string> declaredTask;
    std::optional<int64_t> estimateBoundaryMs;  // the instant the declared estimate runs out
};

// classifier-cadence.json. JSON keys are these field names.
struct State {
    int v = 1;
    int64_t lastRanAtMs = 0;
    int64_t lastJudgedAtMs = 0;
    int64_t runStartedAtMs = 0;
    std::string lastVerdict;
    std::optional<std::string> lastFrontmostApp;
    std::optional<std::string> lastWindowTitle;
    bool lastAway = false;
    std::optional<std::string> lastDeclaredTask;
    int volatility = 0;
    std::optional<std::string> excursionFromApp;
    std::optional<int64_t> runStartedBeforeExcursionMs;
    bool pausedForPower = false;
    bool pausedForCall = false;
    std::optional<int64_t> callHoldSinceMs;

    // Seconds until the next judgment is due while the run holds.
    int interval(const Config& config) const;
    // `interval`, pulled down to the floor while the verdict is volatile or the declaration is young.
    int effectiveInterval(const Config& config, const Episode& episode) const;

    bool operator==(const State&) const = default;
};

inline constexpr int stateVersion = 1;

enum class Reason {
    noPriorState,
    ceilingReached,
    appChanged,
    titleChanged,
    awayChanged,
    intervalElapsed,
    episodeOpening,
    volatileVerdict,  // `volatile` is reserved in C++
    resumedAfterCall,
    estimateBoundary,
};
std::string description(Reason reason);

struct Judge {
    Reason reason;
    bool operator==(const Judge&) const = default;
};
struct Skip {
    int dueInSec;
    bool operator==(const Skip&) const = default;
};
using Decision = std::variant<Judge, Skip>;

enum class RunOutcome { held, verdictMoved, regimeGap, newDeclaration };

// A missing or undecodable file gives no state.
std::optional<State> read(const std::filesystem::path& from);
// Atomic replace, mode 0600. Throws std::filesystem::filesystem_error.
void write(const State& state, const std::filesystem::path& to);
std::string encode(const State& state);
std::optional<State> decode(std::string_view text);

Decision decide(int64_t nowMs, const std::optional<State>& last,
                const std::optional<std::string>& frontmostApp,
                const std::optional<std::string>& windowTitle, bool away, const Episode& episode,
                const Config& config);

RunOutcome classifyRun(const std::optional<State>& from, int64_t nowMs, const std::string& verdict,
                       const std::optional<std::string>& frontmostApp,
                       const std::optional<std::string>& windowTitle, bool away,
                       const Episode& episode, const Config& config);

// The state after a judged verdict.
State advanced(const std::optional<State>& from, int64_t nowMs, const std::string& verdict,
               const std::optional<std::string>& frontmostApp,
               const std::optional<std::string>& windowTitle, bool away, const Episode& episode,
               const Config& config);

// A silent wake: the clock moves, the run does not.
State heartbeat(int64_t nowMs, State state);
State heartbeatPausedForCall(int64_t nowMs, std::optional<int64_t> holdSinceMs, State state);

// Trimmed decimal integer; anything else is absent.
std::optional<int64_t> parseInteger(std::string_view text);

}  // namespace aimwise::ClassifierCadence
