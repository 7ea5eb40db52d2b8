#pragma once
// What one gate call concluded: a summary for the coach and whether it may speak, or why there is
// no answer. A failure never reaches the person; the caller treats it as "no check-in".
#include <string>
#include <utility>
#include <variant>

namespace aimwise {

struct GateDecision {
    std::string summaryForCoach;
    bool shouldCheckIn = false;
    bool operator==(const GateDecision&) const = default;
};

struct GateOutcome {
    struct Decided {
        GateDecision decision;
        bool operator==(const Decided&) const = default;
    };
    struct Failed {
        std::string reason;
        bool operator==(const Failed&) const = default;
    };
    std::variant<Decided, Failed> value;

    static GateOutcome decided(GateDecision decision) { return {Decided{std::move(decision)}}; }
    static GateOutcome failed(std::string reason) { return {Failed{std::move(reason)}}; }
    const GateDecision* decision() const {
        const auto* decided = std::get_if<Decided>(&value);
        return decided ? &decided->decision : nullptr;
    }
    const std::string* failureReason() const {
        const auto* failed = std::get_if<Failed>(&value);
        return failed ? &failed->reason : nullptr;
    }
    bool operator==(const GateOutcome&) const = default;
};

}  // namespace aimwise
