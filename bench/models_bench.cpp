// The local backend's own share of a model call: building the request for a 30-message
// conversation with tools and parsing a reply with a tool call, against encoding the same body with
// the JSON library alone; and one whole round trip to a server that answers at once, over TCP and
// over a unix socket, against the HTTP exchange alone.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "AimwiseCore/models/chat_wire.h"
#include "AimwiseCore/models/http_session.h"
#include "AimwiseCore/models/local_model_backend.h"
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

}  // namespace

BENCHMARK_MAIN();
