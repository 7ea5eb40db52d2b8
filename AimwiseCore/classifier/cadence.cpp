#include "AimwiseCore/classifier/cadence.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/saturating.h"

namespace aimwise::ClassifierCadence {

namespace {

using nlohmann::json;

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

std::optional<int> configValue(const Environment& environment, const char* key) {
    const auto raw = lookup(environment, key);
    if (!raw) return std::nullopt;
    const auto value = parseInteger(*raw);
    if (!value || *value < INT32_MIN || *value > INT32_MAX) return std::nullopt;
    return static_cast<int>(*value);
}

int64_t elapsedSec(int64_t nowMs, int64_t sinceMs) {
    // A clock moved backwards reads as no time at all, never as a negative wait.
    return nowMs > sinceMs ? Saturating::subtract(nowMs, sinceMs) / 1000 : 0;
}

bool insideWarmup(const Episode& episode, const Config& config) {
    return episode.minutesSinceDeclared && *episode.minutesSinceDeclared * 60.0 < config.warmupSec;
}

template <typename T>
void putOptional(json& object, const char* key, const std::optional<T>& value) {
    if (value) object[key] = *value;
}

template <typename T>
bool takeOptional(const json& object, const char* key, std::optional<T>& out) {
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) return true;
    if constexpr (std::is_same_v<T, std::string>) {
        if (!it->is_string()) return false;
        out = it->template get<std::string>();
    } else {
        if (!it->is_number_integer()) return false;
        out = it->template get<T>();
    }
    return true;
}

bool takeInteger(const json& object, const char* key, int64_t& out, bool required) {
    const auto it = object.find(key);
    if (it == object.end()) return !required;
    if (!it->is_number_integer()) return false;
    out = it->get<int64_t>();
    return true;
}

bool takeBool(const json& object, const char* key, bool& out) {
    const auto it = object.find(key);
    if (it == object.end()) return true;
    if (!it->is_boolean()) return false;
    out = it->get<bool>();
    return true;
}

}  // namespace

std::optional<int64_t> parseInteger(std::string_view text) {
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (!text.empty() && text.front() == '-') return std::nullopt;
    }
    if (text.empty()) return std::nullopt;
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

Config Config::fromEnvironment(const Environment& environment) {
    Config config;
    if (const auto v = configValue(environment, "AIMCAP_CLASSIFY_MIN_INTERVAL_SEC"); v && *v >= 1) {
        config.floorSec = *v;
        config.ceilingSec = std::max(*v, 300);
        config.onTaskCeilingSec = std::min(std::max(*v, 120), config.ceilingSec);
    }
    if (const auto v = configValue(environment, "AIMCAP_CLASSIFY_MAX_INTERVAL_SEC"); v && *v >= config.floorSec) {
        config.ceilingSec = *v;
        config.onTaskCeilingSec = std::min(config.onTaskCeilingSec, *v);
    }
    return config;
}

int State::interval(const Config& config) const {
    const int ceiling = lastVerdict == "ON_TASK" ? config.onTaskCeilingSec : config.ceilingSec;
    const double runSec = std::max(0.0, static_cast<double>(Saturating::subtract(lastJudgedAtMs, runStartedAtMs)) / 1000.0);
    const double floor = static_cast<double>(config.floorSec);
    const double raw = std::trunc(floor * std::pow(std::max(runSec / floor, 1.0), config.growthExponent));
    if (!std::isfinite(raw)) return ceiling;
    return static_cast<int>(std::min(std::max(raw, floor), static_cast<double>(ceiling)));
}

int State::effectiveInterval(const Config& config, const Episode& episode) const {
    const int base = interval(config);
    if (volatility > 0 || insideWarmup(episode, config)) return std::min(base, config.floorSec);
    return base;
}

std::string description(Reason reason) {
    switch (reason) {
        case Reason::noPriorState: return "no prior state";
        case Reason::ceilingReached: return "ceiling reached";
        case Reason::appChanged: return "frontmost app changed";
        case Reason::titleChanged: return "window title changed";
        case Reason::awayChanged: return "away state changed";
        case Reason::intervalElapsed: return "interval elapsed";
        case Reason::episodeOpening: return "task just declared";
        case Reason::volatileVerdict: return "verdict recently moved";
        case Reason::resumedAfterCall: return "resumed after a call";
        case Reason::estimateBoundary: return "declared estimate came due";
    }
    return "";
}

Decision decide(int64_t nowMs, const std::optional<State>& last,
                const std::optional<std::string>& frontmostApp,
                const std::optional<std::string>& windowTitle, bool away, const Episode& episode,
                const Config& config) {
    if (!last) return Judge{Reason::noPriorState};
    if (last->pausedForCall) return Judge{Reason::resumedAfterCall};
    const int64_t elapsed = elapsedSec(nowMs, last->lastJudgedAtMs);
    if (elapsed >= config.ceilingSec) return Judge{Reason::ceilingReached};
    if (episode.estimateBoundaryMs && *episode.estimateBoundaryMs > last->lastRanAtMs &&
        *episode.estimateBoundaryMs <= nowMs)
        return Judge{Reason::estimateBoundary};
    if (frontmostApp != last->lastFrontmostApp) return Judge{Reason::appChanged};
    if (windowTitle != last->lastWindowTitle) return Judge{Reason::titleChanged};
    if (away != last->lastAway) return Judge{Reason::awayChanged};
    const int due = last->effectiveInterval(config, episode);
    if (elapsed >= due) {
        if (last->volatility > 0) return Judge{Reason::volatileVerdict};
        if (insideWarmup(episode, config)) return Judge{Reason::episodeOpening};
        return Judge{Reason::intervalElapsed};
    }
    return Skip{static_cast<int>(due - elapsed)};
}

RunOutcome classifyRun(const std::optional<State>& from, int64_t nowMs, const std::string& verdict,
                       const std::optional<std::string>& frontmostApp,
                       const std::optional<std::string>& windowTitle, bool away,
                       const Episode& episode, const Config& config) {
    if (!from) return RunOutcome::regimeGap;
    if (from->pausedForCall || Saturating::subtract(nowMs, from->lastRanAtMs) > static_cast<int64_t>(config.regimeGapSec) * 1000)
        return RunOutcome::regimeGap;
    if (from->lastDeclaredTask && episode.declaredTask && *from->lastDeclaredTask != *episode.declaredTask)
        return RunOutcome::newDeclaration;
    if (verdict == from->lastVerdict && frontmostApp == from->lastFrontmostApp &&
        windowTitle == from->lastWindowTitle && away == from->lastAway)
        return RunOutcome::held;
    return RunOutcome::verdictMoved;
}

State advanced(const std::optional<State>& from, int64_t nowMs, const std::string& verdict,
               const std::optional<std::string>& frontmostApp,
               const std::optional<std::string>& windowTitle, bool away, const Episode& episode,
               const Config& config) {
    const RunOutcome outcome = classifyRun(from, nowMs, verdict, frontmostApp, windowTitle, away, episode, config);
    State next = from.value_or(State{});
    next.lastRanAtMs = nowMs;
    next.lastJudgedAtMs = nowMs;
    next.lastVerdict = verdict;
    next.lastFrontmostApp = frontmostApp;
    next.lastWindowTitle = windowTitle;
    next.lastAway = away;
    next.lastDeclaredTask = episode.declaredTask;
    next.pausedForPower = false;
    next.pausedForCall = false;
    next.callHoldSinceMs.reset();

    const bool verdictChanged = from && from->lastVerdict != verdict;
    next.volatility = !from ? 0 : verdictChanged ? config.volatilityBoost : std::max(0, from->volatility - 1);

    switch (outcome) {
        case RunOutcome::held:
            break;
        case RunOutcome::regimeGap:
        case RunOutcome::newDeclaration:
            next.runStartedAtMs = nowMs;
            next.excursionFromApp.reset();
            next.runStartedBeforeExcursionMs.reset();
            break;
        case RunOutcome::verdictMoved:
            next.runStartedAtMs = nowMs;
            if (verdictChanged) {
                next.excursionFromApp.reset();
                next.runStartedBeforeExcursionMs.reset();
            } else if (from->excursionFromApp && frontmostApp == from->excursionFromApp) {
                // Back where the run began under the same verdict: a short detour should not
                // throw away the interval the run had grown.
                next.runStartedAtMs = from->runStartedBeforeExcursionMs.value_or(nowMs);
                next.excursionFromApp.reset();
                next.runStartedBeforeExcursionMs.reset();
            } else if (frontmostApp != from->lastFrontmostApp && !from->excursionFromApp &&
                       from->lastFrontmostApp) {
                next.excursionFromApp = from->lastFrontmostApp;
                next.runStartedBeforeExcursionMs = from->runStartedAtMs;
            }
            break;
    }
    return next;
}

State heartbeat(int64_t nowMs, State state) {
    state.lastRanAtMs = nowMs;
    state.pausedForPower = false;
    state.callHoldSinceMs.reset();
    return state;
}

State heartbeatPausedForCall(int64_t nowMs, std::optional<int64_t> holdSinceMs, State state) {
    state.lastRanAtMs = nowMs;
    state.pausedForPower = false;
    state.pausedForCall = true;
    state.callHoldSinceMs = holdSinceMs ? holdSinceMs : state.callHoldSinceMs ? state.callHoldSinceMs : nowMs;
    return state;
}

std::string encode(const State& state) {
    json object = json::object();  // std::map underneath, so keys come out sorted
    object["v"] = state.v;
    object["lastRanAtMs"] = state.lastRanAtMs;
    object["lastJudgedAtMs"] = state.lastJudgedAtMs;
    object["runStartedAtMs"] = state.runStartedAtMs;
    object["lastVerdict"] = state.lastVerdict;
    putOptional(object, "lastFrontmostApp", state.lastFrontmostApp);
    putOptional(object, "lastWindowTitle", state.lastWindowTitle);
    object["lastAway"] = state.lastAway;
    putOptional(object, "lastDeclaredTask", state.lastDeclaredTask);
    object["volatility"] = state.volatility;
    putOptional(object, "excursionFromApp", state.excursionFromApp);
    putOptional(object, "runStartedBeforeExcursionMs", state.runStartedBeforeExcursionMs);
    object["pausedForPower"] = state.pausedForPower;
    object["pausedForCall"] = state.pausedForCall;
    putOptional(object, "callHoldSinceMs", state.callHoldSinceMs);
    return object.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::optional<State> decode(std::string_view text) {
    const json object = json::parse(text, nullptr, false);
    if (!object.is_object()) return std::nullopt;
    State state;
    int64_t v = 0, volatility = 0;
    const auto verdict = object.find("lastVerdict");
    if (verdict == object.end() || !verdict->is_string()) return std::nullopt;
    state.lastVerdict = verdict->get<std::string>();
    const bool ok = takeInteger(object, "v", v, true) && takeInteger(object, "lastRanAtMs", state.lastRanAtMs, true) &&
                    takeInteger(object, "lastJudgedAtMs", state.lastJudgedAtMs, true) &&
                    takeInteger(object, "runStartedAtMs", state.runStartedAtMs, true) &&
                    takeInteger(object, "volatility", volatility, false) &&
                    takeOptional(object, "lastFrontmostApp", state.lastFrontmostApp) &&
                    takeOptional(object, "lastWindowTitle", state.lastWindowTitle) &&
                    takeBool(object, "lastAway", state.lastAway) &&
                    takeOptional(object, "lastDeclaredTask", state.lastDeclaredTask) &&
                    takeOptional(object, "excursionFromApp", state.excursionFromApp) &&
                    takeOptional(object, "runStartedBeforeExcursionMs", state.runStartedBeforeExcursionMs) &&
                    takeBool(object, "pausedForPower", state.pausedForPower) &&
                    takeBool(object, "pausedForCall", state.pausedForCall) &&
                    takeOptional(object, "callHoldSinceMs", state.callHoldSinceMs);
    if (!ok || v < INT32_MIN || v > INT32_MAX || volatility < INT32_MIN || volatility > INT32_MAX)
        return std::nullopt;
    state.v = static_cast<int>(v);
    state.volatility = static_cast<int>(volatility);
    return state;
}

std::optional<State> read(const std::filesystem::path& from) {
    try {
        return decode(readWholeFile(from, ReadLimit::setting));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// Rewritten by every tick, most of them skips, where waiting for the disk would cost more than the
// rest of the run; a crash that loses the file costs one more judgment.
void write(const State& state, const std::filesystem::path& to) {
    writeFileAtomically(to, encode(state), 0600, Durability::unsynced);
}

}  // namespace aimwise::ClassifierCadence
