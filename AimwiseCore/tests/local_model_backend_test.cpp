#include "AimwiseCore/models/local_model_backend.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "AimwiseCore/models/cancellation.h"
#include "AimwiseCore/models/local_context_fit.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "AimwiseCore/models/request_conformance.h"
#include "tests/support/fake_clock.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::ScriptedModelServer;
using Reply = ScriptedModelServer::Reply;
using json = nlohmann::ordered_json;

std::string transportName(const ::testing::TestParamInfo<ScriptedModelServer::Transport>& info) {
    return info.param == ScriptedModelServer::Transport::tcp ? "tcp" : "unixSocket";
}

class LocalModelBackendTest : public ::testing::TestWithParam<ScriptedModelServer::Transport> {
protected:
    LocalModelBackendTest() : server(GetParam()) {}

    std::unique_ptr<LocalModelBackend> backend(double timeoutSec = 10.0,
                                               RequestConformance::Mode mode = RequestConformance::Mode::off,
                                               std::optional<std::filesystem::path> dumps = std::nullopt) {
        auto made = std::make_unique<LocalModelBackend>(LocalModelConfig{server.chatURL(), "gemma-test", timeoutSec},
                                                        session, dumps,
                                                        [this](const std::string& line) { log.push_back(line); }, mode);
        made->setClockForTesting(fakeClock);
        return made;
    }

    ModelBackendError chatError(LocalModelBackend& model, const std::vector<ChatMessage>& messages) {
        try {
            model.chat(messages, std::nullopt, options);
        } catch (const ModelBackendError& error) {
            return error;
        }
        ADD_FAILURE() << "chat succeeded";
        return ModelBackendError::invalidResponse("none");
    }

    ModelBackendError streamError(LocalModelBackend& model, std::vector<ModelStreamDelta>* deltas = nullptr) {
        try {
            model.chatStream(conversation, std::nullopt, options, [&](const ModelStreamDelta& delta) {
                if (deltas) deltas->push_back(delta);
            });
        } catch (const ModelBackendError& error) {
            return error;
        }
        ADD_FAILURE() << "chatStream succeeded";
        return ModelBackendError::invalidResponse("none");
    }

    ScriptedModelServer server;
    std::shared_ptr<HTTPSession> session = std::make_shared<HTTPSession>();
    testing::FakeClock fakeClock;
    std::vector<std::string> log;
    ChatOptions options = [] {
        ChatOptions made;
        made.maxTokens = 300;
        return made;
    }();
    std::vector<ChatMessage> conversation{ChatMessage::system("You judge focus."), ChatMessage::user("am I on task?")};
};

// ---- the request on the wire and the reply as the caller sees it ----

TEST_P(LocalModelBackendTest, SendsTheLocalRequestShapeAndStripsWhatALocalReplyMustNotClaim) {
    options.seed = 7;
    options.logprobs = true;
    options.topLogprobs = 2;
    std::vector<ToolSpec> tools{{"note", "Write a note", JSONValue::Object{{"type", "object"},
                                                                           {"properties", JSONValue::Object{}}}}};
    ChatResponse response = backend()->chat(conversation, tools, options);

    EXPECT_EQ(response.text, "echo: am I on task?");
    EXPECT_FALSE(response.truncated);
    EXPECT_FALSE(response.usage);  // the server sent usage; local calls are not counted
    ASSERT_TRUE(response.provenance);
    EXPECT_EQ(*response.provenance, (ChatProvenance{{}, {}, {}, "stop"}));

    auto requests = server.requests("/v1/chat/completions");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    ASSERT_TRUE(requests[0].header("Content-Type"));
    EXPECT_EQ(*requests[0].header("Content-Type"), "application/json");
    json body = requests[0].json();
    std::vector<std::string> keys;
    for (auto it = body.begin(); it != body.end(); ++it) keys.push_back(it.key());
    EXPECT_EQ(keys, (std::vector<std::string>{"model", "messages", "stream", "max_tokens", "chat_template_kwargs",
                                              "seed", "logprobs", "top_logprobs", "tools"}));
    EXPECT_EQ(body["model"], "gemma-test");
    EXPECT_EQ(body["stream"], false);
    EXPECT_EQ(body["max_tokens"], 300);
    EXPECT_EQ(body["chat_template_kwargs"].dump(), R"({"enable_thinking":false})");
    EXPECT_EQ(body["messages"][1].dump(), R"({"role":"user","content":"am I on task?"})");
    EXPECT_EQ(body["tools"][0]["function"]["name"], "note");
}

TEST_P(LocalModelBackendTest, LeavesOutOptionalKeysThatWereNotAskedFor) {
    backend()->chat(conversation, std::vector<ToolSpec>{}, options);
    json body = server.requests("/v1/chat/completions").at(0).json();
    EXPECT_FALSE(body.contains("seed"));
    EXPECT_FALSE(body.contains("logprobs"));
    EXPECT_FALSE(body.contains("top_logprobs"));
    EXPECT_FALSE(body.contains("tools"));
    EXPECT_FALSE(body.contains("response_format"));
}

TEST_P(LocalModelBackendTest, LengthStopIsTruncatedAndKeepsOnlyTheFinishReason) {
    server.enqueue("/v1/chat/completions", Reply::json(200, ScriptedModelServer::completionBody("half", "length")));
    ChatResponse response = backend()->chat(conversation, std::nullopt, options);
    EXPECT_TRUE(response.truncated);
    EXPECT_EQ(response.provenance->finishReason, "length");
    EXPECT_FALSE(response.provenance->generationID);
    EXPECT_FALSE(response.usage);
}

TEST_P(LocalModelBackendTest, SchemaReachesTheServerInItsOwnKeyOrder) {
    options.responseSchemaJSON = R"({"type":"object","properties":{"zeta":{"type":"string"},"alpha":{"type":"number"}}})";
    backend()->chat(conversation, std::nullopt, options);
    std::string raw = server.requests("/v1/chat/completions").at(0).body;
    EXPECT_TRUE(raw.starts_with(R"({"response_format":{"type":"json_schema","json_schema":{"name":"response","strict":true,"schema":{"type":"object","properties":{"zeta":{"type":"string"},"alpha":{"type":"number"}}}}},"model":)"))
        << raw;
    EXPECT_TRUE(json::parse(raw).is_object());
}

TEST_P(LocalModelBackendTest, ToolCallsAndReasoningComeBackParsed) {
    json calls = json::array({{{"id", "x"}, {"type", "function"},
                               {"function", {{"name", "note"}, {"arguments", R"({"text":"hi"})"}}}}});
    server.enqueue("/v1/chat/completions",
                   Reply::json(200, ScriptedModelServer::completionBody("", "tool_calls", "thought", calls)));
    ChatResponse response = backend()->chat(conversation, std::nullopt, options);
    ASSERT_EQ(response.toolCalls.size(), 1u);
    EXPECT_EQ(response.toolCalls[0].name, "note");
    EXPECT_EQ(response.toolCalls[0].arguments, JSONValue(JSONValue::Object{{"text", "hi"}}));
    EXPECT_EQ(response.thinking, "thought");
    EXPECT_EQ(response.text, "");
}

// ---- the loading wait ----

TEST_P(LocalModelBackendTest, WaitsOnceASecondWhileTheModelLoads) {
    server.setLoadingRequests(2);
    ChatResponse response = backend(10.0)->chat(conversation, std::nullopt, options);
    EXPECT_EQ(response.text, "echo: am I on task?");
    EXPECT_EQ(server.requests("/v1/chat/completions").size(), 3u);
    EXPECT_EQ(fakeClock.totalSleptMs(), 2000);
}

TEST_P(LocalModelBackendTest, LoadingPastTheDeadlineIsTheServersError) {
    server.setLoadingRequests(1000);
    auto model = backend(2.5);
    ModelBackendError error = chatError(*model, conversation);
    ASSERT_TRUE(error.asHTTPError());
    EXPECT_EQ(error.asHTTPError()->status, 503);
    EXPECT_NE(error.asHTTPError()->body.find("Loading model"), std::string::npos);
    // 0 s and 1 s still leave a second before 2.5 s; 2 s does not.
    EXPECT_EQ(server.requests().size(), 3u);
}

TEST_P(LocalModelBackendTest, AnotherServiceUnavailableFailsAtOnce) {
    server.enqueue("/v1/chat/completions", Reply::json(503, R"({"error":{"message":"busy"}})"));
    auto model = backend();
    ModelBackendError error = chatError(*model, conversation);
    ASSERT_TRUE(error.asHTTPError());
    EXPECT_EQ(error.asHTTPError()->status, 503);
    EXPECT_TRUE(error.isReachabilityFailure());
    EXPECT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(fakeClock.totalSleptMs(), 0);
}

TEST_P(LocalModelBackendTest, StreamingAlsoWaitsForTheModelToLoad) {
    server.setLoadingRequests(1);
    std::string seen;
    ChatResponse response = backend()->chatStream(conversation, std::nullopt, options,
                                                  [&](const ModelStreamDelta& delta) { seen += delta.text; });
    EXPECT_EQ(response.text, "echo: am I on task?");
    EXPECT_EQ(seen, response.text);
    EXPECT_EQ(fakeClock.totalSleptMs(), 1000);
}

// ---- replies that are not answers ----

TEST_P(LocalModelBackendTest, ErrorObjectInA200IsAFailureNamedForTheLocalServer) {
    server.enqueue("/v1/chat/completions", Reply::json(200, R"({"error":{"code":500,"message":"boom"}})"));
    auto model = backend();
    ModelBackendError error = chatError(*model, conversation);
    EXPECT_EQ(error, ModelBackendError::invalidResponse("llama-server error: boom"));
    EXPECT_FALSE(error.isReachabilityFailure());
}

TEST_P(LocalModelBackendTest, GarbageBodiesAreInvalidResponses) {
    server.enqueue("/v1/chat/completions", Reply::json(200, "[1,2]"));
    server.enqueue("/v1/chat/completions", Reply::json(200, "<html>oops"));
    server.enqueue("/v1/chat/completions", Reply::json(200, R"({"choices":[]})"));
    auto model = backend();
    EXPECT_EQ(chatError(*model, conversation), ModelBackendError::invalidResponse("response was not a JSON object"));
    ModelBackendError parse = chatError(*model, conversation);
    ASSERT_TRUE(parse.asInvalidResponse());
    EXPECT_NE(parse.description().find("parse error"), std::string::npos);
    EXPECT_EQ(chatError(*model, conversation), ModelBackendError::invalidResponse("response had no choices"));
}

TEST_P(LocalModelBackendTest, SlowSilentCutAndEmptyRepliesAreTransportErrorsWithinTheTimeout) {
    server.enqueue("/v1/chat/completions", [] {
        Reply slow = Reply::json(200, ScriptedModelServer::completionBody("late"));
        slow.delayMs = 300;
        return slow;
    }());
    server.enqueue("/v1/chat/completions", [] {
        Reply hang;
        hang.ending = Reply::Ending::hang;
        return hang;
    }());
    server.enqueue("/v1/chat/completions", [] {
        Reply cut = Reply::json(200, ScriptedModelServer::completionBody("cut in half"));
        cut.ending = Reply::Ending::cut;
        return cut;
    }());
    server.enqueue("/v1/chat/completions", [] {
        Reply none;
        none.ending = Reply::Ending::noReply;
        return none;
    }());
    auto model = backend(0.1);
    for (const char* what : {"slow", "hang"}) {
        auto start = std::chrono::steady_clock::now();
        ModelBackendError error = chatError(*model, conversation);
        EXPECT_TRUE(error.asTransportError()) << what << ": " << error.description();
        EXPECT_NE(error.description().find("timed out"), std::string::npos) << what;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3)) << what;
    }
    auto patient = backend(10.0);
    for (const char* what : {"cut", "no reply"}) {
        ModelBackendError error = chatError(*patient, conversation);
        EXPECT_TRUE(error.asTransportError()) << what << ": " << error.description();
        EXPECT_TRUE(error.isReachabilityFailure());
    }
}

TEST_P(LocalModelBackendTest, NoServerIsAReachabilityFailure) {
    EndpointURL gone = server.chatURL();
    if (gone.isUnixSocket())
        gone.host = *gone.host + ".missing";
    else
        gone.port = 1;  // nothing listens on a privileged port here
    LocalModelBackend model(LocalModelConfig{gone, "m", 5.0}, session, std::nullopt, nullptr);
    ModelBackendError error = chatError(model, conversation);
    EXPECT_TRUE(error.asTransportError()) << error.description();
    EXPECT_TRUE(error.isReachabilityFailure());
    if (gone.isUnixSocket()) {
        EXPECT_NE(error.description().find("there is no socket at " + *gone.host), std::string::npos)
            << error.description();
    }
}

TEST_P(LocalModelBackendTest, AnEndpointOffThisMachineIsRefusedBeforeAnyByteIsSent) {
    if (GetParam() != ScriptedModelServer::Transport::tcp) GTEST_SKIP() << "a host name needs TCP";
    EndpointURL named = server.chatURL();
    named.host = "localhost";  // resolves to the scripted server, but is not the literal address
    LocalModelBackend model(LocalModelConfig{named, "m", 5.0}, session, std::nullopt, nullptr);
    ModelBackendError error = chatError(model, conversation);
    EXPECT_TRUE(error.asTransportError());
    EXPECT_NE(error.description().find("refusing"), std::string::npos);
    EXPECT_THROW(model.chatStream(conversation, std::nullopt, options, nullptr), ModelBackendError);
    EXPECT_TRUE(server.requests().empty());
}

// ---- streaming ----

TEST_P(LocalModelBackendTest, StreamsDeltasInOrderAndBuildsTheSameResponse) {
    server.enqueue("/v1/chat/completions",
                   Reply::events(ScriptedModelServer::streamPayloads({"Yes", ", ", "on task"}, "length")));
    std::vector<ModelStreamDelta> deltas;
    ChatResponse response = backend()->chatStream(
        conversation, std::nullopt, options, [&](const ModelStreamDelta& delta) { deltas.push_back(delta); });
    ASSERT_EQ(deltas.size(), 3u);  // the role-only and finishing chunks carry no text
    EXPECT_EQ(deltas[0].text, "Yes");
    EXPECT_EQ(deltas[2].text, "on task");
    EXPECT_EQ(response.text, "Yes, on task");
    EXPECT_TRUE(response.truncated);
    EXPECT_FALSE(response.usage);
    EXPECT_EQ(response.provenance, (ChatProvenance{{}, {}, {}, "length"}));
    json body = server.requests("/v1/chat/completions").at(0).json();
    EXPECT_EQ(body["stream"], true);
    EXPECT_EQ(*server.requests().at(0).header("Accept"), "text/event-stream");
}

TEST_P(LocalModelBackendTest, StreamedReasoningAndToolCallFragmentsAreAssembled) {
    auto chunk = [](json delta) { return json{{"choices", json::array({{{"delta", delta}}})}}.dump(); };
    server.enqueue(
        "/v1/chat/completions",
        Reply::events({chunk({{"reasoning_content", "let me "}}), chunk({{"reasoning_content", "think"}}),
                       chunk({{"tool_calls", json::array({{{"index", 1}, {"function", {{"name", "second"}}}}})}}),
                       chunk({{"tool_calls", json::array({{{"index", 0},
                                                           {"function", {{"name", "first"}, {"arguments", "{\"a\":"}}}}})}}),
                       chunk({{"tool_calls", json::array({{{"index", 0}, {"function", {{"arguments", "1}"}}}}})}}),
                       "not json at all", ": a comment line"}));
    std::string trace;
    ChatResponse response = backend()->chatStream(conversation, std::nullopt, options,
                                                  [&](const ModelStreamDelta& delta) { trace += delta.thinking; });
    EXPECT_EQ(trace, "let me think");
    EXPECT_EQ(response.thinking, "let me think");
    ASSERT_EQ(response.toolCalls.size(), 2u);
    EXPECT_EQ(response.toolCalls[0].name, "first");
    EXPECT_EQ(response.toolCalls[0].arguments, JSONValue(JSONValue::Object{{"a", 1.0}}));
    EXPECT_EQ(response.toolCalls[1].name, "second");
    EXPECT_EQ(response.toolCalls[1].arguments, JSONValue(JSONValue::Object{}));
}

TEST_P(LocalModelBackendTest, AStreamCutMidwayIsATransportErrorAfterTheDeltasThatArrived) {
    Reply cut = Reply::events(ScriptedModelServer::streamPayloads({"one", "two", "three"}), false);
    cut.chunks->resize(3);  // role chunk, "one", "two"; then the connection drops
    cut.ending = Reply::Ending::cut;
    server.enqueue("/v1/chat/completions", cut);
    auto model = backend();
    std::vector<ModelStreamDelta> deltas;
    ModelBackendError error = streamError(*model, &deltas);
    EXPECT_TRUE(error.asTransportError()) << error.description();
    ASSERT_EQ(deltas.size(), 2u);
    EXPECT_EQ(deltas[1].text, "two");
}

TEST_P(LocalModelBackendTest, AnErrorEventAfterStreamingBeganIsTheServersError) {
    std::vector<std::string> payloads = ScriptedModelServer::streamPayloads({"partial"});
    payloads.resize(2);
    payloads.push_back(R"({"error":{"code":500,"message":"slot crashed","type":"server_error"}})");
    server.enqueue("/v1/chat/completions", Reply::events(payloads, false));
    auto model = backend();
    EXPECT_EQ(streamError(*model), ModelBackendError::invalidResponse("llama-server error: slot crashed"));
}

TEST_P(LocalModelBackendTest, AStreamRefusedUpFrontCarriesItsDrainedBody) {
    server.enqueue("/v1/chat/completions", Reply::json(500, std::string(20000, 'x')));
    server.enqueue("/v1/chat/completions", Reply::json(400, R"({"error":{"message":"bad"}})"));
    auto model = backend();
    ModelBackendError big = streamError(*model);
    ASSERT_TRUE(big.asHTTPError());
    EXPECT_EQ(big.asHTTPError()->status, 500);
    EXPECT_EQ(big.asHTTPError()->body, std::string(8192, 'x'));
    EXPECT_EQ(streamError(*model), ModelBackendError::httpError(400, R"({"error":{"message":"bad"}})"));
}

TEST_P(LocalModelBackendTest, AStreamThatStallsEndsAtTheTimeout) {
    Reply stall = Reply::events(ScriptedModelServer::streamPayloads({"a", "b"}));
    stall.chunkDelayMs = 300;
    server.enqueue("/v1/chat/completions", stall);
    auto model = backend(0.1);
    auto start = std::chrono::steady_clock::now();
    ModelBackendError error = streamError(*model);
    EXPECT_TRUE(error.asTransportError());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
}

TEST_P(LocalModelBackendTest, ConcurrentCallsShareOneSession) {
    auto model = backend();
    std::vector<std::thread> threads;
    std::vector<std::string> answers(8);
    for (size_t i = 0; i < answers.size(); ++i)
        threads.emplace_back([&, i] {
            std::vector<ChatMessage> messages{ChatMessage::user("caller " + std::to_string(i))};
            for (int round = 0; round < 5; ++round) answers[i] = model->chat(messages, std::nullopt, options).text;
        });
    for (std::thread& thread : threads) thread.join();
    for (size_t i = 0; i < answers.size(); ++i) EXPECT_EQ(answers[i], "echo: caller " + std::to_string(i));
    EXPECT_EQ(server.requests().size(), 40u);
}

// ---- cancellation ----

TEST_P(LocalModelBackendTest, CancellingACallInFlightEndsItPromptly) {
    Reply hang;
    hang.ending = Reply::Ending::hang;
    server.enqueue("/v1/chat/completions", hang);
    server.enqueue("/v1/chat/completions", hang);
    auto model = backend(60.0);
    for (bool stream : {false, true}) {
        auto token = std::make_shared<CancellationToken>();
        size_t before = server.requests().size();
        std::thread canceller([&] {
            server.waitForRequests(before + 1, 10000);
            token->cancel();
        });
        auto start = std::chrono::steady_clock::now();
        CancellationScope scope(token);
        if (stream)
            EXPECT_THROW(model->chatStream(conversation, std::nullopt, options, nullptr), CancellationError);
        else
            EXPECT_THROW(model->chat(conversation, std::nullopt, options), CancellationError);
        canceller.join();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    }
}

TEST_P(LocalModelBackendTest, ACancelledTokenSendsNothing) {
    auto token = std::make_shared<CancellationToken>();
    token->cancel();
    CancellationScope scope(token);
    EXPECT_THROW(backend()->chat(conversation, std::nullopt, options), CancellationError);
    EXPECT_TRUE(server.requests().empty());
}

// ---- context fit ----

json overflowBody(int promptTokens, int64_t contextTokens) {
    return {{"error",
             {{"code", 400},
              {"message", "the request exceeds the available context size, try increasing it"},
              {"type", "exceed_context_size_error"},
              {"n_prompt_tokens", promptTokens},
              {"n_ctx", contextTokens}}}};
}

TEST_P(LocalModelBackendTest, OverflowDropsTheOldestTurnsAndSaysSo) {
    // The server accepts at most 5 messages.
    server.setHandler("/v1/chat/completions", [](const ScriptedModelServer::Request& request) {
        json body = request.json();
        if (body["messages"].size() > 5) return Reply::json(400, overflowBody(9000, 4096).dump());
        return Reply::json(200, ScriptedModelServer::completionBody("fits"));
    });
    std::vector<ChatMessage> messages{ChatMessage::system("rules")};
    for (int turn = 0; turn < 6; ++turn) {
        messages.push_back(ChatMessage::user("question " + std::to_string(turn)));
        messages.push_back(ChatMessage::assistant("answer " + std::to_string(turn)));
    }
    messages.push_back(ChatMessage::user("latest"));
    ChatResponse response = backend()->chat(messages, std::nullopt, options);
    EXPECT_EQ(response.text, "fits");

    auto requests = server.requests("/v1/chat/completions");
    json last = requests.back().json()["messages"];
    EXPECT_EQ(last.front()["content"], "rules");
    EXPECT_EQ(last.back()["content"], "latest");
    EXPECT_EQ(last[1]["role"], "user");  // whole turns go, never half of one
    ASSERT_FALSE(log.empty());
    EXPECT_NE(log.front().find("local context fit"), std::string::npos);
    EXPECT_NE(log.front().find("9000"), std::string::npos);
}

TEST_P(LocalModelBackendTest, OverflowRetriesAreBounded) {
    server.setHandler("/v1/chat/completions", [](const ScriptedModelServer::Request&) {
        return Reply::json(400, overflowBody(4100, 4096).dump());  // barely over: one turn per retry
    });
    std::vector<ChatMessage> messages{ChatMessage::system("rules")};
    for (int turn = 0; turn < 10; ++turn) {
        messages.push_back(ChatMessage::user("q"));
        messages.push_back(ChatMessage::assistant("a"));
    }
    messages.push_back(ChatMessage::user("latest"));
    auto model = backend();
    EXPECT_TRUE(chatError(*model, messages).asHTTPError());
    EXPECT_EQ(server.requests().size(), 1u + LocalContextFit::maxRetries);
    EXPECT_EQ(model->cachedContextSize(), 4096);
}

// A context no server has cannot break the arithmetic that sizes the trim: nothing older fits it.
TEST_P(LocalModelBackendTest, AnAbsurdContextDropsEveryOlderTurnAtOnce) {
    server.setHandler("/v1/chat/completions", [](const ScriptedModelServer::Request& request) {
        if (request.json()["messages"].size() > 2) return Reply::json(400, overflowBody(9000, INT64_MIN).dump());
        return Reply::json(200, ScriptedModelServer::completionBody("fits"));
    });
    const std::vector<ChatMessage> messages{ChatMessage::system("rules"), ChatMessage::user("q"), ChatMessage::assistant("a"),
                                            ChatMessage::user("q"), ChatMessage::assistant("a"), ChatMessage::user("latest")};
    EXPECT_EQ(backend()->chat(messages, std::nullopt, options).text, "fits");
    EXPECT_EQ(server.requests().size(), 2u);
}

// An overflow with nothing left to drop, and a 400 that is no overflow: the server's error, sent once.
TEST_P(LocalModelBackendTest, ABadRequestThatCannotBeFittedIsTheServersError) {
    server.enqueue("/v1/chat/completions", Reply::json(400, overflowBody(9000, 4096).dump()));
    server.enqueue("/v1/chat/completions",
                   Reply::json(400, R"({"error":{"code":400,"message":"context","type":"invalid_request_error"}})"));
    auto model = backend();
    const std::vector<std::vector<ChatMessage>> conversations{
        conversation, {ChatMessage::user("old"), ChatMessage::assistant("a"), ChatMessage::user("new")}};
    for (size_t i = 0; i < conversations.size(); ++i) {
        const size_t logged = log.size();
        ModelBackendError error = chatError(*model, conversations[i]);
        ASSERT_TRUE(error.asHTTPError()) << i;
        EXPECT_EQ(error.asHTTPError()->status, 400);
        EXPECT_EQ(server.requests().size(), i + 1);
        if (i == 1) {
            EXPECT_EQ(log.size(), logged) << "an ordinary bad request is no context fit";
        }
    }
}

// ---- conformance and dumps ----

TEST_P(LocalModelBackendTest, EnforcedConformanceRefusesBeforeSending) {
    std::vector<ChatMessage> broken{ChatMessage::user("hi"), ChatMessage::system("late rules")};
    EXPECT_THROW(backend(10.0, RequestConformance::Mode::enforced)->chat(broken, std::nullopt, options),
                 RequestConformance::Violation);
    EXPECT_NO_THROW(backend(10.0, RequestConformance::Mode::off)->chat(broken, std::nullopt, options));
    EXPECT_EQ(server.requests().size(), 1u);
}

TEST_P(LocalModelBackendTest, DumpsTheExactRequestWhenAskedTo) {
    testing::TempDir dir;
    auto model = backend(10.0, RequestConformance::Mode::off, dir.path() / "model-request-dumps");
    model->chat(conversation, std::nullopt, options);
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path() / "model-request-dumps"))
        files.push_back(entry.path());
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(files[0].filename().string().starts_with("local-"));
    std::string dump = testing::readFile(files[0]);
    EXPECT_TRUE(dump.starts_with("POST " + server.chatURL().string() + " HTTP/1.1\r\n")) << dump;
    EXPECT_TRUE(dump.ends_with(server.requests().at(0).body));
}

INSTANTIATE_TEST_SUITE_P(BothTransports, LocalModelBackendTest,
                         ::testing::Values(ScriptedModelServer::Transport::tcp,
                                           ScriptedModelServer::Transport::unixSocket),
                         transportName);

}  // namespace
}  // namespace aimwise
