// `aimwise models --check` through the coach's own stack: the local server, the online router
// reached by the loopback override, and the local fallback when the router is rate-limited.
#include "agents/aimwise/models_verb.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/fake_clock.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::ScriptedModelServer;

class ModelsVerbTest : public ::testing::Test {
protected:
    int run(ModelsVerb::Request request, Environment environment) {
        environment["AIMCAP_LOCAL_INFERENCE_ENDPOINT"] = local.baseURLString();
        out.str("");
        err.str("");
        return ModelsVerb::run(request, environment, services, out, err);
    }
    Environment onlineAt(const ScriptedModelServer& server) {
        return {{"AIMCAP_MODEL_BACKEND", "openrouter"}, {"OPENROUTER_API_KEY", "sk-or-v1-check"},
                {"AIMCAP_MODEL_ENDPOINT", server.baseURLString()}};
    }

    ScriptedModelServer local{ScriptedModelServer::Transport::tcp};
    ScriptedModelServer online{ScriptedModelServer::Transport::tcp};
    testing::TempDir temp;
    testing::FakeClock clock;
    ModelBackendFactory::Services services{&clock, std::make_shared<HTTPSession>(),
                                           std::make_shared<StickyProviderSelector>(), nullptr};
    std::ostringstream out, err;
    const ModelsVerb::Request check{true, std::nullopt};
};

TEST_F(ModelsVerbTest, ACheckAnswersThroughTheLocalTheOnlineAndTheFallbackRoute) {
    ASSERT_EQ(run(check, {}), 0) << err.str();
    EXPECT_EQ(out.str(), "reply: echo: Reply with the single word: ready.\n"
                         "served by: the local model (gemma4:12b-it-qat)\n"
                         "usage: none reported (expected on the local model; on openrouter it means the response "
                         "carried no usage block)\n");

    online.setOnlineMode("sk-or-v1-check");
    ASSERT_EQ(run({true, "card 4111 1111 1111 1111?"}, onlineAt(online)), 0) << err.str();
    EXPECT_EQ(out.str(), "reply: echo: card [redacted card number]?\n"
                         "served by: openrouter (scripted via Scripted)\n"
                         "usage: prompt=12 completion=2 calls=1 cost=$0.000420\n");
    EXPECT_EQ(err.str(), "outbound redaction before sending to deepseek/deepseek-v4-flash-0731: card_number x1\n");

    online.enqueue("/v1/chat/completions", ScriptedModelServer::Reply::providerError(429, "Rate limit exceeded"));
    ASSERT_EQ(run(check, onlineAt(online)), 0) << err.str();
    EXPECT_NE(out.str().find("served by: the local model\nfallback: unreachable (answered by the local model — the "
                             "usual model was unreachable)\n"),
              std::string::npos)
        << out.str();
    EXPECT_EQ(local.requests("/v1/chat/completions").size(), 2u);
}

TEST_F(ModelsVerbTest, ARefusedConfigurationOrAFailedCallEndsWithFail) {
    EXPECT_EQ(run(check, {{"AIMCAP_MODEL_BACKEND", "openrouter"}}), 1);
    EXPECT_EQ(err.str(), "FAIL: AIMCAP_MODEL_BACKEND=openrouter but OPENROUTER_API_KEY is not set — refusing to start "
                         "rather than silently falling back to the local model.\n");
    local.enqueue("/v1/chat/completions", ScriptedModelServer::Reply::json(400, "bad"));
    EXPECT_EQ(run(check, {}), 1);
    EXPECT_EQ(err.str(), "FAIL: the coach's model did not answer: HTTP 400: bad. Nothing was recorded.\n");
    EXPECT_TRUE(out.str().empty());
}

TEST_F(ModelsVerbTest, WithoutCheckEachRoleSaysWhatItUses) {
    ASSERT_EQ(run({}, onlineAt(online)), 0);
    const std::string text = out.str();
    for (const char* role : {"\ncoach: openrouter (deepseek/deepseek-v4-flash-0731", "\nconsolidation: local (",
                             "\nonboarding: openrouter (", "\nlocal check: the local model ("})
        EXPECT_NE(("\n" + text).find(role), std::string::npos) << role << " in\n" << text;
    EXPECT_TRUE(std::holds_alternative<ModelsVerb::UsageError>(ModelsVerb::parse({"--message", "x"})));
    EXPECT_TRUE(std::holds_alternative<ModelsVerb::UsageError>(ModelsVerb::parse({"--check", "--message"})));
    EXPECT_EQ(ModelsVerb::parse({"--check", "--message", "hi"}), (std::variant<ModelsVerb::Request, ModelsVerb::UsageError>(
                                                                     ModelsVerb::Request{true, "hi"})));
}

}  // namespace
}  // namespace aimwise
