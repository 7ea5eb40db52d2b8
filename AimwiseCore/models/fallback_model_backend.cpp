#include "AimwiseCore/models/fallback_model_backend.h"

#include <cmath>
#include <cstdio>

#include "AimwiseCore/models/backend_failure.h"
#include "AimwiseCore/models/cancellation.h"
#include "AimwiseCore/models/merl_proxy_error.h"
#include "AimwiseCore/models/merl_route_directive.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise {

namespace {

std::string seconds(double value) { return std::to_string(std::llround(value)) + "s"; }

std::string cooldownCause(FallbackCause cause) {
    switch (cause) {
        case FallbackCause::licenseLapsed: return "a lapsed license";
        case FallbackCause::termsUpdateRequired: return "an unaccepted terms update";
        default: return "a reachability failure";
    }
}

struct FallbackReason {
    FallbackCause cause = FallbackCause::unreachable;
    std::optional<MerlProxyError::Fields> terms;
};

}  // namespace

std::optional<FallbackCause> FallbackModelBackend::Breaker::skipCause(int64_t nowMs) const {
    std::lock_guard lock(mutex_);
    if (!openedAtMs_ || double(nowMs - *openedAtMs_) >= cooldownSec_ * 1000.0) return std::nullopt;
    return cause_;
}

void FallbackModelBackend::Breaker::open(FallbackCause cause, double cooldownSec, int64_t nowMs) {
    std::lock_guard lock(mutex_);
    openedAtMs_ = nowMs;
    cooldownSec_ = cooldownSec;
    cause_ = cause;
}

void FallbackModelBackend::StreamProgress::startAttempt() {
    std::lock_guard lock(mutex_);
    ++attempt_;
}

void FallbackModelBackend::StreamProgress::deliver(const ModelStreamDelta& delta) {
    std::lock_guard lock(mutex_);
    ModelStreamDelta out = delta;
    if (delivered_ && attempt_ > 1 && !resetAnnounced_) {
        resetAnnounced_ = true;
        out.resetsPrevious = true;
    }
    delivered_ = true;
    if (onDelta_) onDelta_(out);
}

FallbackModelBackend::FallbackModelBackend(std::shared_ptr<ModelBackend> primary,
                                           std::shared_ptr<ModelBackend> fallback, std::string primaryName,
                                           std::string fallbackName, Options options, const Clock& clock, Log log,
                                           std::shared_ptr<Breaker> breaker)
    : primary_(std::move(primary)),
      fallback_(std::move(fallback)),
      primaryName_(std::move(primaryName)),
      fallbackName_(std::move(fallbackName)),
      options_(options),
      clock_(clock),
      log_(std::move(log)),
      breaker_(breaker ? std::move(breaker) : std::make_shared<Breaker>()) {}

void FallbackModelBackend::emit(const std::string& line) const {
    if (log_) log_(line);
}

ChatResponse FallbackModelBackend::escalatingTruncated(ChatResponse truncated, const Call& call) {
    emit("model backend: " + primaryName_ + "'s reply was cut off (truncated, " +
         std::to_string(utf8::scalarCount(truncated.text)) + " reply chars) -- re-running this call on " +
         fallbackName_);
    try {
        ChatResponse response = call(*fallback_);
        response.servedBy = fallbackName_;
        response.servedByFallback = true;
        return response;
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception& error) {
        emit("model backend: " + fallbackName_ + " failed too (" + describeModelFailure(error) + ") -- keeping " +
             primaryName_ + "'s truncated reply");
        return truncated;
    }
}

ChatResponse FallbackModelBackend::route(const Call& call) {
    FallbackReason reason;
    if (std::optional<FallbackCause> skip = breaker_->skipCause(clock_.monotonicMs())) {
        emit("model backend: " + primaryName_ + " still in cooldown after " + cooldownCause(*skip) + ", using " +
             fallbackName_ + " without retrying it");
        reason.cause = *skip;
    } else {
        const auto openBreaker = [&](FallbackCause cause, double cooldownSec) {
            breaker_->open(cause, cooldownSec, clock_.monotonicMs());
            reason.cause = cause;
        };
        try {
            ChatResponse response = call(*primary_);
            if (options_.escalateTruncatedPrimary && response.truncated)
                return escalatingTruncated(std::move(response), call);
            return response;
        } catch (const CancellationError&) {
            throw;
        } catch (const MerlRouteDirective& directive) {
            char share[32] = "?";
            if (directive.onlineShare()) std::snprintf(share, sizeof share, "%.2f", *directive.onlineShare());
            emit("model backend: " + primaryName_ + " is pacing this license (" + directive.reason() + ", online share " +
                 share + ") — " + fallbackName_ + " answers this turn");
            reason.cause = FallbackCause::paced;
        } catch (const MerlProxyError& error) {
            if (error.isRateLimited()) {
                emit("model backend: " + primaryName_ + " rate-limited this call — " + fallbackName_ +
                     " answers it; the next call asks " + primaryName_ + " again");
                reason.cause = FallbackCause::unreachable;
            } else if (error.isLicenseLapsed()) {
                openBreaker(FallbackCause::licenseLapsed, options_.lapsedCooldownSec);
                emit(primaryName_ + " says the license has lapsed — " + fallbackName_ +
                     " answers for this turn and the next " + seconds(options_.lapsedCooldownSec));
            } else if (error.isTermsUpdate()) {
                openBreaker(FallbackCause::termsUpdateRequired, options_.termsCooldownSec);
                emit(primaryName_ + " says the terms of service were updated — " + fallbackName_ +
                     " answers for this turn and the next " + seconds(options_.termsCooldownSec));
                reason.terms = error.fields();
            } else if (error.retryable()) {
                openBreaker(FallbackCause::unreachable, options_.cooldownSec);
                emit(primaryName_ + " unreachable (" + describeModelFailure(error) + ") — falling back to " +
                     fallbackName_ + " for this turn, and for the next " + seconds(options_.cooldownSec));
            } else {
                throw;
            }
        } catch (const std::exception& error) {
            if (!isReachabilityFailure(error)) throw;
            openBreaker(FallbackCause::unreachable, options_.cooldownSec);
            emit(primaryName_ + " unreachable (" + describeModelFailure(error) + ") — falling back to " +
                 fallbackName_ + " for this turn, and for the next " + seconds(options_.cooldownSec));
        }
    }
    ChatResponse response = call(*fallback_);
    response.servedBy = fallbackName_;
    response.servedByFallback = true;
    response.fallbackCause = reason.cause;
    if (reason.terms) {
        response.termsUpdateVersion = reason.terms->termsVersion;
        response.termsUpdateURL = reason.terms->termsURL;
        response.termsUpdateSummary = reason.terms->termsSummary;
    }
    return response;
}

ChatResponse FallbackModelBackend::chat(const std::vector<ChatMessage>& messages,
                                        const std::optional<std::vector<ToolSpec>>& tools,
                                        const ChatOptions& options) {
    return route([&](ModelBackend& backend) { return backend.chat(messages, tools, options); });
}

ChatResponse FallbackModelBackend::chatStream(const std::vector<ChatMessage>& messages,
                                              const std::optional<std::vector<ToolSpec>>& tools,
                                              const ChatOptions& options, const StreamDeltaHandler& onDelta) {
    StreamProgress progress(onDelta);
    const StreamDeltaHandler deliver = [&](const ModelStreamDelta& delta) { progress.deliver(delta); };
    return route([&](ModelBackend& backend) {
        progress.startAttempt();
        return backend.chatStream(messages, tools, options, deliver);
    });
}

}  // namespace aimwise
