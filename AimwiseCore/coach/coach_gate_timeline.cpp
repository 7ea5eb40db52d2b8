#include "AimwiseCore/coach/coach_gate_timeline.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <unordered_map>
#include <unordered_set>

#include "AimwiseCore/classifier/self_observation.h"
#include "AimwiseCore/coach/gate_screen_text.h"
#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/coach/task_minutes.h"
#include "AimwiseCore/privacy/screen_text.h"
#include "CaptureShared/common/icu_library.h"
#include "CaptureShared/common/minute_texts.h"
#include "CaptureShared/common/text.h"

namespace aimwise::CoachGateTimeline {

namespace {

constexpr const char* chatMessageType = "app_chat_message";

MinuteTexts& localTimeText() {
    thread_local MinuteTexts texts({u"H:mm", u"MMM d, H:mm"});
    return texts;
}

void followDefaultZone() { localTimeText().followDefaultZone(); }

std::string timeText(int64_t ms) { return localTimeText().format(ms, 0); }
std::string dateTimeText(int64_t ms) { return localTimeText().format(ms, 1); }

// The person's own words, cut to `cap` characters (grapheme clusters) and "…".
std::string cutText(const std::string& text, int cap) {
    if (text.size() <= static_cast<size_t>(cap)) return text;  // no more characters than bytes
    const ICU& icu = ICU::get();
    const std::u16string input = unicode::toUTF16(text);
    if (icu.u_countChar32(unicode::nonNull(input), int32_t(input.size())) <= cap) return text;
    UErrorCode status = U_ZERO_ERROR;
    thread_local ICUHandle<UBreakIterator, &ICU::ubrk_close> clusters(
        icu.ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status));
    if (!clusters) return text;
    icu.ubrk_setText(clusters.get(), unicode::nonNull(input), int32_t(input.size()), &status);
    int32_t boundary = icu.ubrk_first(clusters.get());
    for (int count = 0; count < cap && boundary != UBRK_DONE; ++count) boundary = icu.ubrk_next(clusters.get());
    icu.ubrk_setText(clusters.get(), u"", 0, &status);
    if (boundary == UBRK_DONE || boundary >= int32_t(input.size())) return text;
    return unicode::toUTF8(std::u16string_view(input).substr(0, size_t(boundary))) + "…";
}

std::string quotedUserText(const std::string& text) { return "\"" + cutText(text, userTextCap) + "\""; }

// Most texts start with a visible ASCII character; only the rest need the Unicode-aware trim.
bool isBlank(const std::string& text) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80) break;
        if (byte > 0x20 && byte != 0x7f) return false;
    }
    return trimWhitespaceAndNewlines(text).empty();
}

const std::string* detailString(const EventLogEvent& event, const char* key) {
    const JSONValue* value = event.detail.member(key);
    return value ? value->stringIfAny() : nullptr;
}

bool isChat(const EventLogEvent& event) { return event.type == chatMessageType; }
bool hasRole(const EventLogEvent& event, std::string_view role) {
    const std::string* value = detailString(event, "role");
    return value && *value == role;
}
bool hasText(const EventLogEvent& event) {
    const std::string* text = detailString(event, "text");
    return text && !isBlank(*text);
}

// The system's own window tells nothing about the person. Few app names recur, so each is decided once.
class SelfObservation {
public:
    bool operator()(const std::optional<std::string>& app) {
        if (!app) return false;
        const auto it = known_.find(*app);
        if (it != known_.end()) return it->second;
        return known_.emplace(*app, ClassifierSelfObservation::isSelfObservation(app)).first->second;
    }

private:
    std::unordered_map<std::string, bool> known_;
};

bool isAbstained(const ClassifierTick& tick) {
    return tick.state && *tick.state == ClassifierSelfObservation::abstainedState;
}

std::string wholeMinutes(int64_t spanMs) { return std::to_string(spanMs / 60'000); }

std::string heldSuffix(int64_t samples, int64_t fromMs, int64_t toMs) {
    if (samples < 2) return " — that was a single classifier sample";
    const int64_t span = toMs - fromMs;
    std::string held = span < 60'000 ? "under a minute"
                                     : wholeMinutes(span) + " minute" + (span >= 120'000 ? "s" : "");
    return " — that held " + held + " (" + std::to_string(samples) + " samples)";
}

std::optional<std::string> trimmedNonEmpty(const std::optional<std::string>& text) {
    if (!text) return std::nullopt;
    std::string trimmed = trimWhitespaceAndNewlines(*text);
    if (trimmed.empty()) return std::nullopt;
    return trimmed;
}

void stateChangeLines(std::span<const TimedTick> ticks, SelfObservation& selfObserved, std::vector<Line>& out) {
    struct Run {
        std::string state;
        int64_t firstMs, lastMs, samples;
        size_t line;
    };
    std::optional<Run> run;
    for (const TimedTick& timed : ticks) {
        const ClassifierTick& tick = *timed.tick;
        if (!tick.state || isAbstained(tick) || selfObserved(tick.frontmostApp)) continue;
        if (run && run->state == *tick.state) {
            ++run->samples;
            run->lastMs = timed.ms;
            continue;
        }
        if (run) out[run->line].text += heldSuffix(run->samples, run->firstMs, run->lastMs);
        std::string text = "at " + timeText(timed.ms) + " the classifier moved to " + *tick.state;
        if (tick.reason && !isBlank(*tick.reason))
            text += ", saying: " + GateScreenText::quoted(*tick.reason, ScreenText::reasonCap);
        out.push_back({timed.ms, std::move(text)});
        run = Run{*tick.state, timed.ms, timed.ms, 1, out.size() - 1};
    }
}

void declaredTaskLines(std::span<const TimedTick> ticks, std::vector<Line>& out) {
    std::string last;
    const std::string* lastSeen = nullptr;  // the same text as the tick before needs no trim
    for (const TimedTick& timed : ticks) {
        if (!timed.tick->declaredTask) continue;
        if (lastSeen && *lastSeen == *timed.tick->declaredTask) continue;
        lastSeen = &*timed.tick->declaredTask;
        std::string task = trimWhitespaceAndNewlines(*timed.tick->declaredTask);
        if (task.empty() || task == last) continue;
        out.push_back({timed.ms, "at " + timeText(timed.ms) + " their declared task became: \"" + task + "\""});
        last = std::move(task);
    }
}

std::string nearestPrecedingReason(int64_t ms, std::span<const TimedTick> ticks) {
    auto it = std::upper_bound(ticks.begin(), ticks.end(), ms,
                               [](int64_t value, const TimedTick& timed) { return value < timed.ms; });
    while (it != ticks.begin()) {
        --it;
        if (it->tick->reason && !isBlank(*it->tick->reason))
            return "the classifier had said: " + GateScreenText::quoted(*it->tick->reason, ScreenText::reasonCap);
    }
    return "no classifier context was available";
}

void conversationLines(std::span<const EventLogEvent> events, std::span<const TimedTick> ticks,
                       std::vector<Line>& out) {
    // The person's reply to a coach message: the next user message with words, before the coach speaks again.
    const auto nextUserReply = [&](size_t index) -> std::optional<size_t> {
        for (size_t j = index + 1; j < events.size(); ++j) {
            if (!isChat(events[j])) continue;
            if (hasRole(events[j], "coach")) return std::nullopt;
            if (hasRole(events[j], "user") && hasText(events[j])) return j;
        }
        return std::nullopt;
    };
    std::unordered_set<int64_t> checkinTimes;
    std::unordered_set<size_t> answers;
    for (size_t i = 0; i < events.size(); ++i) {
        if (events[i].type == "coach_checkin") checkinTimes.insert(events[i].tsMs);
        if (isChat(events[i]) && hasRole(events[i], "coach"))
            if (const auto reply = nextUserReply(i)) answers.insert(*reply);
    }
    const auto isUnpromptedCheckin = [&](size_t index) {
        if (checkinTimes.contains(events[index].tsMs)) return true;
        for (size_t j = index; j-- > 0;)
            if (isChat(events[j])) return !hasRole(events[j], "user");
        return true;
    };

    for (size_t i = 0; i < events.size(); ++i) {
        const EventLogEvent& event = events[i];
        if (!isChat(event) || !hasText(event)) continue;
        const std::string& text = *detailString(event, "text");
        const std::string at = timeText(event.tsMs);
        if (hasRole(event, "user")) {
            if (!answers.contains(i)) out.push_back({event.tsMs, "at " + at + " they said: " + quotedUserText(text)});
            continue;
        }
        if (!hasRole(event, "coach")) continue;
        const auto reply = nextUserReply(i);
        const std::string replyText = reply ? quotedUserText(*detailString(events[*reply], "text")) : "";
        if (isUnpromptedCheckin(i)) {
            out.push_back({event.tsMs, "the coach checked in at " + at + " because " +
                                           nearestPrecedingReason(event.tsMs, ticks) + "; " +
                                           (reply ? "they replied: " + replyText : "they haven't replied")});
        } else {
            out.push_back({event.tsMs, "at " + at + " the coach answered them" +
                                           (reply ? "; they then said: " + replyText : "")});
        }
    }
}

std::span<const EventLogEvent> eventsWithin(std::span<const EventLogEvent> events, Window window) {
    const auto begin = std::lower_bound(events.begin(), events.end(), window.startMs,
                                        [](const EventLogEvent& e, int64_t ms) { return e.tsMs < ms; });
    const auto end = std::upper_bound(begin, events.end(), window.endMs,
                                      [](int64_t ms, const EventLogEvent& e) { return ms < e.tsMs; });
    return {begin, end};
}

std::vector<EventLogEvent> sortedByTime(const std::vector<EventLogEvent>& events) {
    std::vector<EventLogEvent> sorted = events;
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const EventLogEvent& a, const EventLogEvent& b) { return a.tsMs < b.tsMs; });
    return sorted;
}

std::string minutesText(double minutes) {
    if (minutes == std::trunc(minutes) && std::fabs(minutes) < 1e15)
        return std::to_string(static_cast<int64_t>(minutes));
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.1f", minutes);
    return buffer;
}

}  // namespace

std::string formatTime(int64_t ms) {
    followDefaultZone();
    return timeText(ms);
}

std::string formatDateTime(int64_t ms) {
    followDefaultZone();
    return dateTimeText(ms);
}

int64_t effectiveStart(int64_t floorMs, int64_t nowMs, double boundHours) {
    return std::max(floorMs, nowMs - static_cast<int64_t>(boundHours * 3'600'000.0));
}

int64_t stableStart(int64_t floorMs, int64_t nowMs, double boundHours, double stepSec) {
    int64_t bound = nowMs - static_cast<int64_t>(boundHours * 3'600'000.0);
    if (stepSec > 0) {
        const double seconds = std::trunc(static_cast<double>(bound) / 1000.0 / stepSec) * stepSec;
        bound = static_cast<int64_t>(std::llround(seconds * 1000.0));
    }
    return std::max(floorMs, bound);
}

std::vector<TimedTick> windowTicks(const std::vector<ClassifierTick>& ticks, Window window) {
    std::vector<TimedTick> timed;
    for (const ClassifierTick& tick : ticks) {
        const auto ms = ProjectionDateParsing::parseLocal(tick.at);
        if (ms && *ms >= window.startMs && *ms <= window.endMs) timed.push_back({*ms, &tick});
    }
    std::stable_sort(timed.begin(), timed.end(), [](const TimedTick& a, const TimedTick& b) { return a.ms < b.ms; });
    return timed;
}

std::vector<Declaration> declarations(std::span<const EventLogEvent> events, int64_t nowMs) {
    std::vector<Declaration> found;
    for (const EventLogEvent& event : events) {
        if (event.type != "task_declared" || event.tsMs > nowMs) continue;
        Declaration declaration{.tsMs = event.tsMs};
        if (const std::string* notes = detailString(event, "notes"))
            declaration.notes = *notes;
        else if (const std::string* task = detailString(event, "task"))
            declaration.notes = *task;
        declaration.horizonMinutes = cleanTaskMinutes(event.detail.member("horizon_minutes"));
        if (const std::string* until = detailString(event, "until")) declaration.legacyUntil = *until;
        found.push_back(std::move(declaration));
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const Declaration& a, const Declaration& b) { return a.tsMs < b.tsMs; });
    return found;
}

std::vector<Line> declarationLines(std::span<const EventLogEvent> events, int64_t startMs, int64_t nowMs) {
    followDefaultZone();
    std::vector<int64_t> boundaries;
    for (const EventLogEvent& event : events)
        if ((event.type == "task_declared" || event.type == "task_cleared") && event.tsMs <= nowMs)
            boundaries.push_back(event.tsMs);
    std::sort(boundaries.begin(), boundaries.end());
    // Whether something replaced or cleared the declaration made at `fromMs`, up to `toMs`.
    const auto replacedBy = [&](int64_t fromMs, int64_t toMs) {
        const auto next = std::upper_bound(boundaries.begin(), boundaries.end(), fromMs);
        return next != boundaries.end() && *next <= toMs;
    };

    std::vector<Line> out;
    const std::vector<Declaration> all = declarations(events, nowMs);
    for (const Declaration& declaration : all) {
        const bool beforeWindow = declaration.tsMs < startMs;
        if (beforeWindow && replacedBy(declaration.tsMs, nowMs)) continue;
        std::string tail;
        if (declaration.horizonMinutes) {
            tail = ", giving themselves " + std::to_string(*declaration.horizonMinutes) + " minutes — until " +
                   timeText(declaration.tsMs + *declaration.horizonMinutes * 60'000);
        } else if (declaration.legacyUntil && !declaration.legacyUntil->empty()) {
            tail = ", until " + *declaration.legacyUntil;
        } else {
            tail = ", with no time limit";
        }
        const std::string at = beforeWindow ? dateTimeText(declaration.tsMs) : timeText(declaration.tsMs);
        out.push_back({declaration.tsMs, "at " + at + " they declared: " + quotedUserText(declaration.notes) + tail});
    }
    for (const Declaration& declaration : all) {
        if (!declaration.horizonMinutes) continue;
        const int64_t endMs = declaration.tsMs + *declaration.horizonMinutes * 60'000;
        if (endMs < startMs || endMs > nowMs || replacedBy(declaration.tsMs, endMs)) continue;
        out.push_back({endMs, "at " + timeText(endMs) + " the " + std::to_string(*declaration.horizonMinutes) +
                                  " minutes they gave themselves at " + timeText(declaration.tsMs) + " for " +
                                  quotedUserText(declaration.notes) + " ran out"});
    }
    for (const EventLogEvent& event : events)
        if (event.type == "task_cleared" && event.tsMs >= startMs && event.tsMs <= nowMs)
            out.push_back({event.tsMs, "at " + timeText(event.tsMs) + " they cleared their declared task"});
    return out;
}

std::vector<Line> lines(std::span<const EventLogEvent> events, std::span<const TimedTick> ticks, Window window) {
    followDefaultZone();
    std::vector<Line> out;
    SelfObservation selfObserved;
    stateChangeLines(ticks, selfObserved, out);
    declaredTaskLines(ticks, out);
    for (Line& line : declarationLines(events, window.startMs, window.endMs)) out.push_back(std::move(line));
    conversationLines(eventsWithin(events, window), ticks, out);
    std::stable_sort(out.begin(), out.end(), [](const Line& a, const Line& b) { return a.tsMs < b.tsMs; });
    return out;
}

std::vector<Line> lines(const std::vector<EventLogEvent>& events, const std::vector<ClassifierTick>& ticks,
                        Window window) {
    const std::vector<EventLogEvent> sorted = sortedByTime(events);
    const std::vector<TimedTick> timed = windowTicks(ticks, window);
    return lines(std::span<const EventLogEvent>(sorted), timed, window);
}

std::optional<std::string> currentObservationLine(std::span<const TimedTick> ticks) {
    followDefaultZone();
    if (ticks.empty() || !ticks.back().tick->state) return std::nullopt;
    SelfObservation selfObserved;
    const TimedTick& newest = ticks.back();
    const ClassifierTick& tick = *newest.tick;
    const auto unjudged = [&](const ClassifierTick& t) { return isAbstained(t) || selfObserved(t.frontmostApp); };

    if (unjudged(tick)) {
        int64_t since = newest.ms;
        for (size_t i = ticks.size(); i-- > 0 && unjudged(*ticks[i].tick);) since = ticks[i].ms;
        std::string line = "the classifier has no observation as of " + timeText(newest.ms) +
                           ": Merl's own window was frontmost, which says nothing about what they are doing, so "
                           "it did not judge";
        if (since < newest.ms)
            line += " (since " + timeText(since) + ", " + wholeMinutes(newest.ms - since) + " minutes)";
        return line;
    }

    // The system's own window and unjudged ticks do not split a run of one state.
    int64_t since = newest.ms;
    for (size_t i = ticks.size(); i-- > 0;) {
        const ClassifierTick& earlier = *ticks[i].tick;
        if (!earlier.state || unjudged(earlier)) continue;
        if (*earlier.state != *tick.state) break;
        since = ticks[i].ms;
    }
    std::string line = "the classifier's latest observation is from " + timeText(newest.ms) + ": " + *tick.state;
    if (since < newest.ms)
        line += ", unchanged since " + timeText(since) + " (" + wholeMinutes(newest.ms - since) + " minutes)";
    if (const auto app = trimmedNonEmpty(tick.frontmostApp)) {
        line += ", " + *app;
        if (const auto title = trimmedNonEmpty(tick.frontmostWindowTitle))
            line += " frontmost (window title " + GateScreenText::quotedTitle(*title) + ")";
        else
            line += " frontmost";
    }
    if (tick.reason && !isBlank(*tick.reason))
        line += ", saying: " + GateScreenText::quoted(*tick.reason, ScreenText::reasonCap);
    return line;
}

std::optional<std::string> captureWindowLine(const CaptureWindowSummary& summary) {
    followDefaultZone();
    const auto frontmost = trimmedNonEmpty(summary.frontmostNow);
    if (summary.appShares.empty() && !frontmost) return std::nullopt;
    std::string line = "raw capture (a sample every 1.5s, independent of the classifier), top 6 apps over the " +
                       std::to_string(summary.windowMinutes) + " minutes to " + timeText(summary.asOfMs) + ":";
    if (summary.appShares.empty()) {
        line += " no app recorded";
    } else {
        std::vector<std::string> shares;
        for (const AppShare& share : summary.appShares) shares.push_back(share.app + " " + minutesText(share.minutes) + " min");
        line += " " + join(shares, ", ");
    }
    if (frontmost) line += "; frontmost at " + timeText(summary.asOfMs) + " is " + *frontmost;
    return line;
}

std::optional<std::string> currentObservationSummary(const std::vector<ClassifierTick>& ticks, int64_t asOfMs,
                                                     int64_t lookbackMs) {
    return currentObservationLine(windowTicks(ticks, {asOfMs - lookbackMs, asOfMs}));
}

std::string render(std::span<const EventLogEvent> events, std::span<const TimedTick> ticks, Window window,
                   const std::optional<CaptureWindowSummary>& capture) {
    std::vector<std::string> texts;
    for (Line& line : lines(events, ticks, window)) texts.push_back(std::move(line.text));
    if (auto observation = currentObservationLine(ticks)) texts.push_back(std::move(*observation));
    if (capture)
        if (auto captured = captureWindowLine(*capture)) texts.push_back(std::move(*captured));
    return join(texts, "\n");
}

std::string render(const std::vector<EventLogEvent>& events, const std::vector<ClassifierTick>& ticks,
                   int64_t floorMs, int64_t nowMs, double boundHours, const std::optional<CaptureWindowSummary>& capture,
                   double startStep) {
    const Window window{stableStart(floorMs, nowMs, boundHours, startStep), nowMs};
    const std::vector<EventLogEvent> sorted = sortedByTime(events);
    const std::vector<TimedTick> timed = windowTicks(ticks, window);
    return render(std::span<const EventLogEvent>(sorted), timed, window, capture);
}

}  // namespace aimwise::CoachGateTimeline
