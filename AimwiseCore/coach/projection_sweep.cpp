#include "AimwiseCore/coach/projection_sweep.h"

#include <algorithm>
#include <cctype>
#include <set>

#include "AimwiseCore/coach/coach_output_guards.h"
#include "AimwiseCore/coach/coach_tool_arguments.h"
#include "AimwiseCore/coach/coach_tools.h"
#include "CaptureShared/common/text.h"

namespace aimwise::ProjectionSweep {

namespace {

using CoachProjection::DeadToolCallPolicy;

constexpr size_t startLength = 80;

std::string start(const std::string& text) { return text.size() <= startLength ? text : text.substr(0, startLength) + "…"; }

bool isCoachText(const EventLogEvent& event) {
    if (event.type == "checker_output_sent") return true;
    if (event.type != "app_chat_message") return false;
    const JSONValue* role = event.detail.member("role");
    return role && role->stringIfAny() && *role->stringIfAny() == "coach";
}

// Projections for a sweep share one reading of the ticks.
struct Logs {
    std::vector<EventLogEvent> events;
    std::vector<CoachProjection::TimedTick> ticks;

    Logs(const std::vector<EventLogEvent>& unsorted, const std::vector<ClassifierTick>& raw)
        : events(unsorted), ticks(CoachProjection::timedTicks(raw)) {
        std::stable_sort(events.begin(), events.end(),
                         [](const EventLogEvent& a, const EventLogEvent& b) { return a.tsMs < b.tsMs; });
    }
    CoachProjection::Result project(int64_t asOfMs, const CoachProjection::Window& window,
                                    DeadToolCallPolicy deadCalls = DeadToolCallPolicy::replay) const {
        return CoachProjection::project(events, ticks, std::string(sweepNotes), asOfMs, window, deadCalls);
    }
};

bool mentions(const std::string& text, const std::string& name) {
    for (size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + 1)) {
        const size_t after = at + name.size();
        const auto identifier = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; };
        if ((at == 0 || !identifier(text[at - 1])) && (after == text.size() || !identifier(text[after]))) return true;
    }
    return false;
}

}  // namespace

std::vector<Finding> leakedWriteFindings(const std::vector<EventLogEvent>& events) {
    std::vector<Finding> findings;
    for (const EventLogEvent& event : events) {
        if (!isCoachText(event)) continue;
        const JSONValue* text = event.detail.member("text");
        if (!text || !text->stringIfAny()) continue;
        const std::string& raw = *text->stringIfAny();
        const std::string cleaned = CoachOutputGuards::stripLeakedToolCallSyntaxUncached(raw);
        if (cleaned != raw) findings.push_back({"no-leak-at-write-time", event.tsMs, raw + " cleaned=" + cleaned});
    }
    return findings;
}

std::vector<Finding> toolCallsPreservedFindings(const std::vector<EventLogEvent>& events,
                                                const std::vector<ClassifierTick>& ticks, int64_t sinceMs) {
    std::vector<Finding> findings;
    const Logs logs(events, ticks);
    if (logs.events.empty()) return findings;
    const int64_t asOfMs = logs.events.back().tsMs;
    CoachProjection::Window window = defaultWindow;
    window.highResSpan = std::max(0.0, double(asOfMs - sinceMs) / 1000.0) + window.stepInterval;
    const auto projected = logs.project(asOfMs, window);

    std::multiset<std::pair<std::string, std::string>> replayed;
    for (const ChatMessage& message : projected.messages)
        if (message.role == ChatRole::assistant && message.toolCalls)
            for (const ToolCall& call : *message.toolCalls) replayed.insert({call.name, call.arguments.serialized()});

    for (const EventLogEvent& event : logs.events) {
        if (event.tsMs < sinceMs || event.type != "coach_decision") continue;
        const JSONValue* logged = event.detail.member("tool_calls");
        if (!logged) continue;
        const auto calls = CoachProjection::parseToolCalls(*logged);
        std::vector<ToolCall> expected;
        for (const ToolCall& call : calls)
            if (!CoachTools::unreplayableToolNames().contains(call.name)) expected.push_back(call);
        if (expected.empty()) continue;
        const bool found = std::any_of(expected.begin(), expected.end(), [&](const ToolCall& call) {
            return replayed.contains({CoachTools::canonicalToolName(call.name), call.arguments.serialized()});
        });
        if (!found)
            findings.push_back({"tool-calls-preserved", event.tsMs,
                                "coach_decision logged " + std::to_string(calls.size()) + " tool_calls, none found matching in " +
                                    "projected history (" + std::to_string(projected.messages.size()) + " messages)"});
    }
    return findings;
}

std::vector<Finding> seedFindings(const std::vector<ChatMessage>& messages, int64_t asOfMs) {
    std::vector<Finding> findings;
    for (const ChatMessage& message : messages)
        if (message.role == ChatRole::assistant &&
            (message.content.find("COACH CONTEXT") != std::string::npos ||
             message.content.find("=== MEMORY") != std::string::npos))
            findings.push_back({"context-seed-not-first-assistant", asOfMs,
                                "a seed/summary marker was rendered under role=assistant: " + start(message.content)});
    return findings;
}

std::vector<Finding> contextSeedFindings(const std::vector<EventLogEvent>& events,
                                         const std::vector<ClassifierTick>& ticks,
                                         const std::vector<int64_t>& sampleAsOfs) {
    std::vector<Finding> findings;
    const Logs logs(events, ticks);
    for (const int64_t asOfMs : sampleAsOfs)
        for (Finding& finding : seedFindings(logs.project(asOfMs, defaultWindow).messages, asOfMs))
            findings.push_back(std::move(finding));
    return findings;
}

int64_t leakedCallCount(const std::vector<ChatMessage>& messages) {
    return std::count_if(messages.begin(), messages.end(), [](const ChatMessage& message) {
        return message.role == ChatRole::assistant && CoachSanityChecks::showsLeakedStateChangingToolCall(message.content);
    });
}

std::vector<Finding> monotonicityFindings(const std::vector<EventLogEvent>& events,
                                          const std::vector<ClassifierTick>& ticks,
                                          const std::vector<int64_t>& sampleAsOfs,
                                          const std::vector<double>& depthsHours) {
    std::vector<Finding> findings;
    const Logs logs(events, ticks);
    std::vector<double> depths = depthsHours;
    std::sort(depths.begin(), depths.end());
    for (const int64_t asOfMs : sampleAsOfs) {
        std::optional<std::pair<double, int64_t>> previous;
        for (const double depth : depths) {
            CoachProjection::Window window = defaultWindow;
            window.highResSpan = depth * 3600.0;
            const int64_t count = leakedCallCount(logs.project(asOfMs, window).messages);
            if (previous && count > previous->second)
                findings.push_back({"monotonic-no-new-leaks-with-depth", asOfMs,
                                    "leak count rose from " + std::to_string(previous->second) + " to " +
                                        std::to_string(count) + " (depth " + GoQuietArguments::minutesText(previous->first) +
                                        "h to " + GoQuietArguments::minutesText(depth) + "h)"});
            previous = {depth, count};
        }
    }
    return findings;
}

std::vector<Finding> adjacencyFindings(const std::vector<ChatMessage>& messages, int64_t asOfMs) {
    std::vector<Finding> findings;
    for (size_t i = 1; i < messages.size(); ++i)
        if (messages[i - 1].role == ChatRole::assistant && messages[i].role == ChatRole::assistant)
            findings.push_back({"no-adjacent-assistant-messages", asOfMs,
                                "messages[" + std::to_string(i - 1) + "] and [" + std::to_string(i) +
                                    "] both role=assistant: " + start(messages[i - 1].content) + " | " +
                                    start(messages[i].content)});
    return findings;
}

std::vector<Finding> adjacentAssistantFindings(const std::vector<EventLogEvent>& events,
                                               const std::vector<ClassifierTick>& ticks,
                                               const std::vector<int64_t>& sampleAsOfs) {
    std::vector<Finding> findings;
    const Logs logs(events, ticks);
    for (const int64_t asOfMs : sampleAsOfs)
        for (Finding& finding : adjacencyFindings(logs.project(asOfMs, defaultWindow).messages, asOfMs))
            findings.push_back(std::move(finding));
    return findings;
}

std::vector<Finding> retiredToolMentionFindings(const std::vector<ChatMessage>& messages) {
    std::vector<Finding> findings;
    for (size_t i = 0; i < messages.size(); ++i) {
        const ChatMessage& message = messages[i];
        for (const std::string& name : CoachTools::retiredToolNames()) {
            const std::string lead = "message " + std::to_string(i);
            if (message.toolCalls)
                for (const ToolCall& call : *message.toolCalls)
                    if (call.name == name)
                        findings.push_back({"retired_tool_mention", 0, lead + ") calls retired tool '" + name + "' in tool_calls"});
            if (mentions(message.content, name))
                findings.push_back({"retired_tool_mention", 0, lead + ") mentions '" + name + "' in content"});
            if (message.thinking && mentions(*message.thinking, name))
                findings.push_back({"retired_tool_mention", 0, lead + ") mentions '" + name + "' in thinking"});
        }
    }
    return findings;
}

}  // namespace aimwise::ProjectionSweep
