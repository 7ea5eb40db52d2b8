#pragma once
// One gate decision: a cheap model call that reads the timeline and says whether the coach may
// speak. The free attempt comes first, because a model answers better without a schema; when it
// keeps failing to give a readable object, a breaker skips it for a growing number of ticks.
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "AimwiseCore/coach/gate_outcome.h"
#include "AimwiseCore/models/model_backend.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "CaptureShared/common/environment.h"

namespace aimwise {

// Shared by one polling loop's calls; nothing of it is kept on disk, so a restart forgets the backoff.
class GateUnconstrainedBreaker {
public:
    struct Counters {
        int64_t consecutiveFailures = 0;
        int64_t skipsRemaining = 0;
        int64_t ticksSinceLastSuccess = 0;
        bool operator==(const Counters&) const = default;
    };
    struct Backoff {
        int64_t skipTicks = 0;
        int64_t consecutiveFailures = 0;
        int64_t ticksSinceLastSuccess = 0;
        bool operator==(const Backoff&) const = default;
    };

    explicit GateUnconstrainedBreaker(int64_t maxBackoffTicks) : maxBackoffTicks_(maxBackoffTicks) {}

    // Counts one tick, and answers false, using up one skip, while a backoff lasts.
    bool allowsUnconstrained();
    void recordSuccess();
    // The next skip count doubles from 1 up to maxBackoffTicks.
    Backoff recordParseFailure();
    // "GATE UNCONSTRAINED STUCK AT CEILING: " once failures go on after the backoff reached its ceiling.
    std::string ceilingWarning(const Backoff& backoff) const;

    Counters counters() const;
    int64_t maxBackoffTicks() const { return maxBackoffTicks_; }

private:
    mutable std::mutex lock_;
    Counters counters_;
    const int64_t maxBackoffTicks_;
};

namespace GateUnconstrainedFlag {
inline constexpr const char* variable = "AIMCAP_GATE_UNCONSTRAINED";
// Armed unless the variable says "0", "false", "off" or "no" (trimmed, any case).
bool isArmed(const Environment& environment);
}  // namespace GateUnconstrainedFlag

// The reply as a log line may show it: secrets scrubbed, and long text cut with its full length noted.
std::string rawTextPreview(std::string_view text, size_t limit = 300);

class CoachGate {
public:
    struct Callbacks {
        std::function<void(const ChatResponse&)> onUsage;
        std::function<void(const std::string&)> onUnconstrainedRetry;
        std::function<void(const ModelBackendError&)> onBackendError;
    };
    // Which attempts ran, for the gate decision log.
    struct Attempts {
        bool unconstrained = false;
        bool skippedByBreaker = false;
        bool constrained = false;
        std::optional<std::string> unconstrainedFailure;
    };

    // The backend is the top of a stack from the backend factory; the gate never knows its depth.
    CoachGate(std::shared_ptr<ModelBackend> backend, int64_t maxTokens);

    // May block at each model call. Cancellation passes straight through.
    GateOutcome decide(const std::string& message, const std::string& sessionID, bool unconstrained,
                       GateUnconstrainedBreaker* breaker, const Callbacks& callbacks = {},
                       Attempts* attempts = nullptr) const;

    ChatOptions options(bool constrained, const std::string& sessionID) const;

private:
    struct Attempt {
        GateOutcome outcome;
        bool backendThrew = false;
        std::string rawText;
    };
    Attempt attempt(const std::string& message, const ChatOptions& options, const Callbacks& callbacks) const;

    std::shared_ptr<ModelBackend> backend_;
    int64_t maxTokens_;
};

}  // namespace aimwise
