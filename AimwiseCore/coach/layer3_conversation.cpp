#include "AimwiseCore/coach/layer3_conversation.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include "AimwiseCore/coach/coach_loop.h"
#include "AimwiseCore/coach/coach_tools.h"
#include "AimwiseCore/coach/historical_tool_results.h"
#include "AimwiseCore/coach/prompt_stack.h"
#include "AimwiseCore/coach/projection_time_text.h"
#include "AimwiseCore/coach/coach_tool_arguments.h"
#include "AimwiseCore/privacy/screen_text.h"

namespace aimwise {

namespace Layer3TimeGap {

std::string describe(int64_t ms) {
    const int64_t minutes = ms / 60'000;
    if (minutes < 60) return std::to_string(minutes) + (minutes == 1 ? " minute" : " minutes");
    const int64_t halfHours = minutes / 30;
    if (halfHours % 2 == 0) {
        const int64_t hours = halfHours / 2;
        return std::to_string(hours) + (hours == 1 ? " hour" : " hours");
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.1f hours", static_cast<double>(halfHours) / 2.0);
    return text;
}

std::optional<std::string> marker(int64_t fromMs, int64_t toMs) {
    if (toMs - fromMs <= minimumMs) return std::nullopt;
    return "\xE2\x80\x94 " + describe(toMs - fromMs) + " later \xE2\x80\x94";
}

}  // namespace Layer3TimeGap

namespace Layer3Conversation {

namespace {

std::optional<std::string> member(const EventLogEvent& event, const char* key) {
    const JSONValue* value = event.detail.member(key);
    return value ? value->stringValue() : std::nullopt;
}

struct Rendered {
    ChatMessage message;
    std::vector<ChatMessage> toolResults;
};

}  // namespace

int64_t spanStart(int64_t floorMs, int64_t asOfMs, double stepSec) {
    return std::max(PromptWindowQuantization::floor(asOfMs - spanMs, stepSec), floorMs);
}

std::vector<EventLogEvent> span(std::span<const EventLogEvent> events, int64_t floorMs, int64_t asOfMs,
                                double stepSec) {
    const int64_t start = spanStart(floorMs, asOfMs, stepSec);
    std::vector<EventLogEvent> inside;
    for (const EventLogEvent& event : events)
        if (event.tsMs >= start && event.tsMs <= asOfMs) inside.push_back(event);
    std::stable_sort(inside.begin(), inside.end(), [](const auto& a, const auto& b) { return a.tsMs < b.tsMs; });
    return inside;
}

int64_t rotationIndex(int64_t floorMs, int64_t asOfMs, double stepSec) {
    return PromptWindowQuantization::index(spanStart(floorMs, asOfMs, stepSec), stepSec);
}

std::string checkinText(const std::string& summary, int64_t atMs) {
    return "It's " + ProjectionTimeText::hourMinute(atMs) +
           ". The system's summary of what it observed: " + ScreenText::quoted(summary);
}

std::string toolResultText(const ToolCall& call, bool correctJudgmentRefused) {
    return CoachProjection::historicalToolResult(call, correctJudgmentRefused);
}

std::vector<ChatMessage> renderSpan(std::span<const EventLogEvent> span) {
    std::map<int64_t, std::vector<ToolCall>> callsAt;
    std::set<int64_t> refusedAt;
    for (const EventLogEvent& event : span) {
        if (event.type != "coach_decision") continue;
        if (const JSONValue* calls = event.detail.member("tool_calls")) {
            for (ToolCall& call : CoachProjection::parseToolCalls(*calls))
                if (Layer3Tools::replayableToolNames().contains(call.name)) callsAt[event.tsMs].push_back(std::move(call));
        }
        if (event.detail.member(CorrectJudgmentGuard::detailKey)) refusedAt.insert(event.tsMs);
    }

    std::vector<ChatMessage> messages;
    std::optional<int64_t> previousMs;
    for (const EventLogEvent& event : span) {
        std::optional<Rendered> rendered;
        if (event.type == "coach_checkin") {
            rendered = Rendered{ChatMessage::user(checkinText(member(event, "summary_for_coach").value_or(""), event.tsMs)), {}};
        } else if (event.type == "option_card_change_note") {
            if (auto text = member(event, "text")) rendered = Rendered{ChatMessage::user(*text), {}};
        } else if (event.type == "app_chat_message") {
            const auto role = member(event, "role");
            const auto text = member(event, "text");
            if (role == "user" && text && !text->empty()) {
                rendered = Rendered{ChatMessage::user("[" + ProjectionTimeText::hourMinute(event.tsMs) + "] " + *text), {}};
            } else if (role == "coach") {
                Rendered coach{ChatMessage::assistant(text.value_or("")), {}};
                if (auto calls = callsAt.find(event.tsMs); calls != callsAt.end()) {
                    coach.message.toolCalls = calls->second;
                    for (const ToolCall& call : calls->second)
                        coach.toolResults.push_back(
                            ChatMessage::toolResult(toolResultText(call, refusedAt.contains(event.tsMs)), call.name));
                }
                rendered = std::move(coach);
            }
        }
        if (!rendered) continue;
        if (previousMs)
            if (auto gap = Layer3TimeGap::marker(*previousMs, event.tsMs)) messages.push_back(ChatMessage::user(*gap));
        previousMs = event.tsMs;
        messages.push_back(std::move(rendered->message));
        for (ChatMessage& result : rendered->toolResults) messages.push_back(std::move(result));
    }
    return messages;
}

std::vector<ChatMessage> project(std::span<const EventLogEvent> events, int64_t floorMs, int64_t asOfMs,
                                 double stepSec) {
    const auto inside = span(events, floorMs, asOfMs, stepSec);
    return renderSpan(inside);
}

std::vector<ChatMessage> projectNewCheckin(std::span<const EventLogEvent> events, int64_t floorMs, int64_t asOfMs,
                                           const std::string& summary, double stepSec) {
    const auto inside = span(events, floorMs, asOfMs, stepSec);
    std::vector<ChatMessage> messages = renderSpan(inside);
    // The newest event that rendered: the gap is measured from what the model last saw.
    std::optional<int64_t> lastRenderedMs;
    for (auto event = inside.rbegin(); event != inside.rend() && !lastRenderedMs; ++event)
        if (!renderSpan(std::span(&*event, 1)).empty()) lastRenderedMs = event->tsMs;
    if (lastRenderedMs)
        if (auto gap = Layer3TimeGap::marker(*lastRenderedMs, asOfMs)) messages.push_back(ChatMessage::user(*gap));
    messages.push_back(ChatMessage::user(checkinText(summary, asOfMs)));
    return messages;
}

}  // namespace Layer3Conversation

namespace Layer3Request {

void applyTail(std::vector<ChatMessage>& messages, const std::optional<std::string>& medsStatus) {
    if (!medsStatus || messages.empty() || messages.back().role != ChatRole::user) return;
    messages.back().content += "\n\n" + *medsStatus;
}

std::vector<ChatMessage> forReply(std::span<const EventLogEvent> events, int64_t floorMs, int64_t asOfMs,
                                  const std::optional<std::string>& medsStatus, double stepSec) {
    auto messages = CoachLoop::collapseConsecutiveUserTurns(Layer3Conversation::project(events, floorMs, asOfMs, stepSec));
    applyTail(messages, medsStatus);
    return messages;
}

std::vector<ChatMessage> forCheckin(std::span<const EventLogEvent> events, int64_t floorMs, int64_t asOfMs,
                                    const std::string& summary, const std::optional<std::string>& medsStatus,
                                    double stepSec) {
    auto messages = CoachLoop::collapseConsecutiveUserTurns(
        Layer3Conversation::projectNewCheckin(events, floorMs, asOfMs, summary, stepSec));
    applyTail(messages, medsStatus);
    return messages;
}

}  // namespace Layer3Request

}  // namespace aimwise
