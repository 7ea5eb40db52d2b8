#pragma once
// Cooperative cancellation of a model call. A caller that may abandon a call installs a token for
// the calling thread; the transport checks it while bytes are in flight and while it waits.
#include <atomic>
#include <memory>
#include <string>

#include "CaptureShared/common/error.h"

namespace aimwise {

class CancellationToken {
public:
    void cancel() { cancelled_.store(true, std::memory_order_relaxed); }
    bool isCancelled() const { return cancelled_.load(std::memory_order_relaxed); }

    // The token installed on this thread by the innermost CancellationScope, or none.
    static const CancellationToken* current();
    // Throws CancellationError when the current token was cancelled.
    static void checkCurrent();

private:
    std::atomic<bool> cancelled_{false};
};

// Installs `token` for the calling thread for the scope's lifetime; scopes nest.
class CancellationScope {
public:
    explicit CancellationScope(std::shared_ptr<const CancellationToken> token);
    ~CancellationScope();
    CancellationScope(const CancellationScope&) = delete;
    CancellationScope& operator=(const CancellationScope&) = delete;

private:
    std::shared_ptr<const CancellationToken> token_;
    const CancellationToken* previous_;
};

// Passes through every backend unchanged and is never retried.
struct CancellationError : Error {
    CancellationError() : Error("the model call was cancelled") {}
};

}  // namespace aimwise
