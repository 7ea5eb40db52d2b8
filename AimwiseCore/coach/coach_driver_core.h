#pragma once
// The coach driver's decisions, apart from everything that waits. Inputs arrive with the time they
// were seen (a log changed, a timer fired, a turn streamed a delta or ended, the person pressed a
// notification's button); the core answers with effects for the loop to carry out, in order, and
// with the time it next wants to be woken. It never blocks and never calls a model: a gate call or a
// turn is an effect, and its result comes back as an input.
//
// The triggers, and what each starts (one gate call or turn at a time; nothing new starts while one
// is in flight, and what arrived meanwhile is weighed when it ends):
//   - a classifier look the gate should weigh (a drift from the declared intention, or the periodic
//     on-task check-in, newer than the coach's last decision and than the last gate call): a gate
//     call; on yes, the "coach_checkin" mark and a turn;
//   - a message from the person: a turn on the chat channel, never gated;
//   - a check-in left unanswered for ten minutes: "no_reply_timeout" is recorded, and on the driver
//     path the coach gets a turn to reassess; on the conversation path the gate weighs it.
// Quiet windows, a lock screen and a failure back-off hold the system's own triggers; only the
// failure back-off holds a reply to the person, and only for the very message that failed.
//
// Restarting repeats nothing that recorded its decision: every trigger is weighed against the newest
// "coach_decision" in the log, and gate calls against the newest line of the gate decision log.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "AimwiseCore/coach/coach_gate.h"
#include "AimwiseCore/coach/coach_loop.h"
#include "AimwiseCore/coach/coach_projection_source.h"
#include "AimwiseCore/coach/driver_trigger.h"
#include "AimwiseCore/coach/gate_decision_log.h"
#include "AimwiseCore/coach/gate_message_source.h"
#include "AimwiseCore/coach/turn_failure_backoff.h"
#include "AimwiseCore/models/turn_usage_record.h"
#include "CaptureShared/common/environment.h"

namespace aimwise {

class CoachDriverCore {
public:
    struct Settings {
        std::filesystem::path dataRoot;
        Environment environment;
        double turnTimeoutSec = 240;
        double turnFailureBaseSec = 60;
        double turnFailureCapSec = 1800;
        double gateFailureBaseSec = 30;
        double gateFailureCapSec = 900;
        // A look at the logs even when the watcher said nothing: the fallback for a lost watch.
        int64_t slowPollMs = 60'000;
        CoachProjection::Window window;
        double layer3StepSec = 3600;
        // Whether a chat window is open now (the chat's lock file is held).
        std::function<bool()> chatIsOpen;
    };

    // Inputs.
    struct LogsChanged {};
    struct TimerFired {};
    struct Delta {
        uint64_t job = 0;
        ModelStreamDelta delta;
    };
    struct GateEnded {
        uint64_t job = 0;
        GateOutcome outcome = GateOutcome::failed("not run");
        CoachGate::Attempts attempts;
        std::optional<GateUnconstrainedBreaker::Counters> breaker;
        GateDecisionLog::UsageTally usage;
        bool backendFailed = false;
    };
    struct TurnEnded {
        uint64_t job = 0;
        std::optional<ChatResponse> response;
        // Set when there is no response: for the record, and in the person's words.
        std::string failureReason;
        std::string failureUserReason;
    };
    struct NotificationAction {
        std::string key;  // "reply", "default" or "not-now"
    };
    struct NotificationClosed {};
    using Input = std::variant<LogsChanged, TimerFired, Delta, GateEnded, TurnEnded, NotificationAction,
                               NotificationClosed>;

    // Effects.
    struct Log {
        std::string line;
    };
    struct AppendEvents {
        std::vector<EventLogEvent> events;
    };
    struct CallGate {
        uint64_t job = 0;
        std::string message;
        bool lowEffort = false;
        bool unconstrained = true;
    };
    struct RunTurn {
        uint64_t job = 0;
        bool layer3 = false;
        CoachChannel channel = CoachChannel::checker;
        CoachLoop::PreparedTurn turn;  // messages with the system prompt, and the options
        std::vector<ToolSpec> tools;
        CoachTurnEffects::CorrectJudgment correctJudgment;
        std::string uiStateAnswer;
        double timeoutSec = 0;
    };
    struct RecordGateDecision {
        GateDecisionLog::Record record;
    };
    struct RecordUsage {
        TurnUsageRecord record;
    };
    struct ShowNotification {
        std::string text;
    };
    struct CloseNotification {};
    struct OpenChat {};
    struct ChatDelta {
        ModelStreamDelta delta;
    };
    // What the chat shows when a turn ends: the coach's words, or why there are none.
    struct ChatTurnEnded {
        std::optional<std::string> text;
        std::optional<std::string> failure;
    };
    using Effect = std::variant<Log, AppendEvents, CallGate, RunTurn, RecordGateDecision, RecordUsage,
                                ShowNotification, CloseNotification, OpenChat, ChatDelta, ChatTurnEnded>;

    explicit CoachDriverCore(Settings settings);

    std::vector<Effect> handle(const Input& input, int64_t nowMs);
    // When the core next wants a TimerFired, at the latest.
    int64_t nextDeadlineMs(int64_t nowMs) const;
    bool busy() const { return inFlight_.has_value(); }
    bool notificationShowing() const { return notificationShowing_; }

    // check_ui_state's answer.
    static std::string uiStateText(bool chatOpen, bool notificationShowing);

private:
    struct InFlight {
        uint64_t job = 0;
        enum class Kind { gate, turn } kind = Kind::gate;
        bool layer3 = false;
        CoachChannel channel = CoachChannel::checker;
        int64_t identity = 0;
        int64_t startedMs = 0;
        std::vector<ChatMessage> messages;
        CoachTurnEffects::CorrectJudgment correctJudgment;
        std::vector<MedsCheckin> meds;
        bool checkin = false;
        bool lowEffort = false;         // a gate call's, for its decision log
        int64_t messageCharacters = 0;
    };

    void pump(int64_t nowMs, std::vector<Effect>& out);
    void onGateEnded(const GateEnded& ended, int64_t nowMs, std::vector<Effect>& out);
    void onTurnEnded(const TurnEnded& ended, int64_t nowMs, std::vector<Effect>& out);
    void startGate(int64_t identity, int64_t nowMs, std::vector<Effect>& out);
    void startTurn(CoachChannel channel, int64_t identity, const std::optional<std::string>& checkinSummary,
                   int64_t nowMs, std::vector<Effect>& out);
    void say(const std::string& line, std::vector<Effect>& out);
    void sayOnce(const std::string& line, std::vector<Effect>& out);
    bool layer3() const;
    std::vector<MedsCheckin> outstandingMeds(int64_t nowMs) const;
    std::optional<std::string> standingNotes(int64_t nowMs, CoachCorrection::Scope scope) const;

    Settings settings_;
    CoachProjectionSource source_;
    GateMessageSource gateSource_;
    TurnFailureBackoff turnBackoff_;
    TurnFailureBackoff gateBackoff_;
    std::optional<InFlight> inFlight_;
    uint64_t nextJob_ = 1;
    std::optional<int64_t> gatedThroughMs_;
    // A trigger that gave no conversation to answer, so that it is not tried on every look.
    std::optional<int64_t> unanswerable_;
    std::optional<int64_t> wakeAtMs_;
    bool notificationShowing_ = false;
    std::string lastSaid_;
};

}  // namespace aimwise
