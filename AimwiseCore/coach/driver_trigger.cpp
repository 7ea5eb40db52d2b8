#include "AimwiseCore/coach/driver_trigger.h"

#include "AimwiseCore/classifier/self_observation.h"
#include "AimwiseCore/coach/coach_gate_timeline.h"
#include "AimwiseCore/coach/quiet_windows.h"
#include "CaptureShared/common/local_time.h"

namespace aimwise::DriverTrigger {

namespace {

bool isFromPerson(const EventLogEvent& event) {
    if (event.type == "checker_input_received") return true;
    if (event.type != "app_chat_message") return false;
    const JSONValue* role = event.detail.member("role");
    return role && role->stringValue() == "user";
}

// "Not now" on the notification answers it as surely as words would.
bool isNotNow(const EventLogEvent& event) {
    if (event.type != "ui_closed") return false;
    const JSONValue* by = event.detail.member("dismissed_by");
    return by && by->stringValue() == "not_now";
}

bool isSurfacing(const EventLogEvent& event) { return event.type == "checker_output_sent" || event.type == "ui_opened"; }

std::string clock(int64_t ms) { return CoachGateTimeline::formatTime(ms); }

}  // namespace

std::optional<int64_t> unansweredOutputMs(std::span<const EventLogEvent> events, int64_t asOfMs) {
    for (auto event = events.rbegin(); event != events.rend(); ++event) {
        if (event->tsMs > asOfMs) continue;
        if (isFromPerson(*event) || event->type == "no_reply_timeout" || isNotNow(*event)) return std::nullopt;
        if (isSurfacing(*event)) return event->tsMs;
    }
    return std::nullopt;
}

Outcome evaluate(std::span<const EventLogEvent> events, std::span<const CoachProjection::TimedTick> ticks,
                 int64_t asOfMs, const CoachProjection::Window& window) {
    if (const auto since = unansweredOutputMs(events, asOfMs)) {
        if (asOfMs - *since < replyWaitMs) return WaitingForReply{*since, *since + replyWaitMs};
        return TimedOutWaitingForReply{*since};
    }
    const auto signal = CoachTurnEffects::latestTrailingSignal(events, ticks, asOfMs, window.onTaskCheckinEveryTicks);
    if (!signal) return NothingNew{};
    if (signal->channel == CoachChannel::appChat) return ReadyForTurn{*signal};

    const CoachProjection::TimedTick* latest = nullptr;
    for (auto tick = ticks.rbegin(); tick != ticks.rend() && !latest; ++tick)
        if (tick->ms <= asOfMs && tick->tick) latest = &*tick;
    if (latest && latest->ms == signal->tsMs && latest->tick->state &&
        ClassifierSelfObservation::isSelfObservation(*latest->tick->state, latest->tick->frontmostApp))
        return NoReactableTurn{signal->tsMs};
    if (const auto quiet = QuietWindows::mustStayQuiet(events, asOfMs))
        return DeferredBackOff{signal->tsMs, quiet->untilMs};
    if (latest && asOfMs - latest->ms <= lockedTickFreshMs && latest->tick->frontmostApp == lockScreenApp)
        return DeferredMachineLocked{signal->tsMs};
    // An on-task check-in is itself an on-task tick; only a drift the person has since left is stale.
    if (latest && latest->ms > signal->tsMs && latest->tick->state == "ON_TASK") return DeferredOnTask{signal->tsMs};
    return ReadyForTurn{*signal};
}

std::string describe(const Outcome& outcome) {
    struct Words {
        std::string operator()(const TimedOutWaitingForReply& o) const {
            return "no reply since the coach spoke at " + clock(o.sinceTsMs) + "; the check-in counts as unanswered";
        }
        std::string operator()(const WaitingForReply& o) const {
            return "waiting for a reply to what the coach said at " + clock(o.sinceTsMs) + ", until " + clock(o.untilTsMs);
        }
        std::string operator()(const DeferredMachineLocked& o) const {
            return "the screen is locked; what was noticed at " + clock(o.sinceTsMs) + " waits";
        }
        std::string operator()(const DeferredOnTask& o) const {
            return "back on task since what was noticed at " + clock(o.sinceTsMs) + "; nothing to say";
        }
        std::string operator()(const DeferredBackOff& o) const {
            return "a quiet window holds until " + clock(o.untilTsMs) + "; what was noticed at " + clock(o.sinceTsMs) +
                   " waits";
        }
        std::string operator()(const NothingNew&) const { return "nothing new since the coach's last decision"; }
        std::string operator()(const ReadyForTurn& o) const {
            return o.signal.channel == CoachChannel::appChat ? "a message from the person at " + clock(o.signal.tsMs)
                                                             : "something noticed at " + clock(o.signal.tsMs);
        }
        std::string operator()(const NoReactableTurn& o) const {
            return "the newest look at " + clock(o.sinceTsMs) + " saw only this system's own window; nothing to react to";
        }
    };
    return std::visit(Words{}, outcome);
}

}  // namespace aimwise::DriverTrigger
