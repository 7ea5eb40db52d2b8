// The online route against the scripted server in its online mode: the body on the wire, what
// redaction leaves of it, the sticky provider and its single rotation, streams and failures.
#include "AimwiseCore/models/openrouter_backend.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include "AimwiseCore/models/openrouter_session_id.h"
#include "AimwiseCore/models/request_dump.h"
#include "AimwiseCore/models/server_prompt.h"
#include "tests/support/run_process.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::ScriptedModelServer;
using Reply = ScriptedModelServer::Reply;
using json = nlohmann::ordered_json;

constexpr const char* key = "sk-or-v1-0123456789abcdef0123456789abcdef";

class OpenRouterBackendTest : public ::testing::Test {
protected:
    OpenRouterBackendTest() { server.setOnlineMode(key); }

    OpenRouterBackend backend(std::vector<std::string> providers = {}, std::string model = "deepseek/deepseek-v4") {
        OpenRouterConfig config{server.chatURL(), model, key, "low", 10, std::move(providers), std::nullopt, true};
        return OpenRouterBackend(config, session, dumps, selector, [this](const std::string& l) { log.push_back(l); },
                                 {}, RequestConformance::Mode::enforced);
    }
    std::vector<std::string> pinnedProviders() {
        std::vector<std::string> out;
        for (const auto& request : server.requests("/v1/chat/completions"))
            out.push_back(request.json()["provider"]["only"][0]);
        return out;
    }
    template <typename E = ModelBackendError>
    E failure(const std::function<void()>& call) {
        try {
            call();
        } catch (const E& error) {
            return error;
        }
        ADD_FAILURE() << "no error";
        throw std::logic_error("no error");
    }

    ScriptedModelServer server{ScriptedModelServer::Transport::tcp};
    std::shared_ptr<HTTPSession> session = std::make_shared<HTTPSession>();
    std::shared_ptr<StickyProviderSelector> selector = std::make_shared<StickyProviderSelector>();
    std::optional<std::filesystem::path> dumps;
    std::vector<std::string> log;
    ChatOptions options{.maxTokens = 200};
    std::vector<ChatMessage> conversation{ChatMessage::system("You coach."), ChatMessage::user("hi")};
};

TEST_F(OpenRouterBackendTest, TheBodyCarriesTheRoutersKeysInOrder) {
    options.think = true;
    options.seed = 3;
    options.sessionID = std::string(300, 's');
    std::vector<ChatMessage> messages{
        ChatMessage::system("S"), ChatMessage::user("U"), ChatMessage::assistant(" \n"),  // blank: not sent
        ChatMessage::assistant("", std::vector<ToolCall>{{"note", JSONValue::Object{{"n", 1}}}}, "why"),
        ChatMessage::toolResult("done", "note")};
    const std::string body = backend().prepare(messages, std::nullopt, options, "deepinfra", false);
    EXPECT_EQ(body, R"({"model":"deepseek/deepseek-v4","messages":[{"role":"system","content":"S"},)"
                    R"({"role":"user","content":"U"},{"role":"assistant","content":"","reasoning":"why","tool_calls":)"
                    R"([{"id":"call_3_0","type":"function","function":{"name":"note","arguments":"{\"n\":1}"}}]},)"
                    R"({"role":"tool","content":"done","tool_call_id":"call_3_0"}],"stream":false,"max_tokens":200,)"
                    R"("usage":{"include":true},"session_id":")" + std::string(256, 's') +
                        R"(","provider":{"only":["deepinfra"],"allow_fallbacks":false,"require_parameters":true},)"
                        R"("reasoning":{"effort":"low"},"seed":3})");
}

TEST_F(OpenRouterBackendTest, TheProviderObjectFollowsThePinThePoolAndTheSchema) {
    struct Case {
        std::vector<std::string> order;
        std::optional<std::vector<std::string>> acceptable;
        bool schema;
        std::string provider;  // "" for no provider key
    };
    const std::vector<Case> cases{
        {{}, std::nullopt, false, ""},
        {{"venice", "deepinfra"}, std::nullopt, false,
         R"({"allow_fallbacks":true,"order":["venice","deepinfra"],"require_parameters":true})"},
        {{}, std::vector<std::string>{"fireworks"}, false,
         R"({"allow_fallbacks":true,"only":["fireworks"],"require_parameters":true})"},
        {{}, std::nullopt, true,
         R"({"allow_fallbacks":true,"only":["deepinfra","fireworks","together"],"require_parameters":true})"},
        {{"venice", "together"}, std::nullopt, true,
         R"({"allow_fallbacks":true,"order":["together"],"only":["together"],"require_parameters":true})"},
    };
    for (const Case& entry : cases) {
        OpenRouterConfig config{server.chatURL(), "m", key, std::nullopt, 10, entry.order, entry.acceptable, true};
        ChatOptions withSchema = options;
        if (entry.schema) withSchema.responseSchemaJSON = "{}";
        auto provider = OpenRouterRequest::providerObject(withSchema, config, std::nullopt);
        EXPECT_EQ(provider ? provider->dump() : "", entry.provider);
    }
}

TEST_F(OpenRouterBackendTest, CacheBreakpointsOnlyForAnthropicModels) {
    auto messagesOf = [&](const std::string& model, std::vector<ChatMessage> messages) {
        return json::parse(backend({}, model).prepare(messages, std::nullopt, options, std::nullopt, false))["messages"];
    };
    const json cached = json::parse(R"([{"type":"text","text":"You coach.","cache_control":{"type":"ephemeral","ttl":"1h"}}])");
    json three = messagesOf("anthropic/claude", {conversation[0], ChatMessage::user("a"), ChatMessage::user("b")});
    EXPECT_EQ(three[0]["content"], cached);
    EXPECT_TRUE(three[1]["content"].is_array());
    EXPECT_EQ(three[2]["content"], "b");
    EXPECT_EQ(messagesOf("anthropic/claude", {conversation[0]})[0]["content"], cached);
    EXPECT_EQ(messagesOf("deepseek/x", conversation)[0]["content"], "You coach.");
}

TEST_F(OpenRouterBackendTest, IdentifiersAreRedactedFromTextReasoningAndToolArgumentsBeforeSending) {
    const std::string card = "4111 1111 1111 1111";
    std::vector<ChatMessage> messages{
        ChatMessage::user("my card is " + card),
        ChatMessage::assistant("", std::vector<ToolCall>{{"remember", JSONValue::Object{{"note", "card " + card},
                                                                                         {"number", 4111111111111111.0},
                                                                                         {"minutes", 25}}}},
                               "they said " + card),
        ChatMessage::toolResult("ok", "remember"), ChatMessage::user("thanks")};
    backend().chat(messages, std::nullopt, options);
    const std::string sent = server.requests("/v1/chat/completions").at(0).body;
    EXPECT_EQ(sent.find("4111"), std::string::npos) << sent;
    const json arguments = json::parse(json::parse(sent)["messages"][1]["tool_calls"][0]["function"]["arguments"].get<std::string>());
    EXPECT_EQ(arguments.dump(), R"({"minutes":25,"note":"card [redacted card number]","number":"[redacted card number]"})");
    EXPECT_EQ(log, std::vector<std::string>{"outbound redaction before sending to deepseek/deepseek-v4: card_number x4"});
}

TEST_F(OpenRouterBackendTest, ASchemaWithNoApprovedProviderIsRefusedUnsent) {
    options.responseSchemaJSON = R"({"type":"object"})";
    auto error = failure([&] { backend({"venice", "chutes"}).chat(conversation, std::nullopt, options); });
    EXPECT_EQ(error.description(),
              "schema-bearing call has no approved provider: the configured pool [venice, chutes] contains none of "
              "deepinfra, fireworks, together. Refusing to send rather than routing a response_format request to a "
              "provider measured to stop reasoning under schema (#398). Unset AIMCAP_MODEL_PROVIDER or pin an "
              "approved provider.");
    EXPECT_TRUE(server.requests().empty());
    ChatMessage placeholder = ChatMessage::system(ServerPrompt::placeholder("layer3"));
    EXPECT_THROW(backend().chat({placeholder}, std::nullopt, {}), ServerPrompt::PlaceholderLeak);
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(OpenRouterBackendTest, AProviderFailureMovesTheModelOnceAndItStaysThere) {
    server.enqueue("/v1/chat/completions", Reply::providerError(429, "Rate limit exceeded"));
    EXPECT_EQ(backend({"venice", "deepinfra"}).chat(conversation, std::nullopt, options).provenance->provider,
              "deepinfra");
    backend({"venice", "deepinfra"}).chat(conversation, std::nullopt, options);
    EXPECT_EQ(pinnedProviders(), (std::vector<std::string>{"venice", "deepinfra", "deepinfra"}));
    EXPECT_EQ(log, (std::vector<std::string>{
                       "openrouter provider: sending to venice (pool venice < deepinfra); staying there until it "
                       "fails or a re-evaluation moves it",
                       "OPENROUTER PROVIDER SWITCH: venice -> deepinfra (HTTP 429 (provider rate-limited) from "
                       "venice); retrying this call on deepinfra and staying there -- venice's warm prompt cache is "
                       "abandoned"}));
    EXPECT_EQ(selector->routingGeneration(), 1);
}

TEST_F(OpenRouterBackendTest, NeverAThirdAttemptAndNoRotationForTheCallersOwnFault) {
    for (int i = 0; i < 2; ++i) server.enqueue("/v1/chat/completions", Reply::providerError(503, "overloaded"));
    EXPECT_EQ(failure([&] { backend({"a", "b"}).chat(conversation, std::nullopt, options); }).asHTTPError()->status,
              503);
    EXPECT_EQ(pinnedProviders(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(log.back(), "OPENROUTER PROVIDER SWITCH: b -> a (HTTP 503 (provider error) from b on the retry); not "
                          "retrying again -- this call fails, the next one starts on a");

    server.enqueue("/v1/chat/completions", Reply::providerError(400, "bad parameter"));
    EXPECT_EQ(failure([&] { backend({"a", "b"}).chat(conversation, std::nullopt, options); }).asHTTPError()->status,
              400);
    EXPECT_EQ(selector->current("deepseek/deepseek-v4"), "a");
    EXPECT_EQ(server.requests().size(), 3u);

    server.enqueue("/v1/chat/completions", Reply::providerError(503, "overloaded"));
    EXPECT_THROW(backend({"solo"}).chat(conversation, std::nullopt, options), ModelBackendError);
    EXPECT_EQ(log.back(), "openrouter provider: solo failed with HTTP 503 (provider error) and there is no other "
                          "provider in the pool to move to -- surfacing the error");
}

TEST_F(OpenRouterBackendTest, StreamsSkipCommentsCarryUsageAndFailOnAMidStreamError) {
    std::string shown;
    ChatResponse response = backend().chatStream(conversation, std::nullopt, options,
                                                 [&](const ModelStreamDelta& delta) { shown += delta.text; });
    EXPECT_EQ(shown, "echo: hi");
    EXPECT_EQ(response.text, "echo: hi");
    EXPECT_EQ(response.usage->costUSD, 0.00042);
    EXPECT_EQ(response.provenance->provider, "Scripted");
    const json body = server.requests().at(0).json();
    EXPECT_EQ(body["stream_options"].dump(), R"({"include_usage":true})");
    EXPECT_EQ(*server.requests().at(0).header("Accept"), "text/event-stream");

    server.enqueue("/v1/chat/completions", ScriptedModelServer::onlineStream({"par", "tial"}, "X", "Rate limit exceeded"));
    auto error = failure([&] { backend().chatStream(conversation, std::nullopt, options, {}); });
    EXPECT_EQ(error.description(), "OpenRouter error: Rate limit exceeded");
}

TEST_F(OpenRouterBackendTest, ErrorRepliesAreScrubbedAndReadOnlyUpToTheirLimit) {
    server.enqueue("/v1/chat/completions", Reply::json(200, R"({"error":{"code":402,"message":"Insufficient credits"}})"));
    EXPECT_EQ(failure([&] { backend().chat(conversation, std::nullopt, options); }).description(),
              "OpenRouter error: Insufficient credits");
    server.enqueue("/v1/chat/completions",
                   Reply::json(500, std::string("key ") + key + " leaked " + std::string(100000, 'x')));
    const auto http = *failure([&] { backend().chat(conversation, std::nullopt, options); }).asHTTPError();
    EXPECT_LE(http.body.size(), OpenRouterBackend::errorBodyLimit);
    EXPECT_EQ(http.body.find("sk-or"), std::string::npos);
    EXPECT_TRUE(http.body.starts_with("key [redacted] leaked xxx"));
    server.setOnlineMode("another key");
    EXPECT_EQ(failure([&] { backend().chat(conversation, std::nullopt, options); }).asHTTPError()->status, 401);
}

TEST_F(OpenRouterBackendTest, TheKeyTravelsOnlyInTheAuthorizationHeaderAndNeverIntoADump) {
    testing::TempDir temp;
    dumps = temp.path();
    backend().chat(conversation, std::nullopt, options);
    EXPECT_EQ(*server.requests().at(0).header("Authorization"), std::string("Bearer ") + key);
    size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(temp.path())) {
        ++files;
        const std::string dump = testing::readFile(entry.path());
        EXPECT_EQ(dump.find(key), std::string::npos);
        EXPECT_NE(dump.find("Authorization: [redacted]"), std::string::npos);
    }
    EXPECT_EQ(files, 1u);
}

TEST(OpenRouterTLSTest, AServerWhoseCertificateTheSystemDoesNotTrustIsRefused) {
    testing::TempDir temp;
    ASSERT_EQ(testing::runProcess("/usr/bin/openssl",
                                  {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=127.0.0.1", "-days",
                                   "1", "-keyout", (temp / "key.pem").string(), "-out", (temp / "cert.pem").string()})
                  .exitStatus,
              0);
    int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    ::bind(probe, reinterpret_cast<sockaddr*>(&address), length);
    ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
    const int port = ntohs(address.sin_port);
    ::close(probe);
    std::vector<std::string> arguments{"openssl", "s_server", "-accept", std::to_string(port), "-cert",
                                       (temp / "cert.pem").string(), "-key", (temp / "key.pem").string(), "-www"};
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&quiet, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, "/usr/bin/openssl", &quiet, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&quiet);
    struct Stop {
        pid_t pid;
        ~Stop() {
            ::kill(pid, SIGTERM);
            ::waitpid(pid, nullptr, 0);
        }
    } stop{pid};
    OpenRouterConfig config{*EndpointURL::parse("https://127.0.0.1:" + std::to_string(port) + "/v1/chat/completions"),
                            "m", key, std::nullopt, 5, {}, std::nullopt, true};
    OpenRouterBackend backend(config, nullptr, std::nullopt, nullptr, {}, {}, RequestConformance::Mode::off);
    std::string reason = "Couldn't connect";
    // Until s_server listens, the connection is refused; after that the handshake decides.
    for (int attempt = 0; attempt < 50 && reason.find("connect") != std::string::npos; ++attempt) {
        try {
            backend.chat({ChatMessage::user("hi")}, std::nullopt, {});
            FAIL() << "an untrusted certificate was accepted";
        } catch (const ModelBackendError& error) {
            reason = error.description();
            usleep(100'000);  // s_server may not be listening yet
        }
    }
    EXPECT_NE(reason.find("certificate"), std::string::npos) << reason;
}

TEST(OpenRouterSessionIDTest, AConversationKeepsItsKeyUntilItHasBeenColdForAnHour) {
    const int64_t now = 1'700'000'000'000;
    auto turnAt = [](int64_t ms) { return EventLogEvent{ms, "event", "app_chat_message", JSONValue::Object{}, "x"}; };
    const auto warm = OpenRouterSessionID::derive({turnAt(now - 59 * 60'000)}, {"a", "b"}, 1'699'990'000'500, now);
    ASSERT_TRUE(warm);
    EXPECT_EQ(*warm, OpenRouterSessionID::hash("1699990000.500\x1e" "a\x1e" "b"));
    EXPECT_EQ(*warm, *OpenRouterSessionID::derive({}, {"a", "b"}, 1'699'990'000'500, now));
    EXPECT_FALSE(OpenRouterSessionID::derive({turnAt(now - 60 * 60'000)}, {"a", "b"}, 0, now));
    EXPECT_EQ(OpenRouterSessionID::hash("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

}  // namespace
}  // namespace aimwise
