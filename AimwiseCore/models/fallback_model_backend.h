#pragma once
// Moves a call to a second backend when the first cannot answer, and keeps away from the first for
// a cooldown (a circuit breaker) so that every call of an outage does not pay the failure again.
// Only failures another model could survive move a call; a request that would fail anywhere
// surfaces. A reply that the fallback served says so (servedBy, servedByFallback, fallbackCause).
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "AimwiseCore/models/model_backend.h"
#include "CaptureShared/common/clock.h"

namespace aimwise {

class FallbackModelBackend : public ModelBackend {
public:
    using Log = std::function<void(const std::string& line)>;

    static constexpr double lapsedLicenseCooldown = 600;
    static constexpr double termsUpdateCooldown = 600;

    // Shared by every call through one FallbackModelBackend; serialises its own state.
    class Breaker {
    public:
        // The cause while open: opened less than its cooldown before `nowMs`.
        std::optional<FallbackCause> skipCause(int64_t nowMs) const;
        void open(FallbackCause cause, double cooldownSec, int64_t nowMs);

    private:
        mutable std::mutex mutex_;
        std::optional<int64_t> openedAtMs_;
        double cooldownSec_ = 0;
        FallbackCause cause_ = FallbackCause::unreachable;
    };

    // What the caller of one streamed call has seen. When a later backend starts streaming after the
    // caller saw text, its first delta drops the earlier text (once per call); the trace is left to
    // each delta's own flag.
    class StreamProgress {
    public:
        explicit StreamProgress(const StreamDeltaHandler& onDelta) : onDelta_(onDelta) {}
        void startAttempt();
        void deliver(const ModelStreamDelta& delta);

    private:
        const StreamDeltaHandler& onDelta_;
        std::mutex mutex_;
        bool delivered_ = false;
        int attempt_ = 0;
        bool resetAnnounced_ = false;
    };

    struct Options {
        double cooldownSec = 60;
        double lapsedCooldownSec = lapsedLicenseCooldown;
        double termsCooldownSec = termsUpdateCooldown;
        // Re-run a truncated reply of the primary on the fallback.
        bool escalateTruncatedPrimary = false;
    };

    FallbackModelBackend(std::shared_ptr<ModelBackend> primary, std::shared_ptr<ModelBackend> fallback,
                         std::string primaryName, std::string fallbackName, Options options, const Clock& clock,
                         Log log, std::shared_ptr<Breaker> breaker = nullptr);

    ChatResponse chat(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                      const ChatOptions& options) override;
    ChatResponse chatStream(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                            const ChatOptions& options, const StreamDeltaHandler& onDelta) override;

    const std::string& primaryName() const { return primaryName_; }
    const std::string& fallbackName() const { return fallbackName_; }
    const Options& options() const { return options_; }
    Breaker& breaker() { return *breaker_; }

private:
    using Call = std::function<ChatResponse(ModelBackend& backend)>;
    ChatResponse route(const Call& call);
    ChatResponse escalatingTruncated(ChatResponse truncated, const Call& call);
    void emit(const std::string& line) const;

    std::shared_ptr<ModelBackend> primary_;
    std::shared_ptr<ModelBackend> fallback_;
    std::string primaryName_;
    std::string fallbackName_;
    Options options_;
    const Clock& clock_;
    Log log_;
    std::shared_ptr<Breaker> breaker_;
};

}  // namespace aimwise
