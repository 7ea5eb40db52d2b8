#include "AimwiseCore/coach/coach_driver_core.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "AimwiseCore/coach/coach_gate_message.h"
#include "AimwiseCore/coach/coach_output_guards.h"
#include "AimwiseCore/coach/coach_preferences.h"
#include "AimwiseCore/coach/coach_tools.h"
#include "AimwiseCore/coach/layer3_conversation.h"
#include "AimwiseCore/coach/layer3_flag.h"
#include "AimwiseCore/coach/layer3_floor.h"
#include "AimwiseCore/coach/layer3_prompt.h"
#include "AimwiseCore/coach/quiet_windows.h"
#include "AimwiseCore/memory/memory_forget.h"
#include "AimwiseCore/memory/memory_store.h"
#include "AimwiseCore/memory/memory_wipe.h"
#include "AimwiseCore/models/model_backend_factory.h"
#include "AimwiseCore/models/openrouter_session_id.h"
#include "AimwiseCore/privacy/safe_text.h"

namespace aimwise {

namespace fs = std::filesystem;

namespace {

constexpr int64_t coachMaxTokens = 4096;

// The time of the newest gate decision on record: what the gate already weighed before a restart.
std::optional<int64_t> lastGateDecisionMs(const fs::path& log) {
    const int fd = ::open(log.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string tail(16384, '\0');
    const off_t size = ::lseek(fd, 0, SEEK_END);
    const off_t from = std::max<off_t>(0, size - static_cast<off_t>(tail.size()));
    const ssize_t got = size > 0 ? ::pread(fd, tail.data(), tail.size(), from) : 0;
    ::close(fd);
    tail.resize(got > 0 ? static_cast<size_t>(got) : 0);
    std::optional<int64_t> newest;
    size_t start = 0;
    for (size_t end; (end = tail.find('\n', start)) != std::string::npos; start = end + 1) {
        const auto line = JSONValue::tryParse(std::string_view(tail).substr(start, end - start));
        const JSONValue* ts = line ? line->member("ts_ms") : nullptr;
        if (const double* number = ts ? ts->numberIfAny() : nullptr)
            if (auto ms = wholeMilliseconds(*number); ms && (!newest || *ms > *newest)) newest = ms;
    }
    return newest;
}

std::optional<std::string> spokenOpenUIMessage(const ChatResponse& response) {
    for (const ToolCall& call : response.toolCalls) {
        if (call.name != "open_ui") continue;
        const auto object = CoachToolArguments::object(call.arguments);
        if (auto message = object ? CoachToolArguments::nonBlankString(*object, "message") : std::nullopt)
            return message;
    }
    return std::nullopt;
}

bool calls(const ChatResponse& response, const char* name) {
    return std::any_of(response.toolCalls.begin(), response.toolCalls.end(),
                       [&](const ToolCall& call) { return call.name == name; });
}

std::optional<std::string> stringMember(const EventLogEvent& event, const char* key) {
    const JSONValue* value = event.detail.member(key);
    return value ? value->stringValue() : std::nullopt;
}

// What the person may read: the leak stripper's text, cleaned of identifiers like every shown text.
std::string shownText(const std::string& text) {
    return SafeText::clean(CoachOutputGuards::stripLeakedToolCallSyntax(text),
                           SensitiveIdentifierRedaction::Scope::lifeLevel)
        .text;
}

EventLogEvent coachEvent(std::string type, int64_t tsMs, JSONValue::Object detail) {
    return EventLogEvent{.tsMs = tsMs, .type = std::move(type), .detail = std::move(detail)};
}

std::string seconds(double value) { return std::to_string(static_cast<int64_t>(value)) + " s"; }

}  // namespace

CoachDriverCore::CoachDriverCore(Settings settings)
    : settings_(std::move(settings)),
      source_(settings_.dataRoot),
      gateSource_(settings_.dataRoot),
      turnBackoff_(settings_.turnFailureBaseSec, settings_.turnFailureCapSec),
      gateBackoff_(settings_.gateFailureBaseSec, settings_.gateFailureCapSec),
      gatedThroughMs_(lastGateDecisionMs(GateDecisionLog::defaultURL(settings_.dataRoot))) {}

std::string CoachDriverCore::uiStateText(bool chatOpen, bool notificationShowing) {
    return std::string(chatOpen ? "The chat window is open: they are looking at the conversation now."
                                : "The chat window is closed.") +
           (notificationShowing ? " A notification from you is showing." : " No notification from you is showing.");
}

bool CoachDriverCore::layer3() const { return Layer3Flag::isArmed(settings_.environment); }

void CoachDriverCore::say(const std::string& line, std::vector<Effect>& out) {
    lastSaid_ = line;
    out.push_back(Log{line});
}

void CoachDriverCore::sayOnce(const std::string& line, std::vector<Effect>& out) {
    if (line != lastSaid_) say(line, out);
}

int64_t CoachDriverCore::nextDeadlineMs(int64_t nowMs) const {
    int64_t next = nowMs + settings_.slowPollMs;
    if (wakeAtMs_) next = std::min(next, std::max(nowMs, *wakeAtMs_));
    return next;
}

std::vector<CoachDriverCore::Effect> CoachDriverCore::handle(const Input& input, int64_t nowMs) {
    std::vector<Effect> out;
    if (std::holds_alternative<LogsChanged>(input) || std::holds_alternative<TimerFired>(input)) {
        pump(nowMs, out);
    } else if (const auto* delta = std::get_if<Delta>(&input)) {
        if (inFlight_ && inFlight_->job == delta->job) out.push_back(ChatDelta{delta->delta});
    } else if (const auto* gate = std::get_if<GateEnded>(&input)) {
        if (inFlight_ && inFlight_->job == gate->job) onGateEnded(*gate, nowMs, out);
    } else if (const auto* turn = std::get_if<TurnEnded>(&input)) {
        if (inFlight_ && inFlight_->job == turn->job) onTurnEnded(*turn, nowMs, out);
    } else if (const auto* action = std::get_if<NotificationAction>(&input)) {
        notificationShowing_ = false;
        out.push_back(CloseNotification{});
        if (action->key == "not-now") {
            say("the person chose \"Not now\"; the coach lets this check-in rest", out);
            out.push_back(AppendEvents{{coachEvent("ui_closed", nowMs, {{"dismissed_by", "not_now"}})}});
        } else {
            say("the person chose \"Reply\"; opening the chat", out);
            out.push_back(OpenChat{});
        }
    } else if (std::holds_alternative<NotificationClosed>(input)) {
        notificationShowing_ = false;
    }
    return out;
}

void CoachDriverCore::pump(int64_t nowMs, std::vector<Effect>& out) {
    if (inFlight_) return;
    source_.refresh();
    const auto events = source_.events();
    const auto ticks = source_.ticks();
    wakeAtMs_.reset();
    const DriverTrigger::Outcome outcome = DriverTrigger::evaluate(events, ticks, nowMs, settings_.window);
    const std::string words = DriverTrigger::describe(outcome);

    if (const auto* timedOut = std::get_if<DriverTrigger::TimedOutWaitingForReply>(&outcome)) {
        say(words, out);
        out.push_back(AppendEvents{{coachEvent("no_reply_timeout", nowMs, {{"since_ts_ms", timedOut->sinceTsMs}})}});
        return;
    }
    if (const auto* waiting = std::get_if<DriverTrigger::WaitingForReply>(&outcome)) wakeAtMs_ = waiting->untilTsMs;
    if (const auto* quiet = std::get_if<DriverTrigger::DeferredBackOff>(&outcome)) wakeAtMs_ = quiet->untilTsMs;
    const auto* ready = std::get_if<DriverTrigger::ReadyForTurn>(&outcome);
    if (!ready) {
        if (!std::holds_alternative<DriverTrigger::NothingNew>(outcome)) sayOnce(words, out);
        return;
    }

    const auto& signal = ready->signal;
    if (signal.tsMs == unanswerable_) return;
    const bool reassess = std::any_of(events.rbegin(), events.rend(), [&](const EventLogEvent& e) {
        return e.type == "no_reply_timeout" && e.tsMs == signal.tsMs;
    });
    if (signal.channel == CoachChannel::appChat || (reassess && !layer3())) {
        if (const auto blocked = turnBackoff_.isBlocked(signal.tsMs, nowMs); blocked.blocked) {
            wakeAtMs_ = turnBackoff_.nextEligibleAtMs();
            sayOnce("the last turn for " + words + " failed; trying again in " + std::to_string(blocked.remainingSec) + " s",
                    out);
            return;
        }
        say("turn: " + words, out);
        startTurn(signal.channel, signal.tsMs, std::nullopt, nowMs, out);
        return;
    }
    if (gatedThroughMs_ && signal.tsMs <= *gatedThroughMs_) return;
    if (const auto blocked = gateBackoff_.isBlocked(std::nullopt, nowMs); blocked.blocked) {
        wakeAtMs_ = gateBackoff_.nextEligibleAtMs();
        sayOnce("waiting for the model server: the last gate call could not reach it; trying again in " +
                    std::to_string(blocked.remainingSec) + " s",
                out);
        return;
    }
    startGate(signal.tsMs, nowMs, out);
}

void CoachDriverCore::startGate(int64_t identity, int64_t nowMs, std::vector<Effect>& out) {
    const GateMessageSource::Built built = gateSource_.build(nowMs, settings_.environment);
    const uint64_t job = nextJob_++;
    inFlight_ = InFlight{.job = job, .kind = InFlight::Kind::gate, .identity = identity, .startedMs = nowMs,
                         .lowEffort = built.lowEffort, .messageCharacters = static_cast<int64_t>(built.message.size())};
    say("asking the gate whether to speak (" + std::to_string(built.message.size()) + " characters)", out);
    out.push_back(CallGate{job, built.message, built.lowEffort, GateUnconstrainedFlag::isArmed(settings_.environment)});
}

void CoachDriverCore::onGateEnded(const GateEnded& ended, int64_t nowMs, std::vector<Effect>& out) {
    const InFlight gate = *inFlight_;
    inFlight_.reset();
    gatedThroughMs_ = std::max(gatedThroughMs_.value_or(gate.identity), gate.identity);
    if (GateDecisionLog::isEnabled(settings_.environment)) {
        GateDecisionLog::Record record{.tsMs = nowMs, .outcome = ended.outcome, .attempts = ended.attempts,
                                       .breaker = ended.breaker, .usage = ended.usage.usage,
                                       .servedBy = ended.usage.servedBy, .lowEffort = gate.lowEffort,
                                       .messageCharacters = gate.messageCharacters};
        out.push_back(RecordGateDecision{std::move(record)});
    }
    if (ended.backendFailed) {
        const auto failure = gateBackoff_.recordFailure(std::nullopt, nowMs);
        say("the gate could not reach the model (" + *ended.outcome.failureReason() + "); the next gate call waits " +
                seconds(failure.interval),
            out);
        return;
    }
    gateBackoff_.recordSuccess();
    const GateDecision* decision = ended.outcome.decision();
    if (!decision) {
        say("the gate gave no usable answer (" + *ended.outcome.failureReason() + "); the coach stays quiet", out);
        return;
    }
    if (!decision->shouldCheckIn) {
        say("the gate says not now", out);
        return;
    }
    source_.refresh();
    if (const auto quiet = QuietWindows::mustStayQuiet(source_.events(), nowMs)) {
        say("the gate said yes, but a quiet window holds; the coach stays quiet", out);
        return;
    }
    say("the gate says check in", out);
    startTurn(CoachChannel::checker, gate.identity,
              SafeText::clean(decision->summaryForCoach, SensitiveIdentifierRedaction::Scope::lifeLevel).text, nowMs,
              out);
}

std::vector<MedsCheckin> CoachDriverCore::outstandingMeds(int64_t nowMs) const {
    const bool enabled = CoachPreferencesStore::read(settings_.dataRoot).medsRemindersEnabled;
    return MedsCheckins::outstanding(source_.events(), nowMs, enabled);
}

std::optional<std::string> CoachDriverCore::standingNotes(int64_t nowMs, CoachCorrection::Scope scope) const {
    const fs::path& root = settings_.dataRoot;
    const CoachPreferences preferences = CoachPreferencesStore::read(root);
    const auto wipeAtMs = MemoryWipeLog::latestAtMs(MemoryWipeLog::defaultURL(root));
    std::optional<StandingMemory> memory;
    if (preferences.standingMemoryEnabled)
        memory = MemoryForgetFilter(MemoryForgetLog::read(MemoryForgetLog::defaultURL(root)))
                     .standingMemory(MemoryWipeFilter::standingMemory(MemoryStore::readStandingMemory(root), wipeAtMs));
    auto corrections = MemoryWipeFilter::corrections(CoachCorrections::read(CoachCorrections::defaultURL(root)), wipeAtMs);
    std::erase_if(corrections, [&](const CoachCorrection& c) { return !c.isInForce(nowMs); });
    return GateStandingNotes::render(memory, corrections, scope);
}

void CoachDriverCore::startTurn(CoachChannel channel, int64_t identity,
                                const std::optional<std::string>& checkinSummary, int64_t nowMs,
                                std::vector<Effect>& out) {
    const auto events = source_.events();
    const auto ticks = source_.ticks();
    const std::vector<EventLogEvent> eventList(events.begin(), events.end());
    RunTurn run{.layer3 = layer3(), .channel = channel, .timeoutSec = settings_.turnTimeoutSec};
    run.correctJudgment.verdict = CorrectJudgmentGuard::verdict(eventList, checkinSummary.has_value());
    for (auto tick = ticks.rbegin(); tick != ticks.rend() && !run.correctJudgment.windowSignature; ++tick)
        if (tick->tick) run.correctJudgment.windowSignature = CoachTurnEffects::windowSignature(*tick->tick);
    const bool chatOpen = settings_.chatIsOpen && settings_.chatIsOpen();
    run.uiStateAnswer = uiStateText(chatOpen, notificationShowing_);
    const std::vector<MedsCheckin> meds = outstandingMeds(nowMs);
    ChatOptions options{.maxTokens = coachMaxTokens, .turn = ChatTurn::reply};

    if (run.layer3) {
        std::vector<std::string> logged;
        // A first floor starts at what this turn answers, so the message that started it is in view.
        const int64_t floor = Layer3Floor::resolve(settings_.dataRoot, std::min(nowMs, identity), events,
                                                   [&](const std::string& line) { logged.push_back(line); });
        for (const std::string& line : logged) say(line, out);
        const auto medsStatus = MedsCheckins::context(meds);
        const auto conversation =
            checkinSummary
                ? Layer3Request::forCheckin(events, floor, nowMs, *checkinSummary, medsStatus, settings_.layer3StepSec)
                : Layer3Request::forReply(events, floor, nowMs, medsStatus, settings_.layer3StepSec);
        if (conversation.empty() || conversation.back().role != ChatRole::user) {
            unanswerable_ = identity;
            say("nothing for the coach to answer on the conversation path (what came in lies before its floor)", out);
            return;
        }
        const CoachPreferences preferences = CoachPreferencesStore::read(settings_.dataRoot);
        std::vector<std::string> notes;
        if (auto standing = standingNotes(nowMs, CoachCorrection::Scope::whatToSay)) notes.push_back(*standing);
        std::vector<ChatMessage> messages{ChatMessage::system(Layer3SystemPrompt::build(
            Layer3Prompt::system(), UserStandingInstructionsRendering::forCoach(preferences.coachInstructions), notes))};
        messages.insert(messages.end(), conversation.begin(), conversation.end());
        std::optional<std::vector<ToolSpec>> tools = Layer3Tools::all();
        if (ModelBackendFactory::coachPrimaryIsLocal(settings_.environment)) {
            auto local = Layer3PromptVariant::forLocalModel(std::move(messages), std::move(tools));
            messages = std::move(local.messages);
            tools = std::move(local.tools);
        }
        options.sessionID = OpenRouterSessionID::hash(
            "layer3\x1E" + std::to_string(Layer3Conversation::rotationIndex(floor, nowMs, settings_.layer3StepSec)));
        run.turn.messages = std::move(messages);
        run.turn.options = options;
        run.turn.channel = channel;
        run.tools = tools.value_or(std::vector<ToolSpec>{});
    } else {
        try {
            run.turn = CoachLoop::prepare(events, ticks, standingNotes(nowMs, CoachCorrection::Scope::whatToSay), nowMs,
                                          DriverCoachPrompt::system(settings_.environment), settings_.window, options,
                                          CoachProjection::DeadToolCallPolicy::dropTurn);
        } catch (const ModelBackendError& error) {
            unanswerable_ = identity;
            say("no turn: " + error.description(), out);
            return;
        }
        run.channel = run.turn.channel;
        run.tools = CoachTools::all();
    }

    if (checkinSummary)
        out.push_back(AppendEvents{{coachEvent("coach_checkin", nowMs, {{"summary_for_coach", *checkinSummary}})}});
    run.job = nextJob_++;
    inFlight_ = InFlight{.job = run.job, .kind = InFlight::Kind::turn, .layer3 = run.layer3, .channel = run.channel,
                         .identity = identity, .startedMs = nowMs, .messages = run.turn.messages,
                         .correctJudgment = run.correctJudgment, .meds = meds, .checkin = checkinSummary.has_value()};
    out.push_back(std::move(run));
}

void CoachDriverCore::onTurnEnded(const TurnEnded& ended, int64_t nowMs, std::vector<Effect>& out) {
    const InFlight turn = std::move(*inFlight_);
    inFlight_.reset();
    const std::string path = turn.layer3 ? "the conversation path" : "the driver path";
    if (!ended.response) {
        out.push_back(AppendEvents{{AppChatEvents::turnFailed(ended.failureReason, ended.failureUserReason, nowMs)}});
        const auto failure = turnBackoff_.recordFailure(turn.identity, nowMs);
        say("the turn on " + path + " failed (" + ended.failureReason + "); " +
                std::to_string(failure.consecutiveFailures) + " in a row, so the same trigger waits " +
                seconds(failure.interval),
            out);
        out.push_back(ChatTurnEnded{std::nullopt, ended.failureUserReason});
        return;
    }
    turnBackoff_.recordSuccess();
    const ChatResponse& response = *ended.response;
    std::vector<EventLogEvent> events =
        turn.layer3 ? Layer3TurnEffects::events(response, turn.messages, turn.startedMs, turn.meds, turn.correctJudgment)
                    : CoachTurnEffects::events(response, turn.messages, turn.startedMs, turn.channel, turn.meds,
                                               turn.correctJudgment);
    std::optional<std::string> spoken;
    std::string move = "?";
    for (const EventLogEvent& event : events) {
        if (event.type == "app_chat_message" && stringMember(event, "role") == "coach")
            if (auto text = stringMember(event, "text"); text && !text->empty()) spoken = text;
        if (event.type == "coach_decision") move = stringMember(event, "move").value_or("?");
    }
    std::optional<std::string> surfaced;
    if (turn.channel == CoachChannel::checker) {
        if (!turn.layer3) surfaced = spokenOpenUIMessage(response);
        else if (turn.checkin && spoken) surfaced = spoken;
    }
    if (surfaced && turn.layer3)
        events.push_back(coachEvent("ui_opened", turn.startedMs, {{"by", "driver"}}));
    out.push_back(AppendEvents{std::move(events)});
    if (auto usage = TurnUsageRecord::from(response, turn.layer3 ? "layer3" : "driver", turn.startedMs))
        out.push_back(RecordUsage{std::move(*usage)});
    say("the turn on " + path + " ended: " + move + (surfaced ? ", shown in a notification" : "") + "; " +
            TurnUsageLog::line(response.usage),
        out);
    if (surfaced) {
        notificationShowing_ = true;
        out.push_back(ShowNotification{shownText(*surfaced)});
    }
    if (!turn.layer3 && calls(response, "close_ui")) {
        notificationShowing_ = false;
        out.push_back(CloseNotification{});
    }
    out.push_back(ChatTurnEnded{spoken ? std::optional(shownText(*spoken)) : std::nullopt, std::nullopt});
}

}  // namespace aimwise
