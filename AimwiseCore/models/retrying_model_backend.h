#pragma once
// Repeats a call after a reachability failure, waiting between attempts in ticks of at most a
// second so that a caller who no longer wants the answer (a nightly pass when the person comes back)
// can stand down at once.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "AimwiseCore/models/model_backend.h"
#include "CaptureShared/common/clock.h"

namespace aimwise {

class RetryingModelBackend : public ModelBackend {
public:
    using Log = std::function<void(const std::string& line)>;
    static constexpr double defaultBackoffSeconds = 20;

    // `maxAttempts` below 1 is 1; an empty `backoffSeconds` is one wait of 20 s. The n-th wait uses
    // the n-th entry, the last one repeating. `shouldKeepWaiting` is polled before each tick of a wait.
    RetryingModelBackend(std::shared_ptr<ModelBackend> wrapped, std::string name, int maxAttempts,
                         std::vector<double> backoffSeconds, std::function<bool()> shouldKeepWaiting,
                         const Clock& clock, Log log);

    ChatResponse chat(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                      const ChatOptions& options) override;
    ChatResponse chatStream(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                            const ChatOptions& options, const StreamDeltaHandler& onDelta) override;

    int maxAttempts() const { return maxAttempts_; }
    const std::vector<double>& backoffSeconds() const { return backoffSeconds_; }

private:
    ChatResponse run(const std::function<ChatResponse()>& attempt, const std::function<void()>& beforeAttempt);
    void wait(double seconds, const std::exception_ptr& last);
    void emit(const std::string& line) const;

    std::shared_ptr<ModelBackend> wrapped_;
    std::string name_;
    int maxAttempts_;
    std::vector<double> backoffSeconds_;
    std::function<bool()> shouldKeepWaiting_;
    const Clock& clock_;
    Log log_;
};

}  // namespace aimwise
