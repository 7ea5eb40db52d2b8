#pragma once
// After a failed turn the driver waits before trying the same thing again, twice as long after each
// failure in a row, up to a cap. The wait is tied to what failed (the identity of the trigger), so
// something new gets its own try at once. Held in memory: a restart tries again.
#include <cstdint>
#include <optional>

namespace aimwise {

class TurnFailureBackoff {
public:
    struct Blocked {
        bool blocked = false;
        int64_t remainingSec = 0;
        bool operator==(const Blocked&) const = default;
    };
    struct Failure {
        double interval = 0;  // seconds
        int64_t consecutiveFailures = 0;
        bool operator==(const Failure&) const = default;
    };

    TurnFailureBackoff(double baseInterval, double capInterval) : baseInterval_(baseInterval), capInterval_(capInterval) {}

    Blocked isBlocked(std::optional<int64_t> identity, int64_t asOfMs) const;
    Failure recordFailure(std::optional<int64_t> identity, int64_t asOfMs);
    void recordSuccess();

    int64_t consecutiveFailures() const { return consecutiveFailures_; }
    std::optional<int64_t> nextEligibleAtMs() const { return nextEligibleAtMs_; }
    std::optional<int64_t> failingIdentity() const { return failingIdentity_; }

private:
    double baseInterval_;
    double capInterval_;
    int64_t consecutiveFailures_ = 0;
    std::optional<int64_t> nextEligibleAtMs_;
    std::optional<int64_t> failingIdentity_;
};

}  // namespace aimwise
