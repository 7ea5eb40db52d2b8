#include "AimwiseCore/coach/turn_failure_backoff.h"

#include <algorithm>
#include <cmath>

namespace aimwise {

TurnFailureBackoff::Blocked TurnFailureBackoff::isBlocked(std::optional<int64_t> identity, int64_t asOfMs) const {
    if (!nextEligibleAtMs_ || *nextEligibleAtMs_ <= asOfMs) return {};
    if (identity != failingIdentity_) return {};
    return {true, (*nextEligibleAtMs_ - asOfMs) / 1000};
}

TurnFailureBackoff::Failure TurnFailureBackoff::recordFailure(std::optional<int64_t> identity, int64_t asOfMs) {
    ++consecutiveFailures_;
    const double exponent = static_cast<double>(std::min<int64_t>(consecutiveFailures_ - 1, 30));
    const double interval = std::min(baseInterval_ * std::pow(2.0, exponent), capInterval_);
    nextEligibleAtMs_ = asOfMs + static_cast<int64_t>(interval * 1000.0);
    failingIdentity_ = identity;
    return {interval, consecutiveFailures_};
}

void TurnFailureBackoff::recordSuccess() {
    consecutiveFailures_ = 0;
    nextEligibleAtMs_.reset();
    failingIdentity_.reset();
}

}  // namespace aimwise
