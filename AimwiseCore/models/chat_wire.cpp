#include "AimwiseCore/models/chat_wire.h"

#include <cmath>
#include <stdexcept>

#include "AimwiseCore/events/ordered_json_splice.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "AimwiseCore/privacy/secret_redaction.h"
#include "CaptureShared/common/text.h"

namespace aimwise {

namespace ChatWire {

ChatJSON encodeTools(const std::vector<ToolSpec>& tools) {
    ChatJSON out = ChatJSON::array();
    for (const ToolSpec& tool : tools) {
        ChatJSON function = ChatJSON::object();
        function["name"] = tool.name;
        function["description"] = tool.description;
        function["parameters"] = toWire(tool.parameters);
        ChatJSON entry = ChatJSON::object();
        entry["type"] = "function";
        entry["function"] = std::move(function);
        out.push_back(std::move(entry));
    }
    return out;
}

std::string callID(size_t messageIndex, size_t callIndex) {
    return "call_" + std::to_string(messageIndex) + "_" + std::to_string(callIndex);
}

std::string encodeBody(const ChatJSON& body, const std::optional<std::string>& responseSchemaJSON) {
    std::string data;
    try {
        data = body.dump(-1, ' ', false, ChatJSON::error_handler_t::strict);
    } catch (const ChatJSON::exception& error) {
        throw ModelBackendError::invalidResponse(std::string("failed to encode request body: ") + error.what());
    }
    if (responseSchemaJSON) {
        const std::string format =
            R"({"type":"json_schema","json_schema":{"name":"response","strict":true,"schema":)" + *responseSchemaJSON + "}}";
        if (auto spliced = OrderedJSONSplice::insert(format, "response_format", data)) data = std::move(*spliced);
    }
    return data;
}

ChatJSON toWire(const JSONValue& value) {
    struct Visitor {
        ChatJSON operator()(const JSONValue::Object& members) const {
            ChatJSON out = ChatJSON::object();
            for (const auto& [key, member] : members) out[key] = toWire(member);
            return out;
        }
        ChatJSON operator()(const JSONValue::Array& items) const {
            ChatJSON out = ChatJSON::array();
            for (const JSONValue& item : items) out.push_back(toWire(item));
            return out;
        }
        ChatJSON operator()(const std::string& text) const { return text; }
        ChatJSON operator()(double number) const {
            if (!std::isfinite(number)) throw JSONValueError("a JSON number must be finite");
            if (number == std::trunc(number) && std::fabs(number) < 9007199254740992.0)
                return static_cast<int64_t>(number);
            return number;
        }
        ChatJSON operator()(bool flag) const { return flag; }
        ChatJSON operator()(const JSONValue::Null&) const { return nullptr; }
    };
    return std::visit(Visitor{}, value.value);
}

JSONValue fromWire(const ChatJSON& value) {
    switch (value.type()) {
        case ChatJSON::value_t::object: {
            JSONValue::Object members;
            for (auto it = value.begin(); it != value.end(); ++it) members[it.key()] = fromWire(it.value());
            return members;
        }
        case ChatJSON::value_t::array: {
            JSONValue::Array items;
            for (const ChatJSON& item : value) items.push_back(fromWire(item));
            return items;
        }
        case ChatJSON::value_t::string: return value.get<std::string>();
        case ChatJSON::value_t::boolean: return value.get<bool>();
        case ChatJSON::value_t::number_integer:
        case ChatJSON::value_t::number_unsigned:
        case ChatJSON::value_t::number_float: return value.get<double>();
        default: return nullptr;
    }
}

std::string serializeArguments(const JSONValue& arguments) {
    try {
        return toWire(arguments).dump(-1, ' ', false, ChatJSON::error_handler_t::strict);
    } catch (const std::exception&) {
        return "{}";
    }
}

ChatJSON encodeMessages(const std::vector<ChatMessage>& messages, Dialect dialect) {
    const char* reasoningKey = dialect == Dialect::local ? "reasoning_content" : "reasoning";
    ChatJSON out = ChatJSON::array();
    // Ids of the latest assistant message with calls; the tool messages right after it take them in turn.
    std::vector<std::string> pendingIDs;
    size_t nextID = 0;

    for (size_t index = 0; index < messages.size(); ++index) {
        const ChatMessage& message = messages[index];
        ChatJSON entry = ChatJSON::object();
        switch (message.role) {
            case ChatRole::system:
            case ChatRole::user:
                pendingIDs.clear();
                nextID = 0;
                entry["role"] = std::string(rawValue(message.role));
                entry["content"] = message.content;
                break;
            case ChatRole::assistant: {
                pendingIDs.clear();
                nextID = 0;
                if (dialect == Dialect::openRouter && !message.hasToolCalls() &&
                    trimWhitespaceAndNewlines(message.content).empty())
                    continue;
                entry["role"] = "assistant";
                entry["content"] = message.content;
                if (message.thinking && !message.thinking->empty()) entry[reasoningKey] = *message.thinking;
                if (message.hasToolCalls()) {
                    ChatJSON calls = ChatJSON::array();
                    for (size_t call = 0; call < message.toolCalls->size(); ++call) {
                        const ToolCall& toolCall = (*message.toolCalls)[call];
                        std::string id = callID(index, call);
                        pendingIDs.push_back(id);
                        ChatJSON function = ChatJSON::object();
                        function["name"] = toolCall.name;
                        function["arguments"] = serializeArguments(toolCall.arguments);
                        ChatJSON wire = ChatJSON::object();
                        wire["id"] = id;
                        wire["type"] = "function";
                        wire["function"] = std::move(function);
                        calls.push_back(std::move(wire));
                    }
                    entry["tool_calls"] = std::move(calls);
                }
                break;
            }
            case ChatRole::tool: {
                std::string id = nextID < pendingIDs.size()
                                     ? pendingIDs[nextID++]
                                     : "call_unmatched_" + message.toolName.value_or("unknown") + "_" +
                                           std::to_string(index);
                entry["role"] = "tool";
                entry["content"] = message.content;
                entry["tool_call_id"] = std::move(id);
                if (dialect == Dialect::local && message.toolName) entry["name"] = *message.toolName;
                break;
            }
        }
        out.push_back(std::move(entry));
    }
    return out;
}

const ChatJSON* member(const ChatJSON& object, const char* key) {
    if (!object.is_object()) return nullptr;
    auto found = object.find(key);
    return found == object.end() ? nullptr : &*found;
}

std::optional<std::string> trimmedNonEmptyString(const ChatJSON* value) {
    if (!value || !value->is_string()) return std::nullopt;
    std::string trimmed = trimWhitespaceAndNewlines(value->get_ref<const std::string&>());
    if (trimmed.empty()) return std::nullopt;
    return trimmed;
}

namespace {

const std::string* stringMember(const ChatJSON& object, const char* key) {
    const ChatJSON* value = member(object, key);
    return value && value->is_string() ? &value->get_ref<const std::string&>() : nullptr;
}

std::optional<int64_t> integerMember(const ChatJSON* object, const char* key) {
    if (!object) return std::nullopt;
    const ChatJSON* value = member(*object, key);
    if (!value || !value->is_number_integer()) return std::nullopt;
    return value->get<int64_t>();
}

JSONValue parseArguments(const ChatJSON* arguments) {
    if (!arguments) return JSONValue::Object{};
    if (arguments->is_object()) return fromWire(*arguments);
    if (arguments->is_string()) {
        ChatJSON parsed = ChatJSON::parse(arguments->get_ref<const std::string&>(), nullptr, false);
        if (parsed.is_object()) return fromWire(parsed);
    }
    return JSONValue::Object{};
}

std::optional<TokenLogprob::Alternative> parseAlternative(const ChatJSON& entry) {
    const std::string* token = stringMember(entry, "token");
    const ChatJSON* logprob = member(entry, "logprob");
    if (!token || !logprob || !logprob->is_number()) return std::nullopt;
    return TokenLogprob::Alternative{*token, logprob->get<double>()};
}

}  // namespace

std::string errorObjectText(const ChatJSON& error) {
    if (const std::string* message = stringMember(error, "message")) return SecretRedaction::redact(*message);
    return SecretRedaction::redact(error.dump(-1, ' ', false, ChatJSON::error_handler_t::replace));
}

std::optional<ChatUsage> parseUsage(const ChatJSON& usage) {
    std::optional<int64_t> prompt = integerMember(&usage, "prompt_tokens");
    std::optional<int64_t> completion = integerMember(&usage, "completion_tokens");
    if (!prompt || !completion) return std::nullopt;
    ChatUsage out;
    out.promptTokens = *prompt;
    out.completionTokens = *completion;
    out.cachedPromptTokens = integerMember(member(usage, "prompt_tokens_details"), "cached_tokens");
    out.reasoningTokens = integerMember(member(usage, "completion_tokens_details"), "reasoning_tokens");
    if (const ChatJSON* cost = member(usage, "cost"); cost && cost->is_number()) out.costUSD = cost->get<double>();
    out.callCount = 1;
    return out;
}

std::vector<ToolCall> parseToolCalls(const ChatJSON& toolCalls) {
    std::vector<ToolCall> out;
    if (!toolCalls.is_array()) return out;
    for (const ChatJSON& entry : toolCalls) {
        const ChatJSON* function = member(entry, "function");
        if (!function || !function->is_object()) continue;
        const std::string* name = stringMember(*function, "name");
        if (!name || trimWhitespaceAndNewlines(*name).empty()) continue;
        out.push_back(ToolCall{*name, parseArguments(member(*function, "arguments"))});
    }
    return out;
}

std::vector<TokenLogprob> parseLogprobs(const ChatJSON& choiceLogprobs) {
    std::vector<TokenLogprob> out;
    const ChatJSON* content = member(choiceLogprobs, "content");
    if (!content || !content->is_array()) return out;
    for (const ChatJSON& entry : *content) {
        std::optional<TokenLogprob::Alternative> head = parseAlternative(entry);
        if (!head) continue;
        TokenLogprob token{head->token, head->logprob, {}};
        if (const ChatJSON* top = member(entry, "top_logprobs"); top && top->is_array())
            for (const ChatJSON& alternative : *top)
                if (auto parsed = parseAlternative(alternative)) token.topAlternatives.push_back(*parsed);
        out.push_back(std::move(token));
    }
    return out;
}

bool nestsTooDeep(std::string_view json) {
    size_t depth = 0;
    bool inString = false;
    for (size_t i = 0; i < json.size(); ++i) {
        const char c = json[i];
        if (inString) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > maxNestingDepth) return true;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return false;
}

ChatJSON parseBounded(std::string_view text) {
    if (nestsTooDeep(text)) return ChatJSON(ChatJSON::value_t::discarded);
    return ChatJSON::parse(text, nullptr, false);
}

ChatResponse parseResponse(std::string_view body) {
    if (nestsTooDeep(body))
        throw ModelBackendError::invalidResponse("response nests deeper than " + std::to_string(maxNestingDepth) +
                                                 " levels");
    ChatJSON root;
    try {
        root = ChatJSON::parse(body);
    } catch (const ChatJSON::exception& error) {  // a parse error, or a number too large for a double
        throw ModelBackendError::invalidResponse(error.what());
    }
    if (!root.is_object()) throw ModelBackendError::invalidResponse("response was not a JSON object");
    if (const ChatJSON* error = member(root, "error"); error && error->is_object())
        throw ModelBackendError::invalidResponse(std::string(providerErrorPrefix) + errorObjectText(*error));

    const ChatJSON* choices = member(root, "choices");
    if (!choices || !choices->is_array() || choices->empty() || !choices->front().is_object())
        throw ModelBackendError::invalidResponse("response had no choices");
    const ChatJSON& choice = choices->front();

    static const ChatJSON emptyObject = ChatJSON::object();
    const ChatJSON* messageValue = member(choice, "message");
    const ChatJSON& message = messageValue && messageValue->is_object() ? *messageValue : emptyObject;

    ChatResponse response;
    if (const std::string* content = stringMember(message, "content")) response.text = *content;
    if (const std::string* reasoning = stringMember(message, "reasoning"))
        response.thinking = *reasoning;
    else if (const std::string* reasoningContent = stringMember(message, "reasoning_content"))
        response.thinking = *reasoningContent;
    const std::string* finishReason = stringMember(choice, "finish_reason");
    response.truncated = finishReason && *finishReason == "length";
    if (const ChatJSON* toolCalls = member(message, "tool_calls")) response.toolCalls = parseToolCalls(*toolCalls);
    if (const ChatJSON* usage = member(root, "usage"); usage && usage->is_object()) response.usage = parseUsage(*usage);

    ChatProvenance provenance{trimmedNonEmptyString(member(root, "provider")),
                              trimmedNonEmptyString(member(root, "id")), trimmedNonEmptyString(member(root, "model")),
                              trimmedNonEmptyString(member(choice, "finish_reason"))};
    if (!provenance.isEmpty()) response.provenance = std::move(provenance);

    if (const ChatJSON* logprobs = member(choice, "logprobs")) response.logprobs = parseLogprobs(*logprobs);
    if (const ChatJSON* details = member(message, "reasoning_details"); details && !details->is_null())
        response.reasoningDetailsJSON = details->dump(-1, ' ', false, ChatJSON::error_handler_t::replace);
    return response;
}

}  // namespace ChatWire

ModelStreamDelta ChatStreamAccumulator::ingest(const ChatJSON& payload) {
    using ChatWire::member;
    ModelStreamDelta delta;
    if (const ChatJSON* usage = member(payload, "usage"); usage && usage->is_object())
        usage_ = ChatWire::parseUsage(*usage);

    auto keepFirst = [](std::optional<std::string>& field, const ChatJSON* value) {
        if (!field) field = ChatWire::trimmedNonEmptyString(value);
    };
    keepFirst(provenance_.provider, member(payload, "provider"));
    keepFirst(provenance_.generationID, member(payload, "id"));
    keepFirst(provenance_.servedModel, member(payload, "model"));

    const ChatJSON* choices = member(payload, "choices");
    if (!choices || !choices->is_array() || choices->empty() || !choices->front().is_object()) return delta;
    const ChatJSON& choice = choices->front();
    keepFirst(provenance_.finishReason, member(choice, "finish_reason"));
    if (const ChatJSON* finish = member(choice, "finish_reason"); finish && finish->is_string() && *finish == "length")
        truncated_ = true;
    if (const ChatJSON* logprobs = member(choice, "logprobs")) {
        std::vector<TokenLogprob> more = ChatWire::parseLogprobs(*logprobs);
        logprobs_.insert(logprobs_.end(), more.begin(), more.end());
    }

    const ChatJSON* change = member(choice, "delta");
    if (!change || !change->is_object()) return delta;
    const ChatJSON* reasoning = member(*change, "reasoning");
    if (!reasoning || !reasoning->is_string()) reasoning = member(*change, "reasoning_content");
    if (reasoning && reasoning->is_string()) delta.thinking = reasoning->get<std::string>();
    if (const ChatJSON* content = member(*change, "content"); content && content->is_string())
        delta.text = content->get<std::string>();
    thinking_ += delta.thinking;
    text_ += delta.text;

    if (const ChatJSON* toolCalls = member(*change, "tool_calls"); toolCalls && toolCalls->is_array()) {
        for (const ChatJSON& entry : *toolCalls) {
            if (!entry.is_object()) continue;
            int64_t index = 0;
            if (const ChatJSON* position = member(entry, "index"); position && position->is_number_integer())
                index = position->get<int64_t>();
            ToolFragment& fragment = toolFragments_[index];
            const ChatJSON* function = member(entry, "function");
            if (!function || !function->is_object()) continue;
            if (const ChatJSON* name = member(*function, "name"); name && name->is_string() && !name->empty())
                fragment.name = name->get<std::string>();
            if (const ChatJSON* arguments = member(*function, "arguments"); arguments && arguments->is_string())
                fragment.arguments += arguments->get_ref<const std::string&>();
        }
    }
    return delta;
}

ChatResponse ChatStreamAccumulator::finish() const {
    ChatJSON toolCalls = ChatJSON::array();
    for (const auto& [index, fragment] : toolFragments_) {
        ChatJSON function = ChatJSON::object();
        function["name"] = fragment.name;
        function["arguments"] = fragment.arguments;
        ChatJSON entry = ChatJSON::object();
        entry["function"] = std::move(function);
        toolCalls.push_back(std::move(entry));
    }
    ChatResponse response;
    response.text = text_;
    response.thinking = thinking_;
    response.truncated = truncated_;
    response.toolCalls = ChatWire::parseToolCalls(toolCalls);
    response.usage = usage_;
    if (!provenance_.isEmpty()) response.provenance = provenance_;
    response.logprobs = logprobs_;
    return response;
}

void ServerSentEventLines::feed(std::string_view bytes) {
    pending_.append(bytes);
    size_t start = 0;
    for (size_t newline; (newline = pending_.find('\n', start)) != std::string::npos; start = newline + 1)
        line(std::string_view(pending_).substr(start, newline - start));
    pending_.erase(0, start);
}

void ServerSentEventLines::finish() {
    if (!pending_.empty()) line(pending_);
    pending_.clear();
}

void ServerSentEventLines::line(std::string_view text) {
    if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
    if (!text.starts_with("data:")) return;
    std::string payload = trimWhitespaceAndNewlines(text.substr(5));
    if (payload == "[DONE]") return;
    onPayload_(payload);
}

}  // namespace aimwise
