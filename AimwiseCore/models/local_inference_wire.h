#pragma once
// The HTTP steps that every local-only caller (classifier, window description, estimates) shares
// with the local backend: the URL, the wait while the server loads its model, the reply text.
#include <string>
#include <string_view>

#include "AimwiseCore/models/endpoint_url.h"
#include "AimwiseCore/models/http_session.h"
#include "CaptureShared/common/clock.h"

namespace aimwise {

namespace LocalInferenceWire {

// The process environment's endpoint plus "v1/chat/completions"; throws ResolutionError.
EndpointURL chatCompletionsURL();
EndpointURL chatCompletionsURL(const EndpointURL& base);

// Refuses, before any byte is sent, a URL that is neither 127.0.0.1 over http nor a unix socket.
// Throws ModelBackendError::transportError.
void requireLocalDestination(const EndpointURL& url);

// One logical request: a 503 "loading" is retried once a second until the request's own timeout,
// counted from the first attempt, has run out. The wait between attempts wakes early and throws
// CancellationError when the thread's token is cancelled. Throws ModelBackendError.
HTTPResponse send(const HTTPRequest& request, HTTPSession& session, const Clock& clock = Clock::system());

// The reply text of a non-streaming completion. Throws ModelBackendError::invalidResponse.
std::string content(std::string_view body);

bool isLoadingResponse(int status, std::string_view body);

// Waits in short steps, throwing CancellationError as soon as the thread's token is cancelled.
void sleepCancellably(const Clock& clock, int64_t ms);

}  // namespace LocalInferenceWire
}  // namespace aimwise
