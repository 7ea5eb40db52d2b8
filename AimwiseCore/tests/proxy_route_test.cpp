// The hosted coach route: placeholders for the fixed prompts and the refusal of a request without
// one, its headers, its own errors and routing directive, where its address comes from, and the
// credential it shows.
#include "AimwiseCore/models/proxy_model_backend.h"

#include <gtest/gtest.h>

#include "AimwiseCore/models/local_model_backend.h"
#include "AimwiseCore/models/merl_proxy_error.h"
#include "AimwiseCore/models/merl_route_directive.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::ScriptedModelServer;
using Reason = MerlProxyError::Reason;
using json = nlohmann::ordered_json;

const std::string layer3 = "You are the coach. Speak briefly.";
const std::string gateRules = "Decide whether to check in.";

class ProxyRouteTest : public ::testing::Test {
protected:
    ProxyRouteTest() {
        testing::writeFile(credentialFile, R"({"instance":"inst-42","secret":"merl-secret-1"})");
        std::filesystem::permissions(credentialFile, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    }
    ProxyModelBackend backend() {
        ProxyConfig config{server.baseURL(), "deepseek/x", "low", 10, {}, std::nullopt, "1.2.3", "b77", "ps-test"};
        ServerPromptCatalog catalog("ps-test", {{"layer3", ServerPrompt::AnchorRole::system, layer3},
                                                {"gate", ServerPrompt::AnchorRole::user, gateRules},
                                                {"style", std::nullopt, "Speak briefly."}});
        return ProxyModelBackend(config, std::make_shared<FileLicenseCredentialSource>(credentialFile), nullptr,
                                 std::nullopt, {}, nullptr, catalog, RequestConformance::Mode::off);
    }
    template <typename E>
    E failure(const std::vector<ChatMessage>& messages) {
        try {
            backend().chat(messages, std::nullopt, options);
        } catch (const E& error) {
            return error;
        }
        ADD_FAILURE() << "no such error";
        throw std::logic_error("no such error");
    }

    ScriptedModelServer server{ScriptedModelServer::Transport::tcp};
    testing::TempDir temp;
    std::filesystem::path credentialFile = temp / "coach-license.json";
    ChatOptions options{.maxTokens = 100, .turn = ChatTurn::background};
    std::vector<ChatMessage> coachTurn{ChatMessage::system(layer3 + "\nNow: 3pm."), ChatMessage::user("hi")};
};

TEST_F(ProxyRouteTest, FixedPromptsTravelAsPlaceholdersWithTheRoutesHeaders) {
    server.setOnlineMode("merl-secret-1");
    EXPECT_EQ(backend().chat(coachTurn, std::nullopt, options).text, "echo: hi");
    const auto request = server.requests("/v1/chat/completions").at(0);
    EXPECT_EQ(request.json()["messages"][0]["content"], ServerPrompt::placeholder("layer3") + "\nNow: 3pm.");
    const std::vector<std::pair<std::string, std::string>> expected{
        {"X-Merl-Instance", "inst-42"}, {"X-Merl-App-Version", "1.2.3"}, {"X-Merl-Prompt-Set", "ps-test"},
        {"X-Merl-Turn", "background"}, {"X-Merl-Build", "b77"}};
    for (const auto& [name, value] : expected) EXPECT_EQ(*request.header(name), value) << name;
    EXPECT_EQ(backend().prepare({ChatMessage::user(gateRules + " Timeline: ...")}, options).kind, "gate");
}

TEST_F(ProxyRouteTest, ARequestWithoutAnAnchorPromptNeverReachesTheNetwork) {
    // The anchor text in the wrong role does not count either.
    for (const auto& messages : {std::vector<ChatMessage>{ChatMessage::user("hello")},
                                 std::vector<ChatMessage>{ChatMessage::user(layer3)}}) {
        const MerlProxyError error = failure<MerlProxyError>(messages);
        EXPECT_EQ(error.reason(), Reason::unsupportedRequest);
        EXPECT_EQ(error.userMessage(),
                  "Veska's coach service rejected a request. This is a bug in Veska, not something you did.");
        EXPECT_TRUE(error.fields().detail.starts_with("this request carries none of the proxy's anchor prompts "
                                                      "(layer 3, the gate, or consolidation)."));
    }
    std::filesystem::remove(credentialFile);
    EXPECT_EQ(failure<MerlProxyError>(coachTurn).reason(), Reason::licenseMissing);
    testing::writeFile(credentialFile, R"({"instance":"i","secret":"s"})");
    std::filesystem::permissions(credentialFile, std::filesystem::perms::others_read, std::filesystem::perm_options::add);
    EXPECT_NE(failure<MerlProxyError>(coachTurn).fields().detail.find("readable by other accounts"), std::string::npos);
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(ProxyRouteTest, TheServicesRefusalsAndDirectivesBecomeTheirOwnErrors) {
    auto reply = [](int status, std::vector<std::pair<std::string, std::string>> headers, std::string body) {
        ScriptedModelServer::Reply made = ScriptedModelServer::Reply::json(status, std::move(body));
        made.headers = std::move(headers);
        return made;
    };
    const std::string path = "/v1/chat/completions";
    server.enqueue(path, reply(429, {{"X-Merl-Error", "rate_limited"}},
                               R"({"error":{"message":"slow down sk-abcdefghijkl"},"merl":{"retryable":true,)"
                               R"("retry_after_seconds":30}})"));
    server.enqueue(path, reply(307, {{"X-Merl-Route", "local"}}, ""));
    server.enqueue(path, reply(307, {{"X-Merl-Route", "local"}}, R"({"merl":{"reason":"quota","online_share":0.25}})"));
    server.enqueue(path, reply(307, {{"X-Merl-Route", "moon"}}, ""));

    const MerlProxyError limited = failure<MerlProxyError>(coachTurn);
    EXPECT_EQ(limited.fields(), (MerlProxyError::Fields{Reason::rateLimited, "rate_limited", 429,
                                                        MerlProxyError::defaultUserMessage(Reason::rateLimited),
                                                        "slow down [redacted]", true, 30}));
    EXPECT_EQ(failure<MerlRouteDirective>(coachTurn), MerlRouteDirective("paced", std::nullopt, std::nullopt));
    EXPECT_EQ(failure<MerlRouteDirective>(coachTurn), MerlRouteDirective("quota", 0.25, std::nullopt));
    EXPECT_EQ(failure<ModelBackendError>(coachTurn).description(),
              "X-Merl-Route: moon is not a route this build knows");
}

TEST(MerlProxyErrorTest, EveryReasonDecodesWithItsOwnWordsAndAnUnknownOneKeepsItsText) {
    const std::vector<std::tuple<std::string, std::string, bool>> reasons{
        {"service_misconfigured", "temporarily unavailable", true}, {"prompt_unrecognized", "rejected a request", false},
        {"max_tokens_over_cap", "rejected a request", false},      {"field_not_allowed", "rejected a request", false},
        {"model_not_allowed", "rejected a request", false},        {"upstream_unavailable", "temporarily unavailable", true},
        {"prompt_set_unknown", "rejected a request", false},       {"client_too_old", "too old", true},
        {"over_cap", "coaching limit", true},                      {"rate_limited", "too often", true},
        {"body_too_large", "rejected a request", false},           {"malformed_request", "rejected a request", false},
        {"license_lapsed", "license isn't active", true},          {"terms_update_required", "terms", true}};
    for (const auto& [raw, words, retryable] : reasons) {
        const MerlProxyError error = MerlProxyError::decode(400, raw, "not json at all");
        EXPECT_NE(error.reason(), Reason::unknown) << raw;
        EXPECT_EQ(MerlProxyError::rawValue(error.reason()), raw);
        EXPECT_NE(error.userMessage().find(words), std::string::npos) << raw;
        EXPECT_EQ(error.retryable(), retryable) << raw;
    }
    const MerlProxyError unknown = MerlProxyError::decode(503, "gift_expired", R"({"merl":{"user_message":"Gone."}})");
    EXPECT_EQ(unknown.reason(), Reason::unknown);
    EXPECT_EQ(unknown.fields().rawReason, "gift_expired");
    EXPECT_TRUE(unknown.retryable());
    EXPECT_EQ(unknown.userMessage(), "Gone.");
    EXPECT_FALSE(MerlProxyError::decode(409, "gift_expired", "").retryable());
    const auto terms = MerlProxyError::decode(
        403, "terms_update_required", R"({"merl":{"terms_version":4,"terms_url":"https://t","terms_summary":"s"}})");
    EXPECT_EQ(terms.fields().termsVersion, 4);
    EXPECT_EQ(terms.fields().termsURL, "https://t");
}

TEST(ProxyConfigTest, TheOverrideIsHonouredOnlyWhereItMayCarryConversationText) {
    auto env = [](const std::string& value) { return Environment{{"AIMCAP_PROXY_URL", value}}; };
    EXPECT_EQ(ProxyConfig::overrideRefusal(env("https://proxy.example"), true),
              "AIMCAP_PROXY_URL=https://proxy.example ignored: a Release build honors it only on the compiled-in "
              "proxy origin (); build with `app/make-app.sh --debug` to point at another proxy (#993)");
    EXPECT_FALSE(ProxyConfig::resolveBaseURL(env("https://proxy.example"), true));
    EXPECT_EQ(ProxyConfig::resolveBaseURL(env("https://proxy.example"), false)->string(), "https://proxy.example");
    EXPECT_EQ(ProxyConfig::resolveBaseURL(env("http://127.0.0.1:9000"), false)->string(), "http://127.0.0.1:9000");
    EXPECT_EQ(ProxyConfig::overrideRefusal(env("http://proxy.example"), false),
              "AIMCAP_PROXY_URL=http://proxy.example ignored: it must be https, or plain http only to a loopback "
              "host (#993)");
    EXPECT_FALSE(ProxyConfig::resolveBaseURL({}, false));
    EXPECT_FALSE(ProxyConfig::overrideRefusal(env("  "), true));
}

TEST(ServerPromptTest, EveryOtherBackendRefusesAPlaceholderBeforeSending) {
    ScriptedModelServer server(ScriptedModelServer::Transport::tcp);
    LocalModelBackend local({server.chatURL(), "m", 5}, nullptr, std::nullopt, {}, RequestConformance::Mode::off);
    try {
        local.chat({ChatMessage::system(ServerPrompt::placeholder("layer3"))}, std::nullopt, {});
        FAIL() << "a placeholder was sent";
    } catch (const ServerPrompt::PlaceholderLeak& error) {
        EXPECT_EQ(error.description(),
                  "a server-side prompt placeholder reached the local backend. Placeholders are only for the cloud "
                  "proxy; this call was handed ProxyModelBackend's rewritten copy.");
    }
    EXPECT_TRUE(server.requests().empty());
}

}  // namespace
}  // namespace aimwise
