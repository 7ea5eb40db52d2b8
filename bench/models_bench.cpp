// The local backend's own share of a model call: building the request for a 30-message
// conversation with tools and parsing a reply with a tool call, against encoding the same body with
// the JSON library alone; and one whole round trip to a server that answers at once, over TCP and
// over a unix socket, against the HTTP exchange alone.
//
// The online route's share: building and redacting the body of a 40-message conversation (about
// 30 KB) with tools, on the first turn and on a later one, against dumping the same body with the
// JSON library alone; the cost of one
// streamed delta through the event-line splitter and the accumulator, against parsing its JSON
// alone; and how long the first delta of a stream takes from the server's send to onDelta, against
// the first bytes reaching the HTTP session.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "AimwiseCore/models/chat_wire.h"
#include "AimwiseCore/models/http_session.h"
#include "AimwiseCore/models/local_model_backend.h"
#include "AimwiseCore/models/openrouter_backend.h"
#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"
#include "bench/instant_model_server.h"

namespace {

using namespace aimwise;
using Transport = bench::InstantModelServer::Transport;

std::vector<ToolSpec> tools() {
    std::vector<ToolSpec> specs;
    for (const char* name : {"get_timeline", "set_backoff", "remember", "open_review"}) {
        JSONValue::Object properties{{"minutes", JSONValue(JSONValue::Object{{"type", JSONValue("integer")}})},
                                     {"note", JSONValue(JSONValue::Object{{"type", JSONValue("string")}})}};
        specs.push_back({name, std::string("Does ") + name + " for the coach.",
                         JSONValue(JSONValue::Object{{"type", JSONValue("object")},
                                                     {"properties", JSONValue(std::move(properties))}})});
    }
    return specs;
}

// A system prompt, then user and assistant turns where every third assistant turn calls a tool.
std::vector<ChatMessage> conversation() {
    std::vector<ChatMessage> messages{ChatMessage::system(std::string(2000, 's'))};
    for (int i = 1; messages.size() < 30; ++i) {
        messages.push_back(ChatMessage::user("Turn " + std::to_string(i) + ": I was reading the report draft again."));
        if (i % 3 == 0) {
            messages.push_back(ChatMessage::assistant(
                "", std::vector<ToolCall>{{"get_timeline", JSONValue(JSONValue::Object{{"minutes", JSONValue(30.0)}})}}));
            messages.push_back(ChatMessage::toolResult(std::string(400, 't'), "get_timeline"));
        } else {
            messages.push_back(ChatMessage::assistant("Fine; the report is what you said you would do."));
        }
    }
    messages.resize(30);
    return messages;
}

const std::string toolCallReply =
    R"({"choices":[{"index":0,"finish_reason":"tool_calls","message":{"role":"assistant","content":"",)"
    R"("tool_calls":[{"id":"call_0","type":"function","function":{"name":"set_backoff",)"
    R"("arguments":"{\"minutes\": 20, \"note\": \"deep work\"}"}}]}}],)"
    R"("usage":{"prompt_tokens":2811,"completion_tokens":24}})";

LocalModelBackend backendFor(const std::string& baseURL) {
    LocalModelConfig config{EndpointURL::parse(baseURL)->appendingPath("v1/chat/completions"), "bench-model", 10.0};
    return LocalModelBackend(config, std::make_shared<HTTPSession>(), std::nullopt, [](const std::string&) {},
                             RequestConformance::Mode::off);
}

// Baseline: the wire body of the same conversation encoded by the JSON library, and the reply parsed by it.
void BM_EncodeAndParseWithTheJSONLibraryOnly(benchmark::State& state) {
    const auto messages = conversation();
    const ChatJSON encoded = {{"messages", ChatWire::encodeMessages(messages, ChatWire::Dialect::local)},
                              {"tools", ChatWire::encodeTools(tools())}};
    for (auto _ : state) {
        benchmark::DoNotOptimize(encoded.dump());
        benchmark::DoNotOptimize(ChatJSON::parse(toolCallReply));
    }
}
BENCHMARK(BM_EncodeAndParseWithTheJSONLibraryOnly)->Unit(benchmark::kMicrosecond);

void BM_PrepareThirtyMessagesWithToolsAndParseTheReply(benchmark::State& state) {
    const auto messages = conversation();
    const auto specs = tools();
    const LocalModelBackend backend = backendFor("http://127.0.0.1:9");
    ChatOptions options;
    options.maxTokens = 450;
    for (auto _ : state) {
        benchmark::DoNotOptimize(backend.prepare(messages, specs, options, false));
        benchmark::DoNotOptimize(ChatWire::parseResponse(toolCallReply));
    }
}
BENCHMARK(BM_PrepareThirtyMessagesWithToolsAndParseTheReply)->Unit(benchmark::kMicrosecond);

// Baseline for the round trips: the same POST through the HTTP session, nothing built or parsed.
void BM_HTTPExchangeOnly(benchmark::State& state) {
    const bench::InstantModelServer server(static_cast<Transport>(state.range(0)));
    HTTPSession session;
    HTTPRequest request;
    request.method = "POST";
    request.url = EndpointURL::parse(server.baseURL())->appendingPath("v1/chat/completions");
    request.headers = {{"Content-Type", "application/json"}};
    request.body = R"({"model":"bench-model","messages":[{"role":"user","content":"Am I on task?"}]})";
    request.timeoutSec = 10.0;
    for (auto _ : state) benchmark::DoNotOptimize(session.send(request));
    state.SetLabel(state.range(0) == 0 ? "tcp" : "unix socket");
}
BENCHMARK(BM_HTTPExchangeOnly)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

void BM_ChatRoundTrip(benchmark::State& state) {
    const bench::InstantModelServer server(static_cast<Transport>(state.range(0)));
    LocalModelBackend backend = backendFor(server.baseURL());
    const std::vector<ChatMessage> messages{ChatMessage::system("Judge the activity."),
                                            ChatMessage::user("Am I on task?")};
    ChatOptions options;
    options.maxTokens = 450;
    for (auto _ : state) benchmark::DoNotOptimize(backend.chat(messages, std::nullopt, options));
    state.SetLabel(state.range(0) == 0 ? "tcp" : "unix socket");
}
BENCHMARK(BM_ChatRoundTrip)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);


// ---- the online route ----

// A system prompt, then turns that read like a working afternoon, with identifiers here and there
// and a tool call every fourth assistant turn: 40 messages, about 30 KB.
std::vector<ChatMessage> fortyMessages() {
    std::vector<ChatMessage> messages{ChatMessage::system(std::string(4000, 's'))};
    const std::string prose =
        "I went back to the quarterly report and rewrote the summary twice; the numbers from finance are still "
        "missing, so I paused and answered two emails about the offsite. Then I opened the bank site to pay the "
        "invoice, routing number 021000021, and came back to the draft. ";
    for (int i = 1; messages.size() < 40; ++i) {
        messages.push_back(ChatMessage::user("Turn " + std::to_string(i) + ": " + prose + prose + prose));
        if (i % 4 == 0) {
            messages.push_back(ChatMessage::assistant(
                "", std::vector<ToolCall>{{"remember", JSONValue(JSONValue::Object{
                                                          {"note", JSONValue("card 4111 1111 1111 1111 on file")},
                                                          {"minutes", JSONValue(25.0)}})}},
                "They mentioned a card; keep only what helps."));
            messages.push_back(ChatMessage::toolResult("saved", "remember"));
        } else {
            messages.push_back(ChatMessage::assistant("Good: the report is what you said you would do. " + prose + prose));
        }
    }
    messages.resize(40);
    return messages;
}

OpenRouterBackend onlineBackend(const std::string& endpoint) {
    OpenRouterConfig config{*EndpointURL::parse(endpoint), "deepseek/deepseek-v4-flash-0731", "sk-or-v1-bench",
                            "low", 10.0, {}, std::nullopt, true};
    return OpenRouterBackend(config, std::make_shared<HTTPSession>(), std::nullopt, nullptr, {}, {},
                             RequestConformance::Mode::off);
}

// Baseline: the same body, already built, dumped by the JSON library.
void BM_DumpFortyMessageBodyWithTheJSONLibraryOnly(benchmark::State& state) {
    const ChatJSON body = {{"model", "deepseek/deepseek-v4-flash-0731"},
                           {"messages", ChatWire::encodeMessages(fortyMessages(), ChatWire::Dialect::openRouter)},
                           {"tools", ChatWire::encodeTools(tools())}};
    for (auto _ : state) benchmark::DoNotOptimize(body.dump());
    state.SetLabel(std::to_string(body.dump().size()) + " bytes");
}
BENCHMARK(BM_DumpFortyMessageBodyWithTheJSONLibraryOnly)->Unit(benchmark::kMicrosecond);

// The first turn of a conversation: every text is scanned.
void BM_BuildAndRedactFortyMessageBody_Cold(benchmark::State& state) {
    const auto messages = fortyMessages();
    const auto specs = tools();
    const OpenRouterBackend backend = onlineBackend("https://openrouter.ai/api/v1/chat/completions");
    ChatOptions options;
    options.maxTokens = 800;
    SensitiveIdentifierRedaction::prepare();
    for (auto _ : state) {
        OutboundRedaction::clearMemo();
        const OutboundRedaction::Result redacted = OpenRouterBackend::redactOutbound(messages);
        benchmark::DoNotOptimize(backend.prepare(redacted.messages, specs, options, std::string("deepinfra"), false));
    }
}
BENCHMARK(BM_BuildAndRedactFortyMessageBody_Cold)->Unit(benchmark::kMicrosecond);

// A later turn: the conversation so far went out before, and the newest two messages are new.
void BM_BuildAndRedactFortyMessageBody_NextTurn(benchmark::State& state) {
    auto messages = fortyMessages();
    const auto specs = tools();
    const OpenRouterBackend backend = onlineBackend("https://openrouter.ai/api/v1/chat/completions");
    ChatOptions options;
    options.maxTokens = 800;
    OpenRouterBackend::redactOutbound(messages);
    const std::string assistant = messages[38].content, user = messages[39].content;
    int64_t turn = 0;
    for (auto _ : state) {
        messages[38].content = assistant + " (" + std::to_string(++turn) + ")";
        messages[39].content = user + " (" + std::to_string(turn) + ")";
        const OutboundRedaction::Result redacted = OpenRouterBackend::redactOutbound(messages);
        benchmark::DoNotOptimize(backend.prepare(redacted.messages, specs, options, std::string("deepinfra"), false));
    }
}
BENCHMARK(BM_BuildAndRedactFortyMessageBody_NextTurn)->Unit(benchmark::kMicrosecond);

const std::string deltaPayload =
    R"({"id":"gen-1","object":"chat.completion.chunk","created":1763791041,"model":"deepseek/deepseek-v4",)"
    R"("provider":"DeepInfra","choices":[{"index":0,"delta":{"content":"word "},"finish_reason":null}]})";

// Baseline: only the JSON of one delta's payload parsed.
void BM_ParseOneDeltaPayloadWithTheJSONLibraryOnly(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(ChatJSON::parse(deltaPayload));
}
BENCHMARK(BM_ParseOneDeltaPayloadWithTheJSONLibraryOnly)->Unit(benchmark::kMicrosecond);

void BM_StreamParserPerDelta(benchmark::State& state) {
    const std::string event = "data: " + deltaPayload + "\n\n";
    ChatStreamAccumulator accumulator;
    size_t shown = 0;
    ServerSentEventLines lines([&](std::string_view payload) {
        const ChatJSON value = ChatWire::parseBounded(payload);
        shown += accumulator.ingest(value).text.size();
    });
    for (auto _ : state) lines.feed(event);
    benchmark::DoNotOptimize(shown);
}
BENCHMARK(BM_StreamParserPerDelta)->Unit(benchmark::kMicrosecond);

// A server that holds a stream's first event until the client is waiting for it, notes the moment
// it sends it, then ends the stream: the time from that send to the client's onDelta is the cost of
// our read path.
class TimedStreamServer {
public:
    TimedStreamServer() {
        listenFd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(listenFd_, 4) != 0 ||
            ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            std::abort();
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~TimedStreamServer() {
        ::shutdown(listenFd_, SHUT_RDWR);
        ::close(listenFd_);
        if (connection_ >= 0) ::shutdown(connection_, SHUT_RDWR);
        thread_.join();
        if (connection_ >= 0) ::close(connection_);
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/v1/chat/completions"; }
    int64_t firstSendNs() const { return firstSendNs_.load(); }

private:
    void serve() {
        connection_ = ::accept(listenFd_, nullptr, nullptr);
        if (connection_ < 0) return;
        int on = 1;
        ::setsockopt(connection_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        std::string pending;
        char buffer[65536];
        while (true) {
            size_t headerEnd;
            while ((headerEnd = pending.find("\r\n\r\n")) == std::string::npos) {
                const ssize_t got = ::read(connection_, buffer, sizeof buffer);
                if (got <= 0) return;
                pending.append(buffer, size_t(got));
            }
            size_t contentLength = 0;
            if (const size_t at = pending.find("Content-Length: "); at != std::string::npos && at < headerEnd)
                contentLength = std::strtoul(pending.c_str() + at + 16, nullptr, 10);
            while (pending.size() < headerEnd + 4 + contentLength) {
                const ssize_t got = ::read(connection_, buffer, sizeof buffer);
                if (got <= 0) return;
                pending.append(buffer, size_t(got));
            }
            pending.erase(0, headerEnd + 4 + contentLength);
            if (!send("HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nTransfer-Encoding: chunked\r\n\r\n"))
                return;
            std::this_thread::sleep_for(std::chrono::microseconds(500));  // the client now waits in recv
            const std::string event = "data: " + deltaPayload + "\n\n";
            firstSendNs_ = nowNs();
            if (!send(chunk(event)) || !send(chunk("data: [DONE]\n\n") + "0\r\n\r\n")) return;
        }
    }
    static std::string chunk(const std::string& bytes) {
        char size[16];
        std::snprintf(size, sizeof size, "%zx\r\n", bytes.size());
        return size + bytes + "\r\n";
    }
    bool send(const std::string& bytes) const {
        return ::write(connection_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    }
    static int64_t nowNs() {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

    int listenFd_ = -1;
    int connection_ = -1;
    int port_ = 0;
    std::atomic<int64_t> firstSendNs_{0};
    std::thread thread_;
};

int64_t steadyNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Baseline: the first body bytes handed to the HTTP session's stream callback.
void BM_FirstBytesFromSendToTheHTTPSessionOnly(benchmark::State& state) {
    TimedStreamServer server;
    HTTPSession session;
    HTTPRequest request;
    request.method = "POST";
    request.url = *EndpointURL::parse(server.url());
    request.headers = {{"Content-Type", "application/json"}};
    request.body = R"({"stream":true})";
    for (auto _ : state) {
        int64_t firstNs = 0;
        HTTPSession::StreamHandler handler;
        handler.onBytes = [&](std::string_view) {
            if (!firstNs) firstNs = steadyNs();
        };
        session.stream(request, handler);
        state.SetIterationTime(double(firstNs - server.firstSendNs()) / 1e9);
    }
}
BENCHMARK(BM_FirstBytesFromSendToTheHTTPSessionOnly)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_FirstDeltaFromSendToOnDelta(benchmark::State& state) {
    TimedStreamServer server;
    OpenRouterBackend backend = onlineBackend(server.url());
    const std::vector<ChatMessage> messages{ChatMessage::system("You coach."), ChatMessage::user("Am I on task?")};
    ChatOptions options;
    options.maxTokens = 200;
    for (auto _ : state) {
        int64_t firstNs = 0;
        backend.chatStream(messages, std::nullopt, options, [&](const ModelStreamDelta&) {
            if (!firstNs) firstNs = steadyNs();
        });
        state.SetIterationTime(double(firstNs - server.firstSendNs()) / 1e9);
    }
}
BENCHMARK(BM_FirstDeltaFromSendToOnDelta)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
