#pragma once
// Streams that a decorator may run more than once. What an abandoned attempt showed must be taken
// back: the first delta of a later attempt carries both reset flags when anything was shown before.
#include <mutex>

#include "AimwiseCore/models/model_backend.h"

namespace aimwise {

class StreamAttempts {
public:
    explicit StreamAttempts(const StreamDeltaHandler& onDelta) : onDelta_(onDelta) {}

    // Call before each attempt; the handler then belongs to that attempt.
    void startAttempt() {
        std::lock_guard lock(mutex_);
        resetPending_ = shown_;
    }

    StreamDeltaHandler handler() {
        if (!onDelta_) return {};
        return [this](const ModelStreamDelta& delta) {
            ModelStreamDelta out = delta;
            {
                std::lock_guard lock(mutex_);
                if (resetPending_) {
                    out.resetsPrevious = true;
                    out.resetsThinking = true;
                    resetPending_ = false;
                }
                shown_ = true;
            }
            onDelta_(out);
        };
    }

private:
    const StreamDeltaHandler& onDelta_;
    std::mutex mutex_;
    bool shown_ = false;
    bool resetPending_ = false;
};

}  // namespace aimwise
