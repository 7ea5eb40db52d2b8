#include "AimwiseCore/coach/coach_turn_effects.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "AimwiseCore/coach/coach_output_guards.h"
#include "AimwiseCore/coach/coach_projection.h"
#include "AimwiseCore/coach/coach_tools.h"
#include "AimwiseCore/coach/projection_time_text.h"
#include "AimwiseCore/coach/quiet_windows.h"
#include "AimwiseCore/coach/synthetic_user_markers.h"
#include "CaptureShared/common/text.h"

namespace aimwise {

namespace {

using Object = JSONValue::Object;

EventLogEvent coachEvent(const char* type, int64_t asOfMs, Object detail = {}) {
    return {.tsMs = asOfMs, .type = type, .detail = std::move(detail)};
}

void addProvenance(Object& detail, const std::optional<ChatProvenance>& provenance) {
    if (!provenance) return;
    if (provenance->provider) detail["provider"] = *provenance->provider;
    if (provenance->generationID) detail["generation_id"] = *provenance->generationID;
    if (provenance->servedModel) detail["served_model"] = *provenance->servedModel;
    if (provenance->finishReason) detail["finish_reason"] = *provenance->finishReason;
}

JSONValue names(const std::vector<std::string>& list) {
    JSONValue::Array out;
    for (const std::string& name : list) out.emplace_back(name);
    return out;
}

// The turn as it is worked out, step by step, before its decision is written.
class Turn {
public:
    Turn(const ChatResponse& response, int64_t asOfMs) : response_(response), asOf_(asOfMs) {}

    std::vector<EventLogEvent> out;
    Object extra;
    std::vector<ToolCall> accepted;
    std::vector<std::string> toolWords;
    bool openedUI = false;

    // A tool's move replaces the turn's, except that bringing the conversation up or down does not
    // hide what the turn did besides.
    void setMove(std::string move, std::string reason) {
        const bool uiOnly = move == "OPEN_UI" || move == "CLOSE_UI";
        if (move_ && uiOnly && *move_ != "SILENCE") return;
        move_ = std::move(move);
        reason_ = std::move(reason);
    }
    bool hasMove() const { return move_.has_value(); }
    void emit(EventLogEvent event) { out.push_back(std::move(event)); }

    EventLogEvent decision() const {
        Object detail = extra;
        detail["move"] = move_.value_or("SILENCE");
        detail["reason"] = reason_;
        if (!response_.thinking.empty()) detail["thinking"] = response_.thinking;
        JSONValue::Array calls;
        for (const ToolCall& call : accepted) calls.push_back(call.asLoggedJSON());
        if (!calls.empty()) detail["tool_calls"] = std::move(calls);
        return coachEvent("coach_decision", asOf_, std::move(detail));
    }

private:
    const ChatResponse& response_;
    int64_t asOf_;
    std::optional<std::string> move_;
    std::string reason_;
};

std::optional<std::string> messageOf(const JSONValue& arguments) {
    return CoachToolArguments::nonBlankString(arguments, "message");
}

void applyWrite(Turn& turn, const JSONValue& arguments, int64_t asOfMs) {
    const auto parsed = parseWriteCurrentIntentionArguments(arguments);
    if (const auto* malformed = std::get_if<WriteCurrentIntentionArguments::Malformed>(&parsed.value)) {
        turn.extra["write_task_malformed"] = malformed->reason;
        if (const auto object = CoachToolArguments::object(arguments))
            if (const JSONValue* horizon = object->member("horizon_minutes")) turn.extra["attempted_horizon_minutes"] = *horizon;
        turn.setMove("SILENCE", malformed->reason);
        return;
    }
    const auto& usable = std::get<WriteCurrentIntentionArguments::Usable>(parsed.value);
    Object detail{{"notes", usable.notes}};
    if (usable.horizonMinutes) detail["horizon_minutes"] = *usable.horizonMinutes;
    turn.emit(coachEvent("task_declared", asOfMs, std::move(detail)));
    turn.setMove("WRITE_TASK", "write_task");
}

void applyCorrectJudgment(Turn& turn, const JSONValue& arguments, const CoachTurnEffects::CorrectJudgment& guard,
                          int64_t asOfMs) {
    if (guard.verdict == CorrectJudgmentGuard::Verdict::bareAnswerToOwnQuestion) {
        turn.extra[CorrectJudgmentGuard::detailKey] = std::string(CorrectJudgmentGuard::rawValue(guard.verdict));
        turn.setMove("SILENCE", CorrectJudgmentGuard::detailKey);
        return;
    }
    const auto app = CoachToolArguments::nonBlankString(arguments, "app");
    const auto project = CoachToolArguments::nonBlankString(arguments, "project");
    if (!app || !project) {
        turn.extra["correct_judgment_malformed"] = "missing app or project";
        turn.setMove("SILENCE", "correct_judgment_malformed");
        return;
    }
    Object detail{{"app", *app}, {"project", *project}};
    detail["window_signature"] = guard.windowSignature ? JSONValue(*guard.windowSignature) : JSONValue(nullptr);
    turn.emit(coachEvent("app_project_link_asserted", asOfMs, std::move(detail)));
    turn.setMove("CORRECT_JUDGMENT", "correct_judgment");
}

void applyGoQuiet(Turn& turn, const JSONValue& arguments, int64_t asOfMs) {
    const auto parsed = GoQuietArguments::parse(arguments);
    const auto untilMs = UserQuietDuration::endMs(parsed, asOfMs);
    if (!untilMs) {
        turn.extra["user_quiet_malformed"] = GoQuietArguments::resultText(arguments);
        turn.setMove("SILENCE", "user_quiet_malformed");
        return;
    }
    const auto* minutes = std::get_if<GoQuietArguments::Minutes>(&parsed);
    turn.extra["user_quiet_requested_minutes"] = minutes ? JSONValue(minutes->requested) : JSONValue(nullptr);
    turn.extra["user_quiet_applied_minutes"] =
        minutes ? minutes->applied : std::trunc(double(*untilMs - asOfMs) / 6'000.0) / 10.0;
    turn.extra["user_quiet_until_ts_ms"] = *untilMs;
    turn.emit(UserQuietRequestedEvent::make(
        *untilMs, minutes ? "go_quiet minutes=" + GoQuietArguments::minutesText(minutes->applied) : "go_quiet rest_of_day",
        asOfMs));
    turn.setMove("USER_QUIET", "user_quiet");
}

void applyRememberCorrection(Turn& turn, const JSONValue& arguments, int64_t asOfMs) {
    const auto text = CoachToolArguments::nonBlankString(arguments, "correction");
    if (!text) {
        turn.extra["remember_correction_malformed"] = "missing or empty correction";
        turn.setMove("SILENCE", "remember_correction_malformed");
        return;
    }
    const auto scopeText = CoachToolArguments::nonBlankString(arguments, "scope");
    const auto lasts = CoachToolArguments::nonBlankString(arguments, "lasts");
    if (!lasts) turn.extra["remember_correction_lasts_missing"] = true;
    turn.emit(CoachCorrectionRecordedEvent::make(*text, scopeText ? CoachCorrection::scopeFromRaw(*scopeText) : std::nullopt,
                                                 lasts, asOfMs));
    turn.setMove("REMEMBER_CORRECTION", "remember_correction");
}

void applyDoNotDisturb(Turn& turn, const JSONValue& arguments, int64_t asOfMs) {
    const JSONValue* minutes = arguments.member("minutes");
    const double* number = minutes ? minutes->numberIfAny() : nullptr;
    if (!number || !std::isfinite(*number) || *number <= 0) {
        turn.extra["do_not_disturb_malformed"] = "no usable minutes";
        turn.setMove("SILENCE", "do_not_disturb_malformed");
        return;
    }
    const double applied = std::clamp(*number, QuietWindows::minBackOffMinutes, QuietWindows::maxBackOffMinutes);
    const int64_t untilMs = asOfMs + std::llround(applied * 60'000.0);
    const std::string expectation = CoachToolArguments::nonBlankString(arguments, "expectation").value_or("");
    turn.extra["backoff_until_ts_ms"] = untilMs;
    turn.extra["dnd_expectation"] = expectation;
    turn.emit(BackOffSetEvent::make(untilMs, applied, expectation, asOfMs));
    turn.setMove("BACK_OFF", "backoff_minutes=" + GoQuietArguments::minutesText(applied));
}

void applyProposeOptions(Turn& turn, const JSONValue& arguments, int64_t asOfMs) {
    const auto setting = CoachToolArguments::nonBlankString(arguments, "setting");
    const auto title = CoachToolArguments::nonBlankString(arguments, "title");
    JSONValue::Array options;
    if (const JSONValue* given = arguments.member("options"))
        if (const auto* items = std::get_if<JSONValue::Array>(&given->value))
            for (const JSONValue& item : *items) {
                const auto id = CoachToolArguments::nonBlankString(item, "id");
                const auto label = CoachToolArguments::nonBlankString(item, "label");
                if (!id || !label || options.size() == 5) continue;
                Object option{{"id", *id}, {"label", *label}};
                if (const auto hint = CoachToolArguments::nonBlankString(item, "hint")) option["hint"] = *hint;
                options.emplace_back(std::move(option));
            }
    if (!setting || !title || options.size() < 2) {
        turn.extra["propose_options_malformed"] = true;
        turn.setMove("SILENCE", std::string("setting=") + (setting ? "present" : "missing") +
                                    " title=" + (title ? "present" : "missing") +
                                    " usable_options=" + std::to_string(options.size()));
        return;
    }
    turn.emit(coachEvent("option_card_offered", asOfMs,
                         {{"about_message_at_ms", asOfMs}, {"setting", *setting}, {"title", *title},
                          {"options", std::move(options)}}));
    turn.setMove("PROPOSE_OPTIONS", "propose_options");
}

void applyCall(Turn& turn, const ToolCall& call, const CoachTurnEffects::CorrectJudgment& guard, int64_t asOfMs) {
    // Arguments that are not a JSON object are used as an empty one: every tool then says why not.
    const JSONValue arguments = CoachToolArguments::object(call.arguments).value_or(JSONValue(Object{}));
    const std::string& name = call.name;
    if (CoachTools::isWriteIntention(name)) return applyWrite(turn, call.arguments, asOfMs);
    if (name == "correct_judgment") return applyCorrectJudgment(turn, arguments, guard, asOfMs);
    if (name == "remember_correction") return applyRememberCorrection(turn, arguments, asOfMs);
    const auto words = messageOf(arguments);
    if (name == "go_quiet") {
        applyGoQuiet(turn, arguments, asOfMs);
    } else if (name == "do_not_disturb") {
        applyDoNotDisturb(turn, arguments, asOfMs);
    } else if (name == "propose_options") {
        applyProposeOptions(turn, arguments, asOfMs);
    } else if (name == "open_ui") {
        if (!words) {
            turn.emit(EmptyOpenUIEvent::make(asOfMs));
            turn.setMove("SILENCE", "open_ui called with nothing to show — suppressed, not opened");
            return;
        }
        turn.emit(coachEvent("ui_opened", asOfMs, {{"by", "coach"}}));
        turn.openedUI = true;
        turn.setMove("OPEN_UI", "open_ui");
    } else if (name == "close_ui") {
        turn.emit(coachEvent("ui_closed", asOfMs, {{"dismissed_by", "coach"}}));
        turn.setMove("CLOSE_UI", "close_ui");
        return;
    } else {
        return;  // check_ui_state and the silence tool change nothing
    }
    if (words) turn.toolWords.push_back(*words);
}

// The words the person sees: the reply's own and those a tool carried, without saying the same twice.
std::string spokenText(const std::string& reply, const std::vector<std::string>& toolWords) {
    std::vector<std::string> parts;
    if (!reply.empty()) parts.push_back(reply);
    for (const std::string& words : toolWords) {
        const bool covered = std::any_of(parts.begin(), parts.end(), [&](const std::string& part) {
            return part.find(words) != std::string::npos;
        });
        if (covered) continue;
        std::erase_if(parts, [&](const std::string& part) { return words.find(part) != std::string::npos; });
        parts.push_back(words);
    }
    return join(parts, "\n\n");
}

std::vector<EventLogEvent> turnEvents(const ChatResponse& response, const std::vector<ChatMessage>& messages,
                                      int64_t asOfMs, CoachChannel channel, bool surfacedByChannel,
                                      const std::vector<MedsCheckin>& outstandingMeds,
                                      const CoachTurnEffects::CorrectJudgment& guard,
                                      const std::set<std::string, std::less<>>& known) {
    Turn turn(response, asOfMs);

    // 1, 2: what must never reach the person.
    std::string text = CoachOutputGuards::stripLeakedToolCallSyntax(response.text);
    if (text != response.text)
        turn.emit(coachEvent("coach_output_rejected", asOfMs,
                             {{"raw_text", response.text}, {"reason", "leaked tool-call syntax stripped"}}));
    if (response.toolCalls.empty() && CoachSanityChecks::showsLeakedStateChangingToolCall(text)) {
        turn.emit(coachEvent("coach_output_rejected", asOfMs,
                             {{"raw_text", text}, {"reason", "a state-changing tool call written as text"}}));
        turn.setMove("SILENCE", "leaked_tool_call_rejected");
        text.clear();
    }

    // 6, taken first: a reply cut off mid-way is discarded whole, its calls included, since their
    // arguments may be cut off too.
    if (response.truncated) {
        const std::string reason = CoachTurnEffects::truncationReasonText(response);
        const auto& usage = response.usage;
        turn.emit(TurnTruncatedEvent::make(usage ? std::optional(usage->completionTokens) : std::nullopt,
                                           usage ? usage->reasoningTokens : std::nullopt, asOfMs));
        turn.emit(AppChatEvents::turnFailed(reason, CoachTurnEffects::truncationUserReason, asOfMs));
        if (!response.toolCalls.empty()) {
            JSONValue::Array discarded;
            for (const ToolCall& call : response.toolCalls) discarded.push_back(call.asLoggedJSON());
            turn.extra["discarded_tool_calls"] = std::move(discarded);
        }
        turn.setMove("TRUNCATED", reason);
    } else {
        // 3: one call per tool, and only tools that exist.
        std::set<std::string, std::less<>> seen;
        std::vector<ToolCallDeniedEvent::Denial> denials;
        std::vector<std::string> duplicates, unknown;
        for (const ToolCall& call : response.toolCalls) {
            if (!known.contains(call.name)) {
                denials.push_back({call.name, ToolCallDeniedEvent::Denial::Reason::unknownTool});
                unknown.push_back(call.name);
            } else if (!seen.insert(CoachTools::canonicalToolName(call.name)).second) {
                denials.push_back({call.name, ToolCallDeniedEvent::Denial::Reason::duplicateCall});
                duplicates.push_back(call.name);
            } else {
                turn.accepted.push_back(call);
            }
        }
        if (!duplicates.empty()) turn.extra["dropped_duplicate_tool_calls"] = names(duplicates);
        if (!unknown.empty()) turn.extra["unrecognized_tool_calls"] = names(unknown);
        if (!denials.empty()) turn.emit(ToolCallDeniedEvent::make(denials, asOfMs));
        // 4
        for (const ToolCall& call : turn.accepted) applyCall(turn, call, guard, asOfMs);
    }

    // 5: the spoken text, or the choice to say nothing.
    const bool sentinel = text.find(CoachTools::silenceSentinel) != std::string::npos;
    std::string spoken = response.truncated ? "" : spokenText(CoachOutputGuards::withoutSilenceSentinel(text), turn.toolWords);
    if (sentinel) turn.extra["silence_signal"] = true;
    if (spoken.empty() && !turn.hasMove())
        turn.setMove("SILENCE", sentinel ? "silence_sentinel" : response.toolCalls.empty() ? "empty_completion" : "tools_only");
    else if (!spoken.empty() && !turn.hasMove())
        turn.setMove("TALK", "spoke");

    // 7: words that have degenerated into repetition are kept for the record, not shown.
    if (!spoken.empty())
        if (const auto reason = CoachSanityChecks::degenerationReason(spoken)) {
            Object detail{{"raw_text", spoken}, {"reason", *reason}};
            addProvenance(detail, response.provenance);
            turn.emit(coachEvent("coach_output_degenerate", asOfMs, std::move(detail)));
            turn.extra["output_degenerate"] = *reason;
            spoken.clear();
        }

    // 8, 9
    if (!spoken.empty()) {
        if (channel == CoachChannel::checker && !surfacedByChannel && !turn.openedUI)
            turn.emit(coachEvent("coach_reply_not_surfaced", asOfMs,
                                 {{"reason", "spoke on the checker channel without open_ui"}}));
        turn.emit(AppChatEvents::coachMessage(spoken, response.thinking, false, asOfMs, response.servedBy,
                                              response.servedByFallback, response.provenance, response.fallbackCause));
        const bool seen = surfacedByChannel || channel == CoachChannel::appChat || turn.openedUI;
        if (!outstandingMeds.empty() && seen) turn.emit(MedsCheckins::askOfferedEvent(outstandingMeds, asOfMs));
    }

    // 10: a turn the system woke records what woke it, so a replay can show it.
    if (!messages.empty() && SyntheticUserMarkers::isFrom(messages.back()))
        turn.emit(coachEvent("turn_trigger", asOfMs, {{"text", messages.back().content}}));

    // 11
    turn.emit(turn.decision());
    return std::move(turn.out);
}

const std::set<std::string, std::less<>>& layer3Known() {
    static const std::set<std::string, std::less<>> known = [] {
        auto names = Layer3Tools::replayableToolNames();
        names.insert(CoachTools::unreplayableToolNames().begin(), CoachTools::unreplayableToolNames().end());
        return names;
    }();
    return known;
}

}  // namespace

namespace ToolCallDeniedEvent {

std::string_view rawValue(Denial::Reason reason) {
    return reason == Denial::Reason::unknownTool ? "unknown_tool" : "duplicate_call";
}

EventLogEvent make(const std::vector<Denial>& denials, int64_t asOfMs) {
    JSONValue::Array items;
    for (const Denial& denial : denials)
        items.emplace_back(Object{{"tool", denial.tool}, {"reason", std::string(rawValue(denial.reason))}});
    return coachEvent("tool_call_denied", asOfMs, {{"denials", std::move(items)}});
}

}  // namespace ToolCallDeniedEvent

namespace AppChatEvents {

EventLogEvent coachMessage(const std::string& text, const std::string& thinking, bool truncated, int64_t asOfMs,
                           const std::optional<std::string>& servedBy, bool servedByFallback,
                           const std::optional<ChatProvenance>& provenance, std::optional<FallbackCause> fallbackCause) {
    Object detail{{"role", "coach"}, {"text", text}};
    if (!thinking.empty()) detail["thinking"] = thinking;
    if (truncated) detail["truncated"] = true;
    if (servedBy) detail["served_by"] = *servedBy;
    if (servedByFallback) detail["served_by_fallback"] = true;
    if (fallbackCause) detail["fallback_cause"] = std::string(rawValue(*fallbackCause));
    addProvenance(detail, provenance);
    return coachEvent("app_chat_message", asOfMs, std::move(detail));
}

EventLogEvent userMessage(const std::string& text, int64_t asOfMs) {
    return coachEvent("app_chat_message", asOfMs, {{"role", "user"}, {"text", text}});
}

EventLogEvent turnFailed(const std::string& reason, const std::string& userReason, int64_t asOfMs) {
    return coachEvent("turn_failed", asOfMs, {{"reason", reason}, {"user_reason", userReason}});
}

}  // namespace AppChatEvents

namespace TurnTruncatedEvent {

EventLogEvent make(std::optional<int64_t> completionTokens, std::optional<int64_t> reasoningTokens, int64_t asOfMs) {
    Object detail;
    if (completionTokens) detail["completion_tokens"] = *completionTokens;
    if (reasoningTokens) detail["reasoning_tokens"] = *reasoningTokens;
    return coachEvent("turn_truncated", asOfMs, std::move(detail));
}

}  // namespace TurnTruncatedEvent

namespace EmptyOpenUIEvent {
EventLogEvent make(int64_t asOfMs) { return coachEvent("empty_open_ui", asOfMs); }
}  // namespace EmptyOpenUIEvent

namespace CoachCorrectionRecordedEvent {

namespace {
std::string_view scopeRaw(CoachCorrection::Scope scope) {
    return scope == CoachCorrection::Scope::whetherToSpeak ? "whether_to_speak" : "what_to_say";
}
}  // namespace

EventLogEvent make(const std::string& text, std::optional<CoachCorrection::Scope> scope,
                   const std::optional<std::string>& lasts, int64_t asOfMs) {
    Object detail{{"text", text}, {"lasts", lasts ? JSONValue(*lasts) : JSONValue(nullptr)}};
    if (scope) detail["scope"] = std::string(scopeRaw(*scope));
    if (lasts == "rest_of_today") detail["ends_at_ms"] = LocalDay::nextMorningMs(asOfMs);
    if (lasts == "next_few_hours") detail["ends_at_ms"] = asOfMs + 3 * 3'600'000;
    return coachEvent(type, asOfMs, std::move(detail));
}

std::optional<CoachCorrection> correction(const EventLogEvent& event) {
    if (event.type != type) return std::nullopt;
    const auto text = CoachToolArguments::nonBlankString(event.detail, "text");
    if (!text) return std::nullopt;
    CoachCorrection out{.atMs = event.tsMs, .text = *text};
    if (const auto scope = CoachToolArguments::nonBlankString(event.detail, "scope")) out.scope = CoachCorrection::scopeFromRaw(*scope);
    if (const JSONValue* ends = event.detail.member("ends_at_ms"))
        if (const double* number = ends->numberIfAny()) out.endsAtMs = wholeMilliseconds(*number);
    return out;
}

std::string correctionLine(const CoachCorrection& correction) {
    Object row{{"at_ms", correction.atMs}, {"text", correction.text}};
    if (correction.scope) row["scope"] = std::string(scopeRaw(*correction.scope));
    if (correction.endsAtMs) row["ends_at_ms"] = *correction.endsAtMs;
    if (correction.foldedAtMs) row["folded_at_ms"] = *correction.foldedAtMs;
    return JSONValue(std::move(row)).serialized();
}

}  // namespace CoachCorrectionRecordedEvent

namespace CoachTurnEffects {

std::string truncationReasonText(const ChatResponse& response) {
    std::string text = "reply cut off at the token limit (finish_reason=length)";
    if (response.usage) {
        text += " after " + std::to_string(response.usage->completionTokens) + " tokens";
        if (response.usage->reasoningTokens) text += " (" + std::to_string(*response.usage->reasoningTokens) + " reasoning)";
    }
    return text + " — discarded, not shown, not retried";
}

std::optional<std::string> windowSignature(const ClassifierTick& tick) {
    const auto app = tick.frontmostApp ? trimWhitespaceAndNewlines(*tick.frontmostApp) : std::string();
    if (app.empty()) return std::nullopt;
    const auto& title = tick.browserTitle && !tick.browserTitle->empty() ? tick.browserTitle : tick.frontmostWindowTitle;
    return title && !trimWhitespaceAndNewlines(*title).empty() ? app + " | " + trimWhitespaceAndNewlines(*title) : app;
}

bool missingOpenUIForACheckerCheckIn(Channel channel, const ChatResponse& response) {
    if (channel != Channel::checker || CoachOutputGuards::withoutSilenceSentinel(response.text).empty()) return false;
    return std::none_of(response.toolCalls.begin(), response.toolCalls.end(), [](const ToolCall& call) {
        const auto object = CoachToolArguments::object(call.arguments);
        return call.name == "open_ui" && object && CoachToolArguments::nonBlankString(*object, "message");
    });
}

std::vector<EventLogEvent> events(const ChatResponse& response, const std::vector<ChatMessage>& messages,
                                  int64_t asOfMs, Channel channel, const std::vector<MedsCheckin>& outstandingMeds,
                                  const CorrectJudgment& correctJudgment) {
    return turnEvents(response, messages, asOfMs, channel, false, outstandingMeds, correctJudgment,
                      CoachTools::recognizedToolNames());
}

std::optional<TrailingSignal> latestTrailingSignal(std::span<const EventLogEvent> allEvents,
                                                   std::span<const CoachProjection::TimedTick> ticks, int64_t asOfMs,
                                                   int onTaskCheckinEveryTicks) {
    const auto end = std::upper_bound(allEvents.begin(), allEvents.end(), asOfMs,
                                      [](int64_t ms, const EventLogEvent& e) { return ms < e.tsMs; });
    const std::span<const EventLogEvent> events(allEvents.begin(), end);
    std::optional<TrailingSignal> newest;
    std::optional<int64_t> decisionMs;
    for (size_t i = events.size(); i-- > 0;) {
        const EventLogEvent& event = events[i];
        if (event.type == "coach_decision") {
            decisionMs = event.tsMs;
            break;
        }
        if (newest) continue;
        const bool person = event.type == "checker_input_received" || event.type == "onboarding_v3_setup_finished" ||
                            (event.type == "app_chat_message" && event.detail.member("role") &&
                             event.detail.member("role")->stringIfAny() &&
                             *event.detail.member("role")->stringIfAny() == "user");
        const bool system = event.type == "no_reply_timeout" || event.type == "tool_call_denied" ||
                            event.type == "turn_truncated" || event.type == "empty_open_ui";
        if (person || system) newest = TrailingSignal{person ? Channel::appChat : Channel::checker, event.tsMs};
    }
    const auto consider = [&](int64_t tsMs) {
        if (decisionMs && tsMs <= *decisionMs) return;
        if (!newest || tsMs > newest->tsMs) newest = TrailingSignal{Channel::checker, tsMs};
    };
    if (const auto drift = CoachProjection::latestOffTaskDriftSignal(events, ticks, asOfMs)) consider(drift->tsMs);
    if (const auto onTask = CoachProjection::latestOnTaskCheckinSignal(events, ticks, asOfMs, onTaskCheckinEveryTicks))
        consider(onTask->tsMs);
    return newest;
}

std::optional<TrailingSignal> latestTrailingSignal(const std::vector<EventLogEvent>& events,
                                                   const std::vector<ClassifierTick>& ticks, int64_t asOfMs,
                                                   int onTaskCheckinEveryTicks) {
    std::vector<EventLogEvent> sorted = events;
    std::stable_sort(sorted.begin(), sorted.end(), [](const EventLogEvent& a, const EventLogEvent& b) { return a.tsMs < b.tsMs; });
    const auto timed = CoachProjection::timedTicks(ticks);
    return latestTrailingSignal(std::span<const EventLogEvent>(sorted), timed, asOfMs, onTaskCheckinEveryTicks);
}

}  // namespace CoachTurnEffects

namespace Layer3TurnEffects {

std::vector<EventLogEvent> events(const ChatResponse& response, const std::vector<ChatMessage>& messages,
                                  int64_t asOfMs, const std::vector<MedsCheckin>& outstandingMeds,
                                  const CoachTurnEffects::CorrectJudgment& correctJudgment) {
    return turnEvents(response, messages, asOfMs, CoachChannel::appChat, true, outstandingMeds, correctJudgment,
                      layer3Known());
}

}  // namespace Layer3TurnEffects

}  // namespace aimwise
