// Which stack each role gets from the environment, the words of every refusal and choice, the
// endpoint override, and the provider choice that outlives a restart.
#include "AimwiseCore/models/model_backend_factory.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include "AimwiseCore/models/endpoint_override_policy.h"
#include "AimwiseCore/models/fallback_model_backend.h"
#include "AimwiseCore/models/non_thinking_model_backend.h"
#include "AimwiseCore/models/openrouter_backend.h"
#include "AimwiseCore/models/proxy_model_backend.h"
#include "AimwiseCore/models/thinking_overflow_retry_backend.h"
#include "AimwiseCore/models/unavailable_model_backend.h"
#include "tests/support/fake_clock.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace Factory = ModelBackendFactory;

class ModelBackendFactoryTest : public ::testing::Test {
protected:
    std::shared_ptr<ModelBackend> coach(const Environment& environment) {
        return Factory::fromEnvironment(environment, logTo(), std::nullopt, std::nullopt, std::nullopt, services);
    }
    std::shared_ptr<ModelBackend> consolidation(const Environment& environment) {
        return Factory::forConsolidation(environment, [] { return true; }, logTo(), std::nullopt, services);
    }
    Factory::Log logTo() {
        return [this](const std::string& line) { log.push_back(line); };
    }
    std::string refusal(const Environment& environment) {
        try {
            coach(environment);
        } catch (const ModelBackendConfigurationError& error) {
            return error.description();
        }
        return "no refusal";
    }

    testing::TempDir temp;
    testing::FakeClock clock;
    Factory::Services services{&clock, std::make_shared<HTTPSession>(),
                               std::make_shared<StickyProviderSelector>(temp / "selection.json"), nullptr};
    std::vector<std::string> log;
    const Environment online{{"AIMCAP_MODEL_BACKEND", "openrouter"}, {"OPENROUTER_API_KEY", "sk-or-v1-test"}};
};

TEST_F(ModelBackendFactoryTest, TheCoachRefusesConfigurationsItMustNotRunInTheirOwnWords) {
    EXPECT_EQ(refusal({{"AIMCAP_MODEL_BACKEND", "openrouter"}, {"OPENROUTER_API_KEY", "  "}}),
              "AIMCAP_MODEL_BACKEND=openrouter but OPENROUTER_API_KEY is not set — refusing to start rather than "
              "silently falling back to the local model.");
    EXPECT_EQ(refusal({{"AIMCAP_MODEL_BACKEND", "llama"}}),
              "AIMCAP_MODEL_BACKEND=\"llama\" is not a recognized backend (expected \"ollama\", \"openrouter\" or "
              "\"proxy\").");
    // Offline mode ignores even a backend name that would be refused.
    auto offline = coach({{"AIMCAP_MODEL_BACKEND", "llama"}, {"AIMCAP_OFFLINE_MODE", "1"}});
    EXPECT_TRUE(dynamic_cast<NonThinkingModelBackend*>(offline.get()));
    EXPECT_EQ(log, std::vector<std::string>{"model backend: offline mode is on -- local model only; "
                                            "AIMCAP_MODEL_BACKEND, OPENROUTER_API_KEY and AIMCAP_MODEL_FALLBACK are "
                                            "all ignored"});
    log.clear();
    auto proxy = coach({{"AIMCAP_MODEL_BACKEND", "proxy"}});
    ASSERT_TRUE(dynamic_cast<UnavailableModelBackend*>(proxy.get()));
    const MerlProxyError& error = dynamic_cast<UnavailableModelBackend&>(*proxy).error();
    EXPECT_EQ(error.userMessage(), "This build of Veska has no coach service address configured.");
    EXPECT_EQ(error.fields().fixHint, "set AIMCAP_PROXY_URL");
    EXPECT_EQ(log.back(), "model backend: proxy selected but no usable AIMCAP_PROXY_URL and no compiled-in URL");
}

TEST_F(ModelBackendFactoryTest, TheOnlineCoachFallsBackToTheLocalModelUnlessToldNot) {
    Environment environment = online;
    environment["AIMCAP_MODEL_PROVIDER"] = " deepinfra, ,fireworks ";
    environment["AIMCAP_MODEL_ENDPOINT"] = "http://127.0.0.1:8080";
    auto stack = coach(environment);
    auto* fallback = dynamic_cast<FallbackModelBackend*>(stack.get());
    ASSERT_TRUE(fallback);
    EXPECT_EQ(fallback->primaryName(), "openrouter");
    EXPECT_EQ(fallback->fallbackName(), "the local model");
    EXPECT_EQ(fallback->options().cooldownSec, 60);
    EXPECT_EQ(fallback->options().lapsedCooldownSec, 600);

    environment["AIMCAP_MODEL_FALLBACK"] = "off";
    environment["AIMCAP_MODEL_ENDPOINT"] = "http://192.168.1.5:8080";
    auto alone = coach(environment);
    auto* openRouter = dynamic_cast<OpenRouterBackend*>(alone.get());
    ASSERT_TRUE(openRouter);
    EXPECT_EQ(openRouter->config().endpoint.string(), Factory::openRouterEndpoint);
    EXPECT_EQ(openRouter->config().providerOrder, (std::vector<std::string>{"deepinfra", "fireworks"}));
    EXPECT_EQ(openRouter->config().reasoningEffort, "low");
    EXPECT_EQ(log, std::vector<std::string>{"model backend: AIMCAP_MODEL_ENDPOINT=http://192.168.1.5:8080 ignored: it "
                                            "must be https, or plain http only to a loopback host (#993); keeping "
                                            "https://openrouter.ai/api/v1/chat/completions"});
}

TEST_F(ModelBackendFactoryTest, ConsolidationLeadsLocallyAndSaysWhatRescuesIt) {
    const std::string lead = "consolidation backend: local (gemma4:12b-it-qat)";
    struct Case {
        Environment environment;
        std::string line;
        bool withFallback;
    };
    const std::vector<Case> cases{
        {{{"AIMCAP_OFFLINE_MODE", "1"}, {"OPENROUTER_API_KEY", "k"}}, lead + ", no remote fallback (offline mode is on)", false},
        {{{"AIMCAP_MODEL_FALLBACK", "0"}, {"OPENROUTER_API_KEY", "k"}},
         lead + ", no remote fallback (AIMCAP_MODEL_FALLBACK disables it)", false},
        {{{"AIMCAP_MODEL_BACKEND", "proxy"}}, lead + " primary, retried; proxy fallback", true},
        {{{"OPENROUTER_API_KEY", "k"}},
         lead + " primary, retried; openrouter (deepseek/deepseek-v4-flash-0731) fallback", true},
        {{}, lead + ", no remote fallback (no OPENROUTER_API_KEY, or AIMCAP_MODEL_FALLBACK disables it)", false}};
    for (const Case& entry : cases) {
        log.clear();
        auto stack = consolidation(entry.environment);
        EXPECT_EQ(log.back(), entry.line);
        EXPECT_EQ(dynamic_cast<FallbackModelBackend*>(stack.get()) != nullptr, entry.withFallback) << entry.line;
        EXPECT_EQ(dynamic_cast<ThinkingOverflowRetryBackend*>(stack.get()) != nullptr, !entry.withFallback);
    }
}

TEST_F(ModelBackendFactoryTest, OnboardingNeverRunsLocallyUnlessThatWasChosen) {
    try {
        Factory::forOnboarding(false, {}, logTo(), std::nullopt, services);
        FAIL() << "onboarding ran without a key";
    } catch (const OnboardingBackendError& error) {
        EXPECT_EQ(error.description(), "onboarding backend: no OPENROUTER_API_KEY configured");
    }
    EXPECT_TRUE(dynamic_cast<OpenRouterBackend*>(Factory::forOnboarding(false, online, logTo(), {}, services).get()));
    Factory::forOnboarding(true, {}, logTo(), std::nullopt, services);
    EXPECT_EQ(log, (std::vector<std::string>{
                       "onboarding backend: no OPENROUTER_API_KEY -- refusing to silently fall back to the local model "
                       "(onboarding must never run on the local model, #770)",
                       "onboarding backend: openrouter (deepseek/deepseek-v4-flash-0731)",
                       "onboarding backend: local model (local-only was chosen)"}));
    EXPECT_EQ(Factory::localCheckBackend({{"AIMCHECK_MODEL", "a"}, {"AIMCAP_LOCAL_CHECK_MODEL", "b"}}, {}, services)
                  ->config().model,
              "b");
}

TEST(ModelBackendSelectionTest, TheSmallQuestionsAboutTheChosenBackend) {
    EXPECT_EQ(Factory::backendName({{"AIMCAP_MODEL_BACKEND", "local"}}), "ollama");
    EXPECT_TRUE(Factory::fallbackEnabled({{"AIMCAP_MODEL_FALLBACK", "no"}}));
    const Environment online{{"AIMCAP_MODEL_BACKEND", "openrouter"}};
    EXPECT_TRUE(Factory::selectsDeepSeek(online));
    EXPECT_FALSE(Factory::isLocallyServed(std::nullopt, online));
    EXPECT_TRUE(Factory::isLocallyServed("the local model", online));
    EXPECT_TRUE(Factory::isLocallyServed(std::nullopt, {{"AIMCAP_OFFLINE_MODE", "1"}, {"AIMCAP_MODEL_BACKEND", "proxy"}}));
    EXPECT_EQ(Factory::coachDriverRequiredConfigKeys({{"AIMCAP_MODEL_BACKEND", "proxy"}}, std::nullopt),
              std::vector<std::string>{"AIMCAP_PROXY_URL"});
    EXPECT_TRUE(Factory::coachDriverRequiredConfigKeys({{"AIMCAP_MODEL_BACKEND", "proxy"}}, "https://p").empty());
}

TEST(EndpointOverridePolicyTest, HttpsAnywhereAndPlainHttpOnlyToThisComputer) {
    const std::vector<std::pair<std::string, bool>> cases{
        {"https://api.example.com/v1/chat/completions", true}, {"http://127.0.0.1:8080", true},
        {"http://127.9.9.9", true},  {"http://localhost:1234/v1", true}, {"http://[::1]:8080", true},
        {"http://128.0.0.1", false}, {"http://127.0.0.1.evil.com", false}, {"ftp://127.0.0.1", false},
        {"https://user:pw@api.example.com", false}, {"not a url", false}, {"http://10.0.0.2", false}};
    for (const auto& [value, accepted] : cases)
        EXPECT_EQ(std::holds_alternative<EndpointURL>(EndpointOverridePolicy::validatedOverride("V", value)), accepted)
            << value;
    auto url = [](const char* text) { return EndpointOverridePolicy::chatCompletionsURL(*EndpointURL::parse(text)).string(); };
    EXPECT_EQ(url("http://127.0.0.1:8080/"), "http://127.0.0.1:8080/v1/chat/completions");
    EXPECT_EQ(url("https://h/custom/chat"), "https://h/custom/chat");
}

TEST(StickyProviderSelectorTest, TheChoiceAndTheRoutingGenerationOutliveARestart) {
    testing::TempDir temp;
    const auto file = temp / "state" / "provider-selection.json";
    {
        StickyProviderSelector selector(file);
        EXPECT_EQ(selector.provider({"a", "b", "c"}, "m"), (StickyProviderSelector::Choice{"a", true}));
        EXPECT_EQ(selector.provider({"a", "b", "c"}, "m"), (StickyProviderSelector::Choice{"a", false}));
        EXPECT_EQ(selector.rotate("a", {"a", "b", "c"}, "m"), "b");
        EXPECT_EQ(selector.rotate("c", {"c"}, "other"), std::nullopt);
    }
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    StickyProviderSelector restarted(file);
    EXPECT_EQ(restarted.provider({"a", "b", "c"}, "m"), (StickyProviderSelector::Choice{"b", false}));
    EXPECT_EQ(restarted.routingGeneration(), 1);
    EXPECT_NE(restarted.routingGenerationSalt(), StickyProviderSelector().routingGenerationSalt());
    // A pool that no longer holds the remembered provider starts over on its first, as a move.
    EXPECT_EQ(restarted.provider({"c", "a"}, "m"), (StickyProviderSelector::Choice{"c", true}));
    EXPECT_EQ(restarted.routingGeneration(), 2);
    testing::writeFile(file, "{not json");
    EXPECT_FALSE(StickyProviderSelector(file).current("m"));
}

}  // namespace
}  // namespace aimwise
