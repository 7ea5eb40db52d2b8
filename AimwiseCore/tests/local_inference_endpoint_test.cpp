#include "AimwiseCore/models/local_inference_endpoint.h"

#include <gtest/gtest.h>

#include "AimwiseCore/models/local_inference_wire.h"
#include "AimwiseCore/models/local_model_reply_hold.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "tests/support/scripted_model_server.h"

namespace aimwise {
namespace {

namespace Endpoint = LocalInferenceEndpoint;
using Kind = Endpoint::ResolutionError::Kind;

Environment with(const std::string& value) { return {{Endpoint::envVar, value}}; }

std::optional<Kind> refusal(const std::string& value) {
    try {
        Endpoint::resolveOrThrow(with(value));
        return std::nullopt;
    } catch (const Endpoint::ResolutionError& error) {
        EXPECT_EQ(error.value(), value.substr(value.find_first_not_of(" \n\t") == std::string::npos
                                                  ? 0
                                                  : value.find_first_not_of(" \n\t")));
        return error.kind();
    }
}

TEST(LocalInferenceEndpointResolution, UnsetOrBlankIsTheServersSocket) {
    EXPECT_EQ(Endpoint::resolveOrThrow({}), Endpoint::defaultBaseURL());
    EXPECT_EQ(Endpoint::resolveOrThrow(with("  \n ")), Endpoint::defaultBaseURL());
    EndpointURL socket = Endpoint::defaultBaseURL();
    EXPECT_TRUE(Endpoint::isUnixSocket(socket));
    EXPECT_EQ(*socket.host, Endpoint::socketPath().string());
    EXPECT_TRUE(Endpoint::socketPath().string().ends_with("/AimCapture/llama/llama.sock"));
    EXPECT_TRUE(Endpoint::defaultBaseURLString().starts_with("http+unix://%2F"));
}

TEST(LocalInferenceEndpointResolution, AcceptsTheIPv4LoopbackBase) {
    EXPECT_EQ(Endpoint::resolveOrThrow(with(" http://127.0.0.1:8080 ")).port, 8080);
    EXPECT_EQ(Endpoint::resolveOrThrow(with("http://127.0.0.1:8080/")).path, "/");
    EXPECT_FALSE(Endpoint::resolveOrThrow(with("HTTP://127.0.0.1")).port);
}

TEST(LocalInferenceEndpointResolution, RefusesEachWayOffTheMachineOrOntoAnotherAccount) {
    EXPECT_EQ(refusal("http://localhost:8080"), Kind::notIPv4Loopback);
    EXPECT_EQ(refusal("http://LOCALHOST:8080"), Kind::notIPv4Loopback);
    EXPECT_EQ(refusal("http://[::1]:8080"), Kind::notIPv4Loopback);
    EXPECT_EQ(refusal("http://10.0.0.2:8080"), Kind::notLoopback);
    EXPECT_EQ(refusal("http://127.0.0.2:8080"), Kind::notLoopback);
    EXPECT_EQ(refusal("https://127.0.0.1:8080"), Kind::unsupportedScheme);
    EXPECT_EQ(refusal("//127.0.0.1:8080"), Kind::unsupportedScheme);
    EXPECT_EQ(refusal("http://127.0.0.1:8080/v1"), Kind::hasPath);
    EXPECT_EQ(refusal("http://127.0.0.1:8080?x=1"), Kind::hasPath);
    EXPECT_EQ(refusal("http://127.0.0.1:8080#top"), Kind::hasPath);
    EXPECT_EQ(refusal("http://user:pw@127.0.0.1:8080"), Kind::malformed);
    EXPECT_EQ(refusal("http://127.0.0.1:0"), Kind::malformed);
    EXPECT_EQ(refusal("http://127.0.0.1:70000"), Kind::malformed);
    EXPECT_EQ(refusal("http://127.0.0.1:80a"), Kind::malformed);
    EXPECT_EQ(refusal("127.0.0.1:8080"), Kind::malformed);
    EXPECT_EQ(refusal("http://127.0.0.1 :8080"), Kind::malformed);
    EXPECT_EQ(refusal("http:///path"), Kind::malformed);
}

TEST(LocalInferenceEndpointResolution, MessagesNameTheVariableAndTheValue) {
    try {
        Endpoint::resolveOrThrow(with("http://localhost:1"));
        FAIL();
    } catch (const Endpoint::ResolutionError& error) {
        EXPECT_EQ(error.description(),
                  "AIMCAP_LOCAL_INFERENCE_ENDPOINT=\"http://localhost:1\" must spell the host as 127.0.0.1 — "
                  "`localhost` resolves to IPv6 ::1 first, where another local account can listen in place of the "
                  "IPv4-only model server (#986)");
    }
    try {
        Endpoint::resolveOrThrow(with("http://127.0.0.1:1/v1"));
        FAIL();
    } catch (const Endpoint::ResolutionError& error) {
        EXPECT_EQ(error.description(),
                  "AIMCAP_LOCAL_INFERENCE_ENDPOINT=\"http://127.0.0.1:1/v1\" must be a base URL (scheme, host, port) "
                  "with no path — callers append their own path (v1/chat/completions, for example)");
    }
}

TEST(LocalInferenceEndpointResolutionDeathTest, ResolveTreatsABadValueAsFatal) {
    EXPECT_DEATH(Endpoint::resolve(with("http://10.0.0.1")), "is not 127.0.0.1");
}

TEST(LocalInferenceWireURLs, ChatCompletionsIsAppendedToTheBase) {
    EXPECT_EQ(LocalInferenceWire::chatCompletionsURL(*EndpointURL::parse("http://127.0.0.1:9")).string(),
              "http://127.0.0.1:9/v1/chat/completions");
    EXPECT_EQ(LocalInferenceWire::chatCompletionsURL(*EndpointURL::parse("http://127.0.0.1:9/")).string(),
              "http://127.0.0.1:9/v1/chat/completions");
    EndpointURL socket = LocalInferenceWire::chatCompletionsURL(EndpointURL::unixSocket("/tmp/a b/llama.sock"));
    EXPECT_EQ(socket.string(), "http+unix://%2Ftmp%2Fa%20b%2Fllama.sock/v1/chat/completions");
    EXPECT_EQ(EndpointURL::parse(socket.string()), socket);
}

TEST(LocalInferenceWireContent, ReadsTheReplyTextOrSaysWhyNot) {
    EXPECT_EQ(LocalInferenceWire::content(R"({"choices":[{"message":{"content":"hi"}}]})"), "hi");
    EXPECT_EQ(LocalInferenceWire::content(R"({"choices":[{"message":{"content":null}}]})"), "");
    auto error = [](const std::string& body) {
        try {
            LocalInferenceWire::content(body);
        } catch (const ModelBackendError& thrown) {
            return thrown.description();
        }
        return std::string("no error");
    };
    EXPECT_EQ(error("nope"), "llama-server response was not a JSON object");
    EXPECT_EQ(error("[]"), "llama-server response was not a JSON object");
    EXPECT_EQ(error(R"({"error":{"message":"Loading model"}})"), "llama-server error: Loading model");
    EXPECT_EQ(error(R"({"error":{"code":1}})"), R"(llama-server error: {"code":1})");
    EXPECT_EQ(error(R"({"choices":[]})"), "llama-server response had no choices[0].message");
    EXPECT_EQ(error(R"({"choices":[{"message":"x"}]})"), "llama-server response had no choices[0].message");
}

TEST(LocalInferenceWireContent, LoadingIsA503ThatSaysSo) {
    EXPECT_TRUE(LocalInferenceWire::isLoadingResponse(503, R"({"error":{"message":"LOADING model"}})"));
    EXPECT_FALSE(LocalInferenceWire::isLoadingResponse(500, "loading"));
    EXPECT_FALSE(LocalInferenceWire::isLoadingResponse(503, "busy"));
}

class LocalInferenceWireSend : public ::testing::TestWithParam<testing::ScriptedModelServer::Transport> {};

TEST_P(LocalInferenceWireSend, GetsPropsAndReusesItsConnection) {
    testing::ScriptedModelServer server(GetParam());
    server.setModelPath("/models/x.gguf");
    HTTPSession session;
    HTTPRequest request;
    request.url = server.baseURL().appendingPath("props");
    request.timeoutSec = 5;
    for (int round = 0; round < 3; ++round) {
        HTTPResponse response = LocalInferenceWire::send(request, session);
        EXPECT_EQ(response.status, 200);
        EXPECT_NE(response.body.find("/models/x.gguf"), std::string::npos);
        ASSERT_TRUE(response.header("content-type"));
    }
    EXPECT_EQ(server.requests("/props").size(), 3u);
}

TEST_P(LocalInferenceWireSend, AnotherStatusIsAnHTTPErrorWithItsBody) {
    testing::ScriptedModelServer server(GetParam());
    HTTPSession session;
    HTTPRequest request;
    request.url = server.baseURL().appendingPath("nowhere");
    try {
        LocalInferenceWire::send(request, session);
        FAIL();
    } catch (const ModelBackendError& error) {
        ASSERT_TRUE(error.asHTTPError());
        EXPECT_EQ(error.asHTTPError()->status, 404);
        EXPECT_NE(error.asHTTPError()->body.find("File Not Found"), std::string::npos);
    }
}

TEST_P(LocalInferenceWireSend, PostsToTheTokenizerAndTemplateRoutes) {
    testing::ScriptedModelServer server(GetParam());
    HTTPSession session;
    HTTPRequest request;
    request.method = "POST";
    request.headers = {{"Content-Type", "application/json"}};
    request.url = server.baseURL().appendingPath("tokenize");
    request.body = R"({"content":"three little words","add_special":false,"with_pieces":false})";
    EXPECT_EQ(LocalInferenceWire::send(request, session).body, R"({"tokens":[1,2,3]})");
    request.url = server.baseURL().appendingPath("apply-template");
    request.body = R"({"messages":[{"role":"system","content":"s"},{"role":"user","content":"u"}]})";
    EXPECT_EQ(LocalInferenceWire::send(request, session).body, R"({"prompt":"<|system|>s\n<|user|>u\n"})");
    EXPECT_EQ(server.requests("/apply-template").at(0).body, request.body);
}

INSTANTIATE_TEST_SUITE_P(BothTransports, LocalInferenceWireSend,
                         ::testing::Values(testing::ScriptedModelServer::Transport::tcp,
                                           testing::ScriptedModelServer::Transport::unixSocket));

TEST(LocalModelReplyHold, WaitsOnlyForALocalModelThatIsOnItsWay) {
    using LocalModelReplyHold::Decision;
    using LocalModelReplyHold::decide;
    const int64_t now = 1'000'000'000;
    EXPECT_EQ(decide(false, true, false, std::nullopt, now, true, false), Decision::run);
    EXPECT_EQ(decide(true, true, true, std::nullopt, now, true, false), Decision::holdWithNotice);
    EXPECT_EQ(decide(true, true, false, std::nullopt, now, true, true), Decision::holdQuietly);
    EXPECT_EQ(decide(true, true, false, std::nullopt, now, false, false), Decision::holdQuietly);
    EXPECT_EQ(decide(true, false, true, now, now, true, false), Decision::run);
    EXPECT_EQ(decide(true, false, false, now - 179'000, now, true, false), Decision::holdQuietly);
    EXPECT_EQ(decide(true, false, false, now - 180'000, now, true, false), Decision::run);
    EXPECT_EQ(decide(true, false, false, std::nullopt, now, true, false), Decision::run);
    EXPECT_EQ(LocalModelReplyHold::noticeReason("m"), "waiting for m to finish downloading before answering");
}

}  // namespace
}  // namespace aimwise
