#include "AimwiseCore/models/openrouter_backend.h"

#include "AimwiseCore/models/chat_wire.h"
#include "AimwiseCore/models/request_dump.h"
#include "AimwiseCore/models/server_prompt.h"
#include "AimwiseCore/models/stream_attempts.h"
#include "AimwiseCore/privacy/secret_redaction.h"
#include "CaptureShared/common/clock.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/common/utf8.h"

namespace aimwise {

namespace {

// Ends the read of an error body once enough of it is in.
struct ErrorBodyDrained {};

bool isSuccess(int status) { return status >= 200 && status <= 299; }

std::optional<std::string> headerValue(const HTTPHeaders& headers, std::string_view name) {
    HTTPResponse response;
    response.headers = headers;
    if (const std::string* value = response.header(name)) return *value;
    return std::nullopt;
}

// A drained body may end inside a character; a whole character less still reads as UTF-8.
std::string utf8Text(std::string_view bytes) {
    for (size_t cut = 0; cut < 4 && cut <= bytes.size(); ++cut)
        if (utf8::isValid(bytes.substr(0, bytes.size() - cut))) return std::string(bytes.substr(0, bytes.size() - cut));
    return {};
}

}  // namespace

OpenRouterBackend::OpenRouterBackend(OpenRouterConfig config, std::shared_ptr<HTTPSession> session,
                                     std::optional<std::filesystem::path> dumpDirectory,
                                     std::shared_ptr<StickyProviderSelector> providerSelector, Log log,
                                     OpenRouterWireHooks hooks, RequestConformance::Mode conformance)
    : config_(std::move(config)),
      session_(session ? std::move(session) : std::make_shared<HTTPSession>()),
      dumpDirectory_(std::move(dumpDirectory)),
      providerSelector_(providerSelector ? std::move(providerSelector) : std::make_shared<StickyProviderSelector>()),
      log_(std::move(log)),
      hooks_(std::move(hooks)),
      conformance_(conformance) {}

void OpenRouterBackend::emit(const std::string& line) const {
    if (log_) log_(line);
}

ChatResponse OpenRouterBackend::parseResponse(std::string_view body) { return ChatWire::parseResponse(body); }

std::string OpenRouterBackend::drainErrorBody(std::string_view bytes, size_t limit) {
    return std::string(bytes.substr(0, limit));
}

OutboundRedaction::Result OpenRouterBackend::redactOutbound(const std::vector<ChatMessage>& messages) {
    return OutboundRedaction::redactOutbound(messages);
}

std::vector<ChatMessage> OpenRouterBackend::redactingOutbound(const std::vector<ChatMessage>& messages) const {
    OutboundRedaction::Result result = redactOutbound(messages);
    if (auto line = OutboundRedaction::logLine(result, config_.model)) emit(*line);
    return std::move(result.messages);
}

HTTPHeaders OpenRouterBackend::requestHeaders(bool stream) const {
    HTTPHeaders headers{{"Content-Type", "application/json"}, {"Authorization", "Bearer " + config_.apiKey}};
    for (const auto& header : hooks_.extraHeaders) headers.push_back(header);
    if (stream) headers.emplace_back("Accept", "text/event-stream");
    return headers;
}

std::string OpenRouterBackend::prepare(const std::vector<ChatMessage>& messages,
                                       const std::optional<std::vector<ToolSpec>>& tools, const ChatOptions& options,
                                       const std::optional<std::string>& pinned, bool stream) const {
    const bool validating = conformance_ == RequestConformance::Mode::enforced;
    if (validating) {
        RequestConformance::validate(messages, tools);
        // require_parameters makes the router skip a provider that would ignore the schema.
        RequestConformance::validateResponseFormat(options.responseSchemaJSON.has_value(),
                                                   RequestConformance::SchemaEnforcement::enforced);
    }
    if (!hooks_.allowsServerPromptPlaceholders) ServerPrompt::refuseIfPlaceholders(messages, backendName);
    ChatJSON body = OpenRouterRequest::buildRequestBody(messages, tools, options, config_, pinned);
    if (validating) RequestConformance::validateEncodedOpenAIShape(body["messages"]);
    if (stream) {
        body["stream"] = true;
        body["stream_options"] = ChatJSON{{"include_usage", true}};
    }
    std::string data = ChatWire::encodeBody(body, options.responseSchemaJSON);
    if (dumpDirectory_)
        RequestDump::write(backendName, "POST", config_.endpoint.string(), requestHeaders(stream), data,
                           *dumpDirectory_, wallClockMs());
    return data;
}

void OpenRouterBackend::raiseProviderError(const ChatJSON& error, const std::optional<std::string>& pinned) const {
    ModelBackendError failure =
        ModelBackendError::invalidResponse(std::string(ChatWire::providerErrorPrefix) + ChatWire::errorObjectText(error));
    if (pinned) {
        const ChatJSON* message = ChatWire::member(error, "message");
        const std::string detail = message && message->is_string() ? message->get<std::string>() : std::string();
        if (auto reason = OpenRouterRequest::providerFailureReason(OpenRouterRequest::errorCode(error), detail))
            throw ProviderAttributedFailure(std::move(failure), *pinned, *reason);
    }
    throw failure;
}

void OpenRouterBackend::raiseHTTPFailure(int status, const HTTPHeaders& headers, const std::string& drained,
                                         const std::optional<std::string>& pinned) const {
    const std::string body = SecretRedaction::redact(utf8Text(drained));
    if (hooks_.decodeRouteDirective) {
        const std::optional<std::string> route = headerValue(headers, "X-Merl-Route");
        if (std::exception_ptr directive = hooks_.decodeRouteDirective(route, body)) std::rethrow_exception(directive);
        if (route)
            throw ModelBackendError::invalidResponse("X-Merl-Route: " + *route + " is not a route this build knows");
    }
    if (hooks_.decodeServiceError)
        if (std::exception_ptr error = hooks_.decodeServiceError(status, headerValue(headers, "X-Merl-Error"), body))
            std::rethrow_exception(error);
    ModelBackendError failure = ModelBackendError::httpError(status, body);
    if (pinned)
        if (auto reason = OpenRouterRequest::providerFailureReason(status, body))
            throw ProviderAttributedFailure(std::move(failure), *pinned, *reason);
    throw failure;
}

ChatResponse OpenRouterBackend::exchange(const std::vector<ChatMessage>& messages,
                                         const std::optional<std::vector<ToolSpec>>& tools,
                                         const ChatOptions& options, const std::optional<std::string>& pinned,
                                         const StreamDeltaHandler* onDelta) {
    const bool stream = onDelta != nullptr;
    HTTPRequest request;
    request.method = "POST";
    request.url = config_.endpoint;
    request.headers = requestHeaders(stream);
    request.body = prepare(messages, tools, options, pinned, stream);
    request.timeoutSec = config_.timeoutSec;

    int status = 0;
    bool eventStream = stream;
    HTTPHeaders headers;
    std::string collected, drained;
    ChatStreamAccumulator accumulator;
    ServerSentEventLines lines([&](std::string_view payload) {
        const ChatJSON value = ChatWire::parseBounded(payload);
        if (!value.is_object()) return;
        if (const ChatJSON* error = ChatWire::member(value, "error"); error && error->is_object())
            raiseProviderError(*error, pinned);
        ModelStreamDelta delta = accumulator.ingest(value);
        if ((!delta.text.empty() || !delta.thinking.empty()) && *onDelta) (*onDelta)(delta);
    });
    HTTPSession::StreamHandler handler;
    handler.onHead = [&](const HTTPResponse& head) {
        status = head.status;
        headers = head.headers;
        // A router that answers a stream request with one JSON body (an error, say) is read as such.
        const std::optional<std::string> type = headerValue(headers, "Content-Type");
        if (type && type->starts_with("application/json")) eventStream = false;
    };
    handler.onBytes = [&](std::string_view bytes) {
        if (!isSuccess(status)) {
            drained += drainErrorBody(bytes, errorBodyLimit - drained.size());
            if (drained.size() >= errorBodyLimit) throw ErrorBodyDrained{};
        } else if (eventStream) {
            lines.feed(bytes);
        } else if (collected.size() + bytes.size() > HTTPSession::maxCollectedBodyBytes) {
            throw ModelBackendError::transportError("the reply was larger than " +
                                                    std::to_string(HTTPSession::maxCollectedBodyBytes) + " bytes");
        } else {
            collected.append(bytes);
        }
    };
    try {
        session_->stream(request, handler);
        if (isSuccess(status) && eventStream) lines.finish();
    } catch (const ErrorBodyDrained&) {
    } catch (const HTTPTransportFailure& failure) {
        throw ModelBackendError::transportError(failure.description(), failure.timedOut());
    }
    if (!isSuccess(status)) raiseHTTPFailure(status, headers, drained, pinned);
    if (eventStream) return accumulator.finish();
    try {
        ChatResponse response = ChatWire::parseResponse(collected);
        if (stream && (!response.text.empty() || !response.thinking.empty()) && *onDelta)
            (*onDelta)(ModelStreamDelta{response.text, response.thinking, false, false});
        return response;
    } catch (const ModelBackendError&) {
        const ChatJSON root = ChatWire::parseBounded(collected);
        if (const ChatJSON* error = ChatWire::member(root, "error"); error && error->is_object())
            raiseProviderError(*error, pinned);
        throw;
    }
}

std::string OpenRouterBackend::scoreNote(const std::string& provider) const {
    const std::string note = providerSelector_->scoreNote(provider);
    return note.empty() ? std::string() : " [" + note + "]";
}

ChatResponse OpenRouterBackend::withStickyProvider(const ChatOptions& options, const Attempt& attempt) {
    const std::vector<std::string> pool = OpenRouterRequest::stickyPool(options, config_);
    if (pool.empty()) return attempt(std::nullopt);
    const StickyProviderSelector::Choice choice = providerSelector_->provider(pool, config_.model);
    if (choice.isNew)
        emit("openrouter provider: sending to " + choice.provider + " (pool " + join(pool, " < ") + ")" +
             scoreNote(choice.provider) + "; staying there until it fails or a re-evaluation moves it");
    try {
        return attempt(choice.provider);
    } catch (const ProviderAttributedFailure& first) {
        const std::optional<std::string> next = providerSelector_->rotate(first.provider(), pool, config_.model);
        if (!next) {
            emit("openrouter provider: " + first.provider() + " failed with " + first.reason() +
                 " and there is no other provider in the pool to move to -- surfacing the error");
            throw first.underlying();
        }
        emit("OPENROUTER PROVIDER SWITCH: " + first.provider() + " -> " + *next + " (" + first.reason() + " from " +
             first.provider() + "); retrying this call on " + *next + " and staying there" + scoreNote(*next) +
             " -- " + first.provider() + "'s warm prompt cache is abandoned");
        try {
            return attempt(*next);
        } catch (const ProviderAttributedFailure& second) {
            const std::string after =
                providerSelector_->rotate(second.provider(), pool, config_.model).value_or(second.provider());
            emit("OPENROUTER PROVIDER SWITCH: " + second.provider() + " -> " + after + " (" + second.reason() +
                 " from " + second.provider() + " on the retry); not retrying again -- this call fails, the next one "
                 "starts on " + after);
            throw second.underlying();
        }
    }
}

ChatResponse OpenRouterBackend::chat(const std::vector<ChatMessage>& messages,
                                     const std::optional<std::vector<ToolSpec>>& tools, const ChatOptions& options) {
    const std::vector<ChatMessage> outbound = redactingOutbound(messages);
    OpenRouterRequest::validateSchemaBearingRouting(options, config_);
    return withStickyProvider(options, [&](const std::optional<std::string>& pinned) {
        return exchange(outbound, tools, options, pinned, nullptr);
    });
}

ChatResponse OpenRouterBackend::chatStream(const std::vector<ChatMessage>& messages,
                                           const std::optional<std::vector<ToolSpec>>& tools,
                                           const ChatOptions& options, const StreamDeltaHandler& onDelta) {
    const std::vector<ChatMessage> outbound = redactingOutbound(messages);
    OpenRouterRequest::validateSchemaBearingRouting(options, config_);
    StreamAttempts attempts(onDelta);
    return withStickyProvider(options, [&](const std::optional<std::string>& pinned) {
        attempts.startAttempt();
        const StreamDeltaHandler handler = attempts.handler();
        return exchange(outbound, tools, options, pinned, &handler);
    });
}

}  // namespace aimwise
