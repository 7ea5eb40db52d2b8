#include "AimwiseCore/coach/real_turn_fold.h"

#include <algorithm>
#include <cmath>

#include "AimwiseCore/coach/coach_output_guards.h"
#include "AimwiseCore/coach/coach_tool_arguments.h"
#include "AimwiseCore/coach/coach_tools.h"
#include "AimwiseCore/coach/projection_signals.h"
#include "AimwiseCore/coach/synthetic_user_markers.h"
#include "CaptureShared/common/text.h"

namespace aimwise {

namespace {

using Family = SyntheticUserMarkers::Family;
using CoachProjection::DeadToolCallPolicy;
using RealTurnFold::PendingAssistant;

const std::string* detailString(const EventLogEvent& event, const char* key) {
    const JSONValue* value = event.detail.member(key);
    return value ? value->stringIfAny() : nullptr;
}

std::optional<double> detailNumber(const JSONValue& detail, const char* key) {
    const JSONValue* value = detail.member(key);
    const double* number = value ? value->numberIfAny() : nullptr;
    if (!number || !std::isfinite(*number)) return std::nullopt;
    return *number;
}

bool detailFlag(const JSONValue& detail, const char* key) {
    const JSONValue* value = detail.member(key);
    const auto* flag = value ? std::get_if<bool>(&value->value) : nullptr;
    return flag && *flag;
}

bool hasRole(const EventLogEvent& event, std::string_view role) {
    const std::string* value = detailString(event, "role");
    return value && *value == role;
}

bool isCoachWords(const EventLogEvent& event) {
    return event.type == "checker_output_sent" || (event.type == "app_chat_message" && hasRole(event, "coach"));
}

bool isPersonWords(const EventLogEvent& event) {
    return event.type == "checker_input_received" || (event.type == "app_chat_message" && hasRole(event, "user"));
}

bool isMarker(const std::string& type) {
    return type == "tool_call_denied" || type == "no_reply_timeout" || type == "turn_truncated" ||
           type == "empty_open_ui";
}

// A count as a person reads it: whole, or truncated to one decimal.
std::string tenths(double value) {
    return GoQuietArguments::minutesText(std::trunc(value * 10.0) / 10.0);
}

std::string cappedName(const std::string& name) { return name.size() > 64 ? name.substr(0, 64) + "…" : name; }

class Fold {
public:
    Fold(std::span<const EventLogEvent> earlier, DeadToolCallPolicy deadCalls) : earlier_(earlier), deadCalls_(deadCalls) {}

    void take(const EventLogEvent& event) {
        const std::string& type = event.type;
        if (isPersonWords(event)) {
            const std::string* text = detailString(event, "text");
            if (!text || trimWhitespaceAndNewlines(*text).empty()) return;
            const bool synthetic = SyntheticUserMarkers::isSyntheticMarkerText(*text);
            flushAssistant();
            // Their reply answers the question of whether they would reply.
            flushMarkers(std::nullopt, synthetic ? "" : "no_reply_timeout");
            if (!synthetic) acc_.pendingMarkers.erase("no_reply_timeout");
            pushUser(synthetic ? *text : SyntheticUserMarkers::wrap(Family::user, *text, event.tsMs));
        } else if (isCoachWords(event)) {
            coachWords(event);
        } else if (type == "coach_decision") {
            decision(event);
        } else if (type == "turn_trigger") {
            const std::string* text = detailString(event, "text");
            if (!text || trimWhitespaceAndNewlines(*text).empty()) return;
            beginTurnAt(event.tsMs);
            const bool repeated = !acc_.messages.empty() && acc_.messages.back().role == ChatRole::user &&
                                  acc_.messages.back().content == *text;
            if (!repeated) pushUser(*text);
        } else if (type == "option_card_change_note") {
            const std::string* text = detailString(event, "text");
            if (!text || trimWhitespaceAndNewlines(*text).empty()) return;
            flushAssistant();
            flushMarkers(std::nullopt, "");
            pushUser(SyntheticUserMarkers::familyOf(*text) ? *text
                                                           : SyntheticUserMarkers::wrap(Family::settingsChange, *text, event.tsMs));
        } else if (type == "onboarding_v3_setup_finished") {
            flushAssistant();
            flushMarkers(std::nullopt, "");
            pushUser(SyntheticUserMarkers::wrap(
                Family::notice, CoachProjection::renderOnboardingSetupFinished(event.detail, coachHasSpoken()), event.tsMs));
        } else if (isMarker(type)) {
            acc_.pendingMarkers[type] = event;
        } else {
            return;
        }
        acc_.lastRealTurnMs = event.tsMs;
    }

    RealTurnFold::Accumulator finish() {
        flushAssistant();
        flushMarkers(std::nullopt, "");
        return std::move(acc_);
    }

private:
    void coachWords(const EventLogEvent& event) {
        spoke_ = true;
        const std::string* text = detailString(event, "text");
        if (!text) return;
        if (detailFlag(event.detail, "served_by_fallback")) {
            // Another model's words are told to the coach as such, never put in its mouth.
            flushAssistant();
            flushMarkers(event.tsMs, "");
            const std::string* servedBy = detailString(event, "served_by");
            const std::string* cause = detailString(event, "fallback_cause");
            pushUser(SyntheticUserMarkers::wrap(
                Family::fallbackModel,
                CoachProjection::renderFallbackTurn(CoachOutputGuards::stripLeakedToolCallSyntax(*text),
                                                    servedBy ? std::optional(*servedBy) : std::nullopt,
                                                    cause ? fallbackCauseFromRaw(*cause) : std::nullopt),
                event.tsMs));
            return;
        }
        const ScreenedReply screened = CoachOutputGuards::screened(*text);
        PendingAssistant& pending = beginTurnAt(event.tsMs);
        const std::string words = CoachOutputGuards::withoutSilenceSentinel(screened.stripped);
        // A reply that degenerated into repetition is left out rather than shown to the model as its own.
        if (!screened.degenerationReason && !words.empty())
            pending.text = pending.text.empty() ? words : pending.text + "\n\n" + words;
        if (const std::string* thinking = detailString(event, "thinking"); thinking && !pending.thinking)
            pending.thinking = *thinking;
    }

    void decision(const EventLogEvent& event) {
        const JSONValue* logged = event.detail.member("tool_calls");
        if (!logged) return;
        std::vector<ToolCall> calls;
        for (ToolCall& call : CoachProjection::parseToolCalls(*logged)) {
            if (CoachTools::unreplayableToolNames().contains(call.name)) continue;
            call.name = CoachTools::canonicalToolName(call.name);
            calls.push_back(std::move(call));
        }
        if (calls.empty()) return;
        PendingAssistant& pending = beginTurnAt(event.tsMs);
        for (ToolCall& call : calls) {
            const bool seen = std::any_of(pending.toolCalls.begin(), pending.toolCalls.end(),
                                          [&](const ToolCall& other) { return other.name == call.name; });
            if (!seen) pending.toolCalls.push_back(std::move(call));
        }
        if (event.detail.member(CorrectJudgmentGuard::detailKey)) pending.correctJudgmentRefused = true;
        if (const std::string* thinking = detailString(event, "thinking"); thinking && !pending.thinking && !thinking->empty())
            pending.thinking = *thinking;
    }

    // The assistant turn at `tsMs`: the one pending when it is the same turn, else a new one after the
    // earlier turn and the notes made before this one.
    PendingAssistant& beginTurnAt(int64_t tsMs) {
        if (acc_.pendingAssistant && acc_.pendingAssistant->tsMs != tsMs) flushAssistant();
        flushMarkers(tsMs, "");
        if (!acc_.pendingAssistant) acc_.pendingAssistant = PendingAssistant{.tsMs = tsMs};
        return *acc_.pendingAssistant;
    }

    bool isDead(const ToolCall& call) const { return !CoachTools::recognizedToolNames().contains(call.name); }

    void flushAssistant() {
        if (!acc_.pendingAssistant) return;
        PendingAssistant pending = std::move(*acc_.pendingAssistant);
        acc_.pendingAssistant.reset();
        if (deadCalls_ == DeadToolCallPolicy::dropTurn &&
            std::any_of(pending.toolCalls.begin(), pending.toolCalls.end(), [&](const ToolCall& c) { return isDead(c); }))
            return;
        std::vector<ToolCall> unanswered;
        for (const ToolCall& call : pending.toolCalls)
            if (!acc_.answeredCalls.contains({pending.tsMs, call.name})) unanswered.push_back(call);
        if (pending.text.empty() && unanswered.empty()) return;

        auto& messages = acc_.messages;
        const bool joinsPrevious = !messages.empty() && messages.back().role == ChatRole::assistant &&
                                   !messages.back().hasToolCalls();
        if (joinsPrevious) {
            // Nothing came between two turns of the coach's: they read as one.
            ChatMessage& previous = messages.back();
            if (!pending.text.empty())
                previous.content = previous.content.empty() ? pending.text : previous.content + "\n\n" + pending.text;
            if (!unanswered.empty()) previous.toolCalls = unanswered;
            if (pending.thinking && !previous.thinking) previous.thinking = pending.thinking;
        } else {
            messages.push_back(ChatMessage::assistant(pending.text,
                                                      unanswered.empty() ? std::nullopt : std::optional(unanswered),
                                                      pending.thinking));
        }
        for (const ToolCall& call : unanswered) {
            acc_.answeredCalls.insert({pending.tsMs, call.name});
            messages.push_back(ChatMessage::toolResult(
                isDead(call) ? CoachProjection::noSuchToolResult()
                             : CoachProjection::historicalToolResult(call, pending.correctJudgmentRefused),
                call.name));
        }
    }

    // The notes made before `beforeMs` (all of them without it), oldest first, but the kind `except`.
    void flushMarkers(std::optional<int64_t> beforeMs, const std::string& except) {
        std::vector<const EventLogEvent*> due;
        for (const auto& [type, event] : acc_.pendingMarkers)
            if (type != except && (!beforeMs || event.tsMs < *beforeMs)) due.push_back(&event);
        if (due.empty()) return;
        std::stable_sort(due.begin(), due.end(), [](const EventLogEvent* a, const EventLogEvent* b) { return a->tsMs < b->tsMs; });
        for (const EventLogEvent* event : due) pushUser(SyntheticUserMarkers::wrap(Family::notice, markerText(*event), event->tsMs));
        std::vector<std::string> done;
        for (const EventLogEvent* event : due) done.push_back(event->type);
        for (const std::string& type : done) acc_.pendingMarkers.erase(type);
    }

    static std::string markerText(const EventLogEvent& event) {
        if (event.type == "no_reply_timeout") return CoachProjection::renderNoReplyTimeout(event);
        if (event.type == "tool_call_denied") return CoachProjection::renderToolCallDenied(event);
        if (event.type == "turn_truncated") return CoachProjection::renderTurnTruncated(event);
        return CoachProjection::emptyOpenUINote;
    }

    void pushUser(std::string text) { acc_.messages.push_back(ChatMessage::user(std::move(text))); }

    bool coachHasSpoken() {
        if (spoke_) return true;
        if (!spokeEarlier_)
            spokeEarlier_ = std::any_of(earlier_.rbegin(), earlier_.rend(), [](const EventLogEvent& e) { return isCoachWords(e); });
        return *spokeEarlier_;
    }

    RealTurnFold::Accumulator acc_;
    std::span<const EventLogEvent> earlier_;
    DeadToolCallPolicy deadCalls_;
    bool spoke_ = false;
    std::optional<bool> spokeEarlier_;
};

}  // namespace

namespace RealTurnFold {

Accumulator run(std::span<const EventLogEvent> events, std::span<const EventLogEvent> earlier,
                DeadToolCallPolicy deadCalls) {
    Fold fold(earlier, deadCalls);
    for (const EventLogEvent& event : events) fold.take(event);
    return fold.finish();
}

}  // namespace RealTurnFold

namespace CoachProjection {

std::string renderNoReplyTimeout(const EventLogEvent& event) {
    std::string minutes = "some";
    if (const auto since = detailNumber(event.detail, "since_ts_ms"))
        minutes = tenths(std::max(0.0, (double(event.tsMs) - *since) / 60'000.0));
    else if (const auto given = detailNumber(event.detail, "minutes"))
        minutes = tenths(std::max(0.0, *given));
    return "(" + minutes + " minutes " +
           "have passed with no reply since your last message. Reassess given anything since then — say something "
           "only if it's actually warranted now.)";
}

std::string renderToolCallDenied(const EventLogEvent& event) {
    std::vector<std::string> lines;
    if (const JSONValue* denials = event.detail.member("denials"))
        if (const auto* items = std::get_if<JSONValue::Array>(&denials->value))
            for (const JSONValue& item : *items) {
                const JSONValue* tool = item.member("tool");
                const JSONValue* reason = item.member("reason");
                if (!tool || !tool->stringIfAny()) continue;
                const bool duplicate = reason && reason->stringIfAny() && *reason->stringIfAny() == "duplicate_call";
                std::string line = "you called " + cappedName(*tool->stringIfAny());
                line += duplicate ? std::string(" more than once last turn — only the first call ran, the rest were ") +
                                        "dropped. If a later one carried what you actually wanted, it did not land."
                                  : " last turn, but there is no such tool — nothing happened. Your tools " +
                                        std::string("are: ") + CoachTools::namesList() +
                                        ". If you meant to do something, use one of those.";
                lines.push_back(std::move(line));
            }
    if (lines.empty()) return "a tool call you made last turn could not run, so nothing happened.";
    return join(lines, "\n");
}

std::string renderTurnTruncated(const EventLogEvent& event) {
    std::string text = "your last reply was cut off before it finished — it hit the token limit";
    if (const auto completion = detailNumber(event.detail, "completion_tokens")) {
        text += " after about " + GoQuietArguments::minutesText(std::trunc(*completion)) + " tokens";
        if (const auto reasoning = detailNumber(event.detail, "reasoning_tokens"))
            text += " (" + GoQuietArguments::minutesText(std::trunc(*reasoning)) + " of them reasoning)";
    }
    return text +
           ". That output was discarded, not shown to them, and won't be retried — the token budget is shared between "
           "thinking and the reply, so a long think can eat the whole thing. If this keeps happening, answer more "
           "concisely.";
}

std::string renderFallbackTurn(const std::string& text, const std::optional<std::string>& servedBy,
                               std::optional<FallbackCause> cause) {
    std::string opening = "while you were unreachable, ";
    if (cause == FallbackCause::paced) opening = "to pace this license's online coaching, ";
    if (cause == FallbackCause::licenseLapsed) opening = "the license for the online coach wasn't active, so ";
    if (cause == FallbackCause::termsUpdateRequired)
        opening = "the online coach's terms of service haven't been accepted yet, so ";
    const std::string model = servedBy && !trimWhitespaceAndNewlines(*servedBy).empty() ? *servedBy : "a local model";
    return opening + model + " on this Mac answered this turn on your behalf. it said:\n\n" + text;
}

std::string renderOnboardingSetupFinished(const JSONValue& detail, bool coachHasSpoken) {
    const JSONValue* backend = detail.member("backend");
    const bool online = backend && backend->stringIfAny() && *backend->stringIfAny() == "online";
    const JSONValue* battery = detail.member("battery");
    const std::string batteryMode = battery && battery->stringIfAny() ? *battery->stringIfAny() : "same";
    std::string status = std::string(online ? "you're talking over the internet — one sentence about the screen leaves "
                                              "per look, nothing else"
                                            : "you're running entirely on this Mac — nothing about the screen leaves it") +
                         "; " +
                         (detailFlag(detail, "screen_recording_verified")
                              ? "screen recording is verified working"
                              : "screen recording is not verified working yet — there is nothing to see until it is") +
                         "; " +
                         (detailFlag(detail, "model_ready")
                              ? "the model that reads the screen is ready"
                              : "the model that reads the screen is still downloading — you'll start seeing the screen "
                                "the moment it lands") +
                         ". battery watching: " +
                         (batteryMode == "plugged_in_only" ? "only watches while plugged in, nothing on battery"
                          : batteryMode == "reduced"       ? "watches less often on battery to save power"
                                                           : "watches at the same pace whether it's plugged in or not") +
                         ".";
    if (!coachHasSpoken)
        return "they haven't heard from you at all yet — this reply is the first thing they'll see from you since "
               "finishing setup, so say something to them here, not only a tool call.\n\nsetup just finished. " +
               status +
               " Introduce yourself briefly, say plainly what — if anything — isn't working yet, and ask what they "
               "mean to be doing right now. Don't recap the setup screens; they just finished them.";
    return "setup just finished. " + status +
           " Setup was run again, and you've talked with this person before — don't introduce yourself. Say plainly "
           "what — if anything — isn't working yet, and ask what they mean to be doing right now. Don't recap the "
           "setup screens; they just finished them.";
}

}  // namespace CoachProjection

}  // namespace aimwise
