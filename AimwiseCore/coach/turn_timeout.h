#pragma once
// The turn watchdog. The operation runs on the calling thread under a cancellation token; a second
// thread waits out the deadline and then cancels it. Cancellation is cooperative (the transport
// checks the token while bytes are in flight), so an operation that returns after the deadline, by
// whatever route, is still abandoned: its result is dropped and Exceeded thrown, so no reply is ever
// written for a turn the watchdog gave up on.
#include <functional>
#include <memory>
#include <string>

#include "AimwiseCore/models/cancellation.h"
#include "CaptureShared/common/error.h"

namespace aimwise::TurnTimeout {

struct Exceeded : Error {
    explicit Exceeded(double seconds);
    double seconds = 0;
};

// "120", "0.5": seconds as the watchdog's message shows them.
std::string secondsText(double seconds);

// Runs `operation`; a thrown error passes through unless the deadline passed first. `token`, when
// given, is the one the operation runs under, so that a caller can also cancel it (a shutdown):
// such a cancellation passes through as CancellationError.
void run(double seconds, const std::function<void()>& operation,
         std::shared_ptr<CancellationToken> token = nullptr);

}  // namespace aimwise::TurnTimeout
