#include "AimwiseCore/models/local_inference_wire.h"

#include <algorithm>

#include "AimwiseCore/models/cancellation.h"
#include "AimwiseCore/models/chat_wire.h"
#include "AimwiseCore/models/local_inference_endpoint.h"
#include "AimwiseCore/models/model_backend_error.h"

namespace aimwise::LocalInferenceWire {

void sleepCancellably(const Clock& clock, int64_t ms) {
    for (int64_t left = ms; left > 0; left -= 20) {
        CancellationToken::checkCurrent();
        clock.sleepMs(std::min<int64_t>(20, left));
    }
    CancellationToken::checkCurrent();
}

EndpointURL chatCompletionsURL() {
    return chatCompletionsURL(LocalInferenceEndpoint::resolveOrThrow(processEnvironment()));
}

EndpointURL chatCompletionsURL(const EndpointURL& base) { return base.appendingPath("v1/chat/completions"); }

void requireLocalDestination(const EndpointURL& url) {
    if (url.isUnixSocket()) return;
    std::string scheme = url.scheme;
    std::transform(scheme.begin(), scheme.end(), scheme.begin(), [](unsigned char c) { return std::tolower(c); });
    if (scheme == "http" && url.host == "127.0.0.1" && !url.user && !url.password) return;
    throw ModelBackendError::transportError("refusing to send a local-only request to " + url.string() +
                                            ": the local model is reached only on 127.0.0.1 or its unix socket");
}

bool isLoadingResponse(int status, std::string_view body) {
    if (status != 503) return false;
    std::string text = utf8OrEmpty(body);
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text.find("loading") != std::string::npos;
}

HTTPResponse send(const HTTPRequest& request, HTTPSession& session, const Clock& clock) {
    requireLocalDestination(request.url);
    const int64_t deadlineMs = clock.monotonicMs() + static_cast<int64_t>(request.timeoutSec * 1000.0);
    while (true) {
        HTTPResponse response;
        try {
            response = session.send(request);
        } catch (const HTTPTransportFailure& failure) {
            throw ModelBackendError::transportError(failure.description(), failure.timedOut());
        }
        if (response.status >= 200 && response.status <= 299) return response;
        if (isLoadingResponse(response.status, response.body) && clock.monotonicMs() + 1000 < deadlineMs) {
            sleepCancellably(clock, 1000);
            continue;
        }
        throw ModelBackendError::httpError(response.status, utf8OrEmpty(response.body));
    }
}

std::string content(std::string_view body) {
    ChatJSON root = ChatWire::parseBounded(body);
    if (root.is_discarded() || !root.is_object())
        throw ModelBackendError::invalidResponse("llama-server response was not a JSON object");
    if (const ChatJSON* error = ChatWire::member(root, "error"); error && error->is_object())
        throw ModelBackendError::invalidResponse("llama-server error: " + ChatWire::errorObjectText(*error));
    const ChatJSON* choices = ChatWire::member(root, "choices");
    const ChatJSON* message = choices && choices->is_array() && !choices->empty()
                                  ? ChatWire::member(choices->front(), "message")
                                  : nullptr;
    if (!message || !message->is_object())
        throw ModelBackendError::invalidResponse("llama-server response had no choices[0].message");
    const ChatJSON* text = ChatWire::member(*message, "content");
    return text && text->is_string() ? text->get<std::string>() : std::string();
}

}  // namespace aimwise::LocalInferenceWire
