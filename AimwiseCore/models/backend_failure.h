#pragma once
// The one classification that every retry and fallback decides from, and how a failure reads in a
// log line.
#include <exception>
#include <string>

namespace aimwise {

// No usable answer came back (no connection, a timeout, a rate limit, a server error, an admission
// refusal) and another attempt or another model may help. A request the server rejected, or a reply
// that could not be used, would fail the same way again. Cancellation is never one.
bool isReachabilityFailure(const std::exception& error);

// A transport failure whose cause was a timeout: the full wait has already been paid.
bool isTimedOutTransport(const std::exception& error);

// "invalid response: ...", "HTTP 429: body", the transport's text, or the error's own description.
std::string describeModelFailure(const std::exception& error);

}  // namespace aimwise
