#include "AimwiseCore/models/retrying_model_backend.h"

#include <algorithm>
#include <cmath>

#include "AimwiseCore/models/backend_failure.h"
#include "AimwiseCore/models/cancellation.h"
#include "AimwiseCore/models/stream_attempts.h"

namespace aimwise {

RetryingModelBackend::RetryingModelBackend(std::shared_ptr<ModelBackend> wrapped, std::string name, int maxAttempts,
                                           std::vector<double> backoffSeconds,
                                           std::function<bool()> shouldKeepWaiting, const Clock& clock, Log log)
    : wrapped_(std::move(wrapped)),
      name_(std::move(name)),
      maxAttempts_(std::max(1, maxAttempts)),
      backoffSeconds_(backoffSeconds.empty() ? std::vector<double>{defaultBackoffSeconds} : std::move(backoffSeconds)),
      shouldKeepWaiting_(std::move(shouldKeepWaiting)),
      clock_(clock),
      log_(std::move(log)) {}

void RetryingModelBackend::emit(const std::string& line) const {
    if (log_) log_(line);
}

void RetryingModelBackend::wait(double seconds, const std::exception_ptr& last) {
    int64_t remainingMs = std::llround(std::max(0.0, seconds) * 1000.0);
    while (remainingMs > 0) {
        CancellationToken::checkCurrent();
        if (shouldKeepWaiting_ && !shouldKeepWaiting_()) {
            emit(name_ + ": retry wait interrupted -- giving up on this call rather than waiting further");
            std::rethrow_exception(last);
        }
        const int64_t tickMs = std::min<int64_t>(1000, remainingMs);
        clock_.sleepMs(tickMs);
        remainingMs -= tickMs;
    }
}

ChatResponse RetryingModelBackend::run(const std::function<ChatResponse()>& attempt,
                                       const std::function<void()>& beforeAttempt) {
    for (int index = 0;; ++index) {
        double waitSeconds = 0;
        std::exception_ptr last;
        if (beforeAttempt) beforeAttempt();
        try {
            return attempt();
        } catch (const CancellationError&) {
            throw;
        } catch (const std::exception& error) {
            if (!isReachabilityFailure(error) || index + 1 >= maxAttempts_) throw;
            if (index > 0 && isTimedOutTransport(error)) {
                emit(name_ + ": timed out on attempt " + std::to_string(index + 1) +
                     " after already paying the full wait -- not retrying further, escalating instead of burning "
                     "another full-length wait");
                throw;
            }
            waitSeconds = backoffSeconds_[std::min<size_t>(index, backoffSeconds_.size() - 1)];
            emit(name_ + " unreachable (attempt " + std::to_string(index + 1) + "/" + std::to_string(maxAttempts_) +
                 "): " + describeModelFailure(error) + " -- retrying in up to " +
                 std::to_string(std::llround(waitSeconds)) + "s");
            last = std::current_exception();
        }
        wait(waitSeconds, last);
    }
}

ChatResponse RetryingModelBackend::chat(const std::vector<ChatMessage>& messages,
                                        const std::optional<std::vector<ToolSpec>>& tools,
                                        const ChatOptions& options) {
    return run([&] { return wrapped_->chat(messages, tools, options); }, {});
}

ChatResponse RetryingModelBackend::chatStream(const std::vector<ChatMessage>& messages,
                                              const std::optional<std::vector<ToolSpec>>& tools,
                                              const ChatOptions& options, const StreamDeltaHandler& onDelta) {
    StreamAttempts attempts(onDelta);
    StreamDeltaHandler handler;
    return run([&] { return wrapped_->chatStream(messages, tools, options, handler); },
               [&] {
                   attempts.startAttempt();
                   handler = attempts.handler();
               });
}

}  // namespace aimwise
