// What the local model server sends back, taken as a whole reply, as a stream cut anywhere, as an
// error body that may report a context overflow, and as /props.
#include <algorithm>
#include <variant>

#include "AimwiseCore/models/chat_wire.h"
#include "AimwiseCore/models/local_context_fit.h"
#include "AimwiseCore/models/local_inference_wire.h"
#include "AimwiseCore/models/local_model_backend.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "fuzz/fuzz_support.h"

using namespace aimwise;
using fuzzing::require;

namespace {

// The backend's reading of a streamed body that arrives in pieces of `piece` bytes.
std::variant<ChatResponse, std::string> streamed(std::string_view body, size_t piece) {
    ChatStreamAccumulator accumulator;
    ServerSentEventLines lines([&](std::string_view payload) {
        const ChatJSON value = ChatJSON::parse(payload, nullptr, false);
        if (!value.is_object()) return;
        if (const ChatJSON* error = ChatWire::member(value, "error"); error && error->is_object())
            throw ModelBackendError::invalidResponse("llama-server error: " + ChatWire::errorObjectText(*error));
        accumulator.ingest(value);
    });
    try {
        for (size_t at = 0; at < body.size(); at += piece) lines.feed(body.substr(at, piece));
        lines.finish();
    } catch (const ModelBackendError& error) {
        return error.description();
    }
    return LocalModelBackend::localOnly(accumulator.finish());
}

// /props as the backend reads it when an overflow error leaves out the context size.
std::optional<int64_t> propsContext(std::string_view body) {
    const ChatJSON props = ChatJSON::parse(body, nullptr, false);
    const ChatJSON* settings = ChatWire::member(props, "default_generation_settings");
    const ChatJSON* nCtx = settings ? ChatWire::member(*settings, "n_ctx") : nullptr;
    return nCtx && nCtx->is_number_integer() ? std::optional(nCtx->get<int64_t>()) : std::nullopt;
}

const std::vector<ChatMessage> conversation = {
    ChatMessage::system("rules"),
    ChatMessage::user("first"),
    ChatMessage::assistant("", std::vector<ToolCall>{{"look", JSONValue::Object{}}}),
    ChatMessage::toolResult("seen", "look"),
    ChatMessage::system("more rules"),
    ChatMessage::user("second"),
    ChatMessage::assistant("answer"),
    ChatMessage::user("now"),
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const std::string_view body = fuzzing::text(bytes, size);

    std::optional<ChatResponse> reply;
    try {
        reply = LocalModelBackend::localOnly(ChatWire::parseResponse(body));
    } catch (const ModelBackendError&) {
    }
    try {
        const std::string content = LocalInferenceWire::content(body);
        require(reply && reply->text == content, "the short reader and the full parser agree on the text");
    } catch (const ModelBackendError&) {
    }

    require(streamed(body, body.size() + 1) == streamed(body, 1 + size % 7), "where a stream is cut changes nothing");

    (void)LocalInferenceWire::isLoadingResponse(503, body);
    const auto error = ModelBackendError::httpError(400, utf8OrEmpty(body));
    (void)error.description();
    if (const auto overflow = LocalContextFit::overflow(error)) {
        const auto trimmed = LocalContextFit::dropOldestTurns(conversation, *overflow, propsContext(body), 512);
        require(trimmed && trimmed->droppedMessages > 0 &&
                    trimmed->messages.size() + trimmed->droppedMessages == conversation.size(),
                "an overflow drops at least one message");
        const auto& kept = trimmed->messages;
        require(std::count_if(kept.begin(), kept.end(), [](const auto& m) { return m.role == ChatRole::system; }) == 2 &&
                    kept.back() == conversation.back(),
                "system messages and the latest turn stay");
        for (size_t i = 0; i < kept.size(); ++i)
            if (kept[i].role == ChatRole::tool) require(i > 0 && kept[i - 1].hasToolCalls(), "a tool result keeps its call");
    }
    return 0;
}
