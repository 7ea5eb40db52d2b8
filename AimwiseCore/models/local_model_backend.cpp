#include "AimwiseCore/models/local_model_backend.h"

#include <chrono>

#include "CaptureShared/common/clock.h"
#include "AimwiseCore/models/cancellation.h"
#include "AimwiseCore/models/chat_wire.h"
#include "AimwiseCore/models/local_context_fit.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "AimwiseCore/models/request_dump.h"
#include "AimwiseCore/models/server_prompt.h"

namespace aimwise {

namespace {

constexpr size_t errorBodyLimit = 0x2000;

// Ends the read of an error body once enough of it is in.
struct ErrorBodyDrained {};

void replaceProviderPrefix(ModelBackendError& error) {
    const auto* invalid = error.asInvalidResponse();
    if (!invalid) return;
    std::string text = invalid->reason;
    static constexpr std::string_view from = "OpenRouter error:";
    for (size_t at; (at = text.find(from)) != std::string::npos;) text.replace(at, from.size(), "llama-server error:");
    error = ModelBackendError::invalidResponse(std::move(text));
}

}  // namespace

LocalModelBackend::LocalModelBackend(LocalModelConfig config, std::shared_ptr<HTTPSession> session,
                                     std::optional<std::filesystem::path> dumpDirectory, Log log,
                                     RequestConformance::Mode conformance)
    : config_(std::move(config)),
      session_(session ? std::move(session) : std::make_shared<HTTPSession>()),
      dumpDirectory_(std::move(dumpDirectory)),
      log_(std::move(log)),
      conformance_(conformance) {}

void LocalModelBackend::emit(const std::string& line) const {
    if (log_) log_(line);
}

ChatJSON LocalModelBackend::buildRequestBody(const std::vector<ChatMessage>& messages,
                                             const std::optional<std::vector<ToolSpec>>& tools,
                                             const ChatOptions& options, const LocalModelConfig& config) {
    ChatJSON body = ChatJSON::object();
    body["model"] = config.model;
    body["messages"] = ChatWire::encodeMessages(messages, ChatWire::Dialect::local);
    body["stream"] = false;
    body["max_tokens"] = options.maxTokens;
    body["chat_template_kwargs"] = ChatJSON::object({{"enable_thinking", options.think}});
    if (options.seed) body["seed"] = *options.seed;
    if (options.logprobs) {
        body["logprobs"] = true;
        if (options.topLogprobs) body["top_logprobs"] = *options.topLogprobs;
    }
    if (tools && !tools->empty()) body["tools"] = ChatWire::encodeTools(*tools);
    return body;
}

std::string LocalModelBackend::prepare(const std::vector<ChatMessage>& messages,
                                       const std::optional<std::vector<ToolSpec>>& tools, const ChatOptions& options,
                                       bool stream) const {
    ServerPrompt::refuseIfPlaceholders(messages, backendName);
    if (conformance_ == RequestConformance::Mode::enforced) {
        RequestConformance::validate(messages, tools);
        // The local server enforces a requested schema itself.
        RequestConformance::validateResponseFormat(options.responseSchemaJSON.has_value(),
                                                   RequestConformance::SchemaEnforcement::enforced);
    }
    ChatJSON body = buildRequestBody(messages, tools, options, config_);
    if (stream) body["stream"] = true;
    std::string data = ChatWire::encodeBody(body, options.responseSchemaJSON);
    if (dumpDirectory_)
        RequestDump::write(backendName, "POST", config_.endpoint.string(), {{"Content-Type", "application/json"}},
                           data, *dumpDirectory_, wallClockMs());
    return data;
}

ChatResponse LocalModelBackend::localOnly(ChatResponse response) {
    response.usage.reset();
    std::optional<std::string> finishReason = response.provenance ? response.provenance->finishReason : std::nullopt;
    response.provenance = finishReason ? std::optional(ChatProvenance{{}, {}, {}, finishReason}) : std::nullopt;
    response.reasoningDetailsJSON.reset();
    return response;
}

HTTPRequest LocalModelBackend::chatRequest(std::string body, bool stream) const {
    HTTPRequest request;
    request.method = "POST";
    request.url = config_.endpoint;
    request.headers = {{"Content-Type", "application/json"}};
    if (stream) request.headers.emplace_back("Accept", "text/event-stream");
    request.body = std::move(body);
    request.timeoutSec = config_.timeoutSec;
    return request;
}

std::optional<int64_t> LocalModelBackend::cachedContextSize() const {
    std::lock_guard lock(contextMutex_);
    return contextCache_;
}

std::optional<int64_t> LocalModelBackend::contextSize(std::optional<int64_t> reported) {
    if (reported) {
        std::lock_guard lock(contextMutex_);
        contextCache_ = reported;
        return reported;
    }
    if (auto cached = cachedContextSize()) return cached;
    // The endpoint is ".../v1/chat/completions"; /props sits at the server's root.
    EndpointURL props = config_.endpoint;
    props.path = "/props";
    props.query.reset();
    HTTPRequest request;
    request.url = props;
    request.timeoutSec = 5.0;
    try {
        HTTPResponse response = LocalInferenceWire::send(request, *session_, *clock_);
        ChatJSON body = ChatJSON::parse(response.body, nullptr, false);
        const ChatJSON* settings = ChatWire::member(body, "default_generation_settings");
        const ChatJSON* nCtx = settings ? ChatWire::member(*settings, "n_ctx") : nullptr;
        if (!nCtx || !nCtx->is_number_integer()) return std::nullopt;
        std::lock_guard lock(contextMutex_);
        contextCache_ = nCtx->get<int64_t>();
        return contextCache_;
    } catch (const ModelBackendError&) {
        return std::nullopt;
    }
}

ChatResponse LocalModelBackend::withContextFit(const std::vector<ChatMessage>& messages, const ChatOptions& options,
                                               const Attempt& attempt) {
    std::vector<ChatMessage> current = messages;
    for (int retry = 0;; ++retry) {
        try {
            return attempt(current);
        } catch (const ModelBackendError& error) {
            std::optional<LocalContextFit::Overflow> overflow = LocalContextFit::overflow(error);
            if (!overflow) throw;
            if (retry == LocalContextFit::maxRetries) {
                emit("local context fit: still over the context after " + std::to_string(retry) +
                     " trims; giving up");
                throw;
            }
            std::optional<int64_t> context = contextSize(overflow->contextTokens);
            auto trimmed = LocalContextFit::dropOldestTurns(current, *overflow, context, options.maxTokens);
            if (!trimmed) {
                emit("local context fit: the request exceeds the context and no older turn is left to drop");
                throw;
            }
            std::string counts = overflow->promptTokens && context
                                     ? " (" + std::to_string(*overflow->promptTokens) + " prompt tokens, context " +
                                           std::to_string(*context) + ")"
                                     : "";
            emit("local context fit: request exceeded the context" + counts + "; dropped " +
                 std::to_string(trimmed->droppedMessages) + " oldest messages and retrying (" +
                 std::to_string(retry + 1) + " of " + std::to_string(LocalContextFit::maxRetries) + ")");
            current = std::move(trimmed->messages);
        }
    }
}

ChatResponse LocalModelBackend::chat(const std::vector<ChatMessage>& messages,
                                     const std::optional<std::vector<ToolSpec>>& tools, const ChatOptions& options) {
    return withContextFit(messages, options, [&](const std::vector<ChatMessage>& fitted) {
        return chatOnce(fitted, tools, options);
    });
}

ChatResponse LocalModelBackend::chatStream(const std::vector<ChatMessage>& messages,
                                           const std::optional<std::vector<ToolSpec>>& tools,
                                           const ChatOptions& options, const StreamDeltaHandler& onDelta) {
    return withContextFit(messages, options, [&](const std::vector<ChatMessage>& fitted) {
        return streamOnce(fitted, tools, options, onDelta);
    });
}

ChatResponse LocalModelBackend::chatOnce(const std::vector<ChatMessage>& messages,
                                         const std::optional<std::vector<ToolSpec>>& tools,
                                         const ChatOptions& options) {
    HTTPResponse response = LocalInferenceWire::send(chatRequest(prepare(messages, tools, options, false), false),
                                                     *session_, *clock_);
    try {
        return localOnly(ChatWire::parseResponse(response.body));
    } catch (ModelBackendError& error) {
        replaceProviderPrefix(error);
        throw error;
    }
}

ChatResponse LocalModelBackend::streamOnce(const std::vector<ChatMessage>& messages,
                                           const std::optional<std::vector<ToolSpec>>& tools,
                                           const ChatOptions& options, const StreamDeltaHandler& onDelta) {
    const HTTPRequest request = chatRequest(prepare(messages, tools, options, true), true);
    LocalInferenceWire::requireLocalDestination(request.url);
    const int64_t deadlineMs = clock_->monotonicMs() + static_cast<int64_t>(request.timeoutSec * 1000.0);
    while (true) {
        ChatStreamAccumulator accumulator;
        int status = 0;
        std::string errorBody;
        ServerSentEventLines lines([&](std::string_view payload) {
            ChatJSON value = ChatWire::parseBounded(payload);
            if (!value.is_object()) return;
            if (const ChatJSON* error = ChatWire::member(value, "error"); error && error->is_object())
                throw ModelBackendError::invalidResponse("llama-server error: " + ChatWire::errorObjectText(*error));
            ModelStreamDelta delta = accumulator.ingest(value);
            if ((!delta.text.empty() || !delta.thinking.empty()) && onDelta) onDelta(delta);
        });
        HTTPSession::StreamHandler handler;
        handler.onHead = [&](const HTTPResponse& head) { status = head.status; };
        handler.onBytes = [&](std::string_view bytes) {
            if (status >= 200 && status <= 299) {
                lines.feed(bytes);
                return;
            }
            errorBody.append(bytes.substr(0, errorBodyLimit - errorBody.size()));
            if (errorBody.size() >= errorBodyLimit) throw ErrorBodyDrained{};
        };
        try {
            session_->stream(request, handler);
            if (status >= 200 && status <= 299) lines.finish();
        } catch (const ErrorBodyDrained&) {
        } catch (const ModelBackendError&) {
            throw;
        } catch (const CancellationError&) {
            throw;
        } catch (const HTTPTransportFailure& failure) {
            throw ModelBackendError::transportError(failure.description(), failure.timedOut());
        } catch (const std::exception& error) {
            throw ModelBackendError::transportError(error.what());
        }
        if (status >= 200 && status <= 299) return localOnly(accumulator.finish());
        if (LocalInferenceWire::isLoadingResponse(status, errorBody) && clock_->monotonicMs() + 1000 < deadlineMs) {
            LocalInferenceWire::sleepCancellably(*clock_, 1000);
            continue;
        }
        throw ModelBackendError::httpError(status, utf8OrEmpty(errorBody));
    }
}

}  // namespace aimwise
