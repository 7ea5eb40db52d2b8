#include "AimwiseCore/models/request_conformance.h"

#include <deque>

#include "AimwiseCore/models/chat_wire.h"

namespace aimwise::RequestConformance {

std::string_view text(Rule rule) {
    switch (rule) {
        case Rule::unansweredToolCall: return "unanswered_tool_call";
        case Rule::orphanToolMessage: return "orphan_tool_message";
        case Rule::toolCallIdMismatch: return "tool_call_id_mismatch";
        case Rule::systemNotFirst: return "system_not_first";
        case Rule::malformedToolSchema: return "malformed_tool_schema";
        case Rule::unsupportedResponseFormat: return "unsupported_response_format";
    }
    return {};
}

Violation::Violation(Rule rule, std::string detail)
    : Error("request conformance [" + std::string(text(rule)) + "]: " + detail), rule_(rule), detail_(std::move(detail)) {}

Mode mode(const Environment& environment) {
    return lookup(environment, environmentKey) ? Mode::enforced : Mode::off;
}

namespace {

struct PendingCall {
    size_t assistantIndex;
    std::string name;
    std::string id;
};

[[noreturn]] void unanswered(const PendingCall& call) {
    throw Violation(Rule::unansweredToolCall,
                    "assistant message at index " + std::to_string(call.assistantIndex) + " called " + call.name +
                        " (call " + call.id +
                        ") with no answering tool message; every tool call must be "
                        "answered before the conversation continues");
}

void validateTool(const ToolSpec& tool) {
    const std::string prefix = "tool `" + tool.name;
    if (!tool.parameters.isObject())
        throw Violation(Rule::malformedToolSchema, prefix + "` parameters is not a JSON object");
    const JSONValue* type = tool.parameters.member("type");
    if (!type || !type->stringIfAny() || *type->stringIfAny() != "object")
        throw Violation(Rule::malformedToolSchema, prefix + "` parameters must declare \"type\": \"object\"");
    const JSONValue* properties = tool.parameters.member("properties");
    if (!properties || !properties->isObject())
        throw Violation(Rule::malformedToolSchema, prefix + "` parameters must carry a `properties` object");
}

}  // namespace

void validate(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools) {
    std::deque<PendingCall> pending;
    bool inLeadingSystemRun = true;
    for (size_t index = 0; index < messages.size(); ++index) {
        const ChatMessage& message = messages[index];
        if (message.role != ChatRole::system) inLeadingSystemRun = false;
        if (message.role == ChatRole::system && !inLeadingSystemRun)
            throw Violation(Rule::systemNotFirst, "system message at index " + std::to_string(index) +
                                                      "; system content must lead the conversation");
        if (message.role == ChatRole::tool) {
            auto match = pending.begin();
            if (message.toolName)
                while (match != pending.end() && match->name != *message.toolName) ++match;
            if (match == pending.end())
                throw Violation(Rule::orphanToolMessage, "tool message at index " + std::to_string(index) +
                                                             " (name: " + message.toolName.value_or("unnamed") +
                                                             ") answers no " + "preceding assistant tool call");
            pending.erase(match);
            continue;
        }
        if (!pending.empty()) unanswered(pending.front());
        if (message.role == ChatRole::assistant && message.toolCalls)
            for (size_t call = 0; call < message.toolCalls->size(); ++call)
                pending.push_back({index, (*message.toolCalls)[call].name, ChatWire::callID(index, call)});
    }
    if (!pending.empty()) unanswered(pending.front());
    if (tools)
        for (const ToolSpec& tool : *tools) validateTool(tool);
}

void validateEncodedOpenAIShape(const ChatJSON& encodedMessages) {
    std::deque<std::string> queue;
    if (!encodedMessages.is_array()) return;
    for (size_t index = 0; index < encodedMessages.size(); ++index) {
        const ChatJSON& message = encodedMessages[index];
        const ChatJSON* roleValue = ChatWire::member(message, "role");
        std::optional<std::string> role =
            roleValue && roleValue->is_string() ? std::optional(roleValue->get<std::string>()) : std::nullopt;
        if (role == "tool") {
            if (queue.empty())
                throw Violation(Rule::orphanToolMessage,
                                "encoded tool message at index " + std::to_string(index) + " answers no pending call");
            const ChatJSON* idValue = ChatWire::member(message, "tool_call_id");
            std::optional<std::string> id =
                idValue && idValue->is_string() ? std::optional(idValue->get<std::string>()) : std::nullopt;
            if (id != queue.front())
                throw Violation(Rule::toolCallIdMismatch, "encoded tool message at index " + std::to_string(index) +
                                                              " carries tool_call_id " + id.value_or("<missing>") +
                                                              " but is positioned to answer " + queue.front());
            queue.pop_front();
            continue;
        }
        if (!queue.empty())
            throw Violation(Rule::unansweredToolCall, "encoded message at index " + std::to_string(index) +
                                                          " (role: " + role.value_or("unknown") + ") interrupts " +
                                                          std::to_string(queue.size()) + " unanswered tool call(s)");
        if (role == "assistant")
            if (const ChatJSON* calls = ChatWire::member(message, "tool_calls"); calls && calls->is_array())
                for (const ChatJSON& call : *calls) {
                    const ChatJSON* id = ChatWire::member(call, "id");
                    queue.push_back(id && id->is_string() ? id->get<std::string>() : std::string("<missing>"));
                }
    }
    if (!queue.empty())
        throw Violation(Rule::unansweredToolCall, "conversation ends with " + std::to_string(queue.size()) +
                                                      " unanswered tool call(s)");
}

void validateResponseFormat(bool schemaRequested, SchemaEnforcement route) {
    if (schemaRequested && route == SchemaEnforcement::notKnownToEnforce)
        throw Violation(Rule::unsupportedResponseFormat,
                        "response_format requested on a route not known to enforce schemas; the request would look "
                        "successful while the model was free to ignore the schema");
}

}  // namespace aimwise::RequestConformance
