#pragma once
// The OpenAI-style chat-completions JSON that every backend speaks: how messages and tools go out,
// and how a reply (whole or streamed) comes back. The local and the online backends share it.
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/models/chat_json.h"
#include "AimwiseCore/models/chat_types.h"

namespace aimwise {

namespace ChatWire {

// The local server reads reasoning as `reasoning_content`, sends tool names back and keeps blank
// assistant turns; the online router reads `reasoning` and wants neither.
enum class Dialect { local, openRouter };

inline constexpr std::string_view providerErrorPrefix = "OpenRouter error: ";

ChatJSON encodeTools(const std::vector<ToolSpec>& tools);
ChatJSON encodeMessages(const std::vector<ChatMessage>& messages, Dialect dialect);
// "call_<message index>_<call index>": call ids exist only on the wire.
std::string callID(size_t messageIndex, size_t callIndex);

// The request body as sent: strict UTF-8, and the response schema spliced in as it was written, since
// re-encoding it would reorder its keys. A body that cannot be encoded is an invalidResponse.
std::string encodeBody(const ChatJSON& body, const std::optional<std::string>& responseSchemaJSON);
// Arguments as JSON text, or "{}" when they cannot be serialised.
std::string serializeArguments(const JSONValue& arguments);

// Between the system's JSON values and the wire's. Integral numbers below 2^53 go out without a
// fraction. toWire throws JSONValueError for a number that is not finite.
ChatJSON toWire(const JSONValue& value);
JSONValue fromWire(const ChatJSON& value);

// The common reply parser. Throws ModelBackendError.
ChatResponse parseResponse(std::string_view body);
// Replies are walked recursively; deeper nesting than this is refused rather than risking the stack.
inline constexpr size_t maxNestingDepth = 512;
bool nestsTooDeep(std::string_view json);
// The value, or a discarded one when the text is not JSON or nests too deep. Never throws.
ChatJSON parseBounded(std::string_view text);
// Absent unless both token counts are integers.
std::optional<ChatUsage> parseUsage(const ChatJSON& usage);
// The entries with a usable function name, in order; bad arguments become an empty object.
std::vector<ToolCall> parseToolCalls(const ChatJSON& toolCalls);
std::vector<TokenLogprob> parseLogprobs(const ChatJSON& choiceLogprobs);
// An error object's `message`, or the object's own text, with secrets removed.
std::string errorObjectText(const ChatJSON& error);
// Trimmed text when `value` is a string that is not blank.
std::optional<std::string> trimmedNonEmptyString(const ChatJSON* value);
const ChatJSON* member(const ChatJSON& object, const char* key);

}  // namespace ChatWire

// Folds the payloads of a streamed reply into one response.
class ChatStreamAccumulator {
public:
    // Returns what this payload adds to the visible text and the trace.
    ModelStreamDelta ingest(const ChatJSON& payload);
    ChatResponse finish() const;

private:
    struct ToolFragment {
        std::string name;
        std::string arguments;
    };
    std::string text_;
    std::string thinking_;
    bool truncated_ = false;
    std::optional<ChatUsage> usage_;
    ChatProvenance provenance_;
    std::vector<TokenLogprob> logprobs_;
    std::map<int64_t, ToolFragment> toolFragments_;
};

// Splits a byte stream into lines ("\n", with a trailing "\r" dropped) and hands on the payload of
// every "data:" line, trimmed.
class ServerSentEventLines {
public:
    using PayloadHandler = std::function<void(std::string_view payload)>;
    explicit ServerSentEventLines(PayloadHandler onPayload) : onPayload_(std::move(onPayload)) {}
    void feed(std::string_view bytes);
    // The last line of a stream need not end in a newline.
    void finish();

private:
    void line(std::string_view text);
    PayloadHandler onPayload_;
    std::string pending_;
};

}  // namespace aimwise
