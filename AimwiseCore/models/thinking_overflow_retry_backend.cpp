#include "AimwiseCore/models/thinking_overflow_retry_backend.h"

#include "AimwiseCore/models/backend_failure.h"
#include "AimwiseCore/models/cancellation.h"
#include "AimwiseCore/models/stream_attempts.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise {

void ThinkingOverflowRetryBackend::emit(const std::string& line) const {
    if (log_) log_(line);
}

ChatResponse ThinkingOverflowRetryBackend::run(const ChatOptions& options, const Call& call,
                                               const std::function<void()>& beforeRetry) {
    ChatResponse first = call(options);
    if (!first.truncated || !options.think) return first;
    emit(name_ + ": reply cut off with thinking on (" + std::to_string(utf8::scalarCount(first.thinking)) +
         " thinking chars, " + std::to_string(utf8::scalarCount(first.text)) +
         " reply chars) -- the model's context filled before it answered. Retrying once with thinking off.");
    ChatOptions withoutThinking = options;
    withoutThinking.think = false;
    if (beforeRetry) beforeRetry();
    try {
        ChatResponse retry = call(withoutThinking);
        if (retry.truncated)
            emit(name_ + ": the thinking-off retry was cut off too (" + std::to_string(utf8::scalarCount(retry.text)) +
                 " reply chars)");
        return retry;
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception& error) {
        emit(name_ + ": the thinking-off retry failed (" + describeModelFailure(error) +
             ") -- keeping the truncated first reply");
        return first;
    }
}

ChatResponse ThinkingOverflowRetryBackend::chat(const std::vector<ChatMessage>& messages,
                                                const std::optional<std::vector<ToolSpec>>& tools,
                                                const ChatOptions& options) {
    return run(options, [&](const ChatOptions& call) { return wrapped_->chat(messages, tools, call); }, {});
}

ChatResponse ThinkingOverflowRetryBackend::chatStream(const std::vector<ChatMessage>& messages,
                                                      const std::optional<std::vector<ToolSpec>>& tools,
                                                      const ChatOptions& options, const StreamDeltaHandler& onDelta) {
    StreamAttempts attempts(onDelta);
    attempts.startAttempt();
    StreamDeltaHandler handler = attempts.handler();
    return run(
        options, [&](const ChatOptions& call) { return wrapped_->chatStream(messages, tools, call, handler); },
        [&] {
            attempts.startAttempt();
            handler = attempts.handler();
        });
}

}  // namespace aimwise
