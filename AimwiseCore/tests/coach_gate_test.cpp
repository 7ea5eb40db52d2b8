#include "AimwiseCore/coach/coach_gate.h"

#include <gtest/gtest.h>

#include "AimwiseCore/coach/coach_gate_rules.h"
#include "AimwiseCore/coach/coach_gate_schema.h"
#include "AimwiseCore/coach/coach_gate_session_id.h"
#include "AimwiseCore/coach/gate_decision_log.h"
#include "AimwiseCore/models/local_model_backend.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::ScriptedModelServer;
using Reply = ScriptedModelServer::Reply;

TEST(CoachGateSchemaTest, RepliesParseOrFailWithTheirReason) {
    const std::vector<std::pair<std::string, GateOutcome>> cases{
        {" \n\t", GateOutcome::failed("empty response")},
        {R"(Sure! {"summary_for_coach":"they are in Code","should_check_in":true,"extra":1} hope that helps)",
         GateOutcome::decided({"they are in Code", true})},
        {R"(} then {)", GateOutcome::failed("no JSON object found")},
        {"no braces at all", GateOutcome::failed("no JSON object found")},
        {R"({"summary_for_coach": "a", } trailing)", GateOutcome::failed("not a JSON object")},
        {R"({"should_check_in": false})", GateOutcome::failed("missing or non-string `summary_for_coach`")},
        {R"({"summary_for_coach":"a","should_check_in":"true"})",
         GateOutcome::failed("missing or non-boolean `should_check_in`")},
    };
    for (const auto& [reply, expected] : cases) EXPECT_EQ(CoachGateSchema::parse(reply), expected) << reply;
}

TEST(CoachGateSchemaTest, QualityObserversSeeKeyOrderAndSecondPerson) {
    EXPECT_TRUE(CoachGateSchema::keyOrderIsCorrect(R"({"summary_for_coach":"x","should_check_in":true})"));
    EXPECT_FALSE(CoachGateSchema::keyOrderIsCorrect(R"({"should_check_in":true,"summary_for_coach":"x"})"));
    EXPECT_EQ(CoachGateSchema::observedKeyOrder(R"({"should_check_in":true})"),
              std::vector<std::string>{"should_check_in"});
    for (const char* slip : {"You have been in Slack", "they said you're right", "in YOUR editor"})
        EXPECT_TRUE(CoachGateSchema::summaryAddressesSecondPerson(slip)) << slip;
    for (const char* fine : {"they are in Code", "a youth league page", "bayou tour"})
        EXPECT_FALSE(CoachGateSchema::summaryAddressesSecondPerson(fine)) << fine;
    EXPECT_EQ(CoachGateSchema::jsonString("a\"b\\c\nd\re\tf\x01g"), R"("a\"b\\c\nd\re\tf\u0001g")");
}

TEST(GateUnconstrainedBreakerTest, BacksOffDoublingToItsCeilingAndWarnsOnceStuckThere) {
    GateUnconstrainedBreaker breaker(8);
    std::vector<int64_t> skips;
    std::vector<bool> warned;
    for (int failure = 0; failure < 5; ++failure) {
        const auto backoff = breaker.recordParseFailure();
        skips.push_back(backoff.skipTicks);
        warned.push_back(!breaker.ceilingWarning(backoff).empty());
        for (int64_t skip = 0; skip < backoff.skipTicks; ++skip) EXPECT_FALSE(breaker.allowsUnconstrained());
        EXPECT_TRUE(breaker.allowsUnconstrained());
    }
    EXPECT_EQ(skips, (std::vector<int64_t>{1, 2, 4, 8, 8}));
    EXPECT_EQ(warned, (std::vector<bool>{false, false, false, false, true}));
    EXPECT_EQ(breaker.counters().ticksSinceLastSuccess, 2 + 3 + 5 + 9 + 9);  // every question counts a tick
    breaker.recordSuccess();
    EXPECT_EQ(breaker.counters(), GateUnconstrainedBreaker::Counters{});
    EXPECT_EQ(breaker.recordParseFailure().skipTicks, 1);
}

TEST(GateUnconstrainedBreakerTest, FlagIsArmedUnlessItSaysNo) {
    const std::vector<std::pair<std::optional<std::string>, bool>> cases{
        {std::nullopt, true}, {" OFF ", false}, {"0", false}, {"False", false}, {"no", false},
        {"yes", true},        {"", true},       {"off please", true}};
    for (const auto& [value, armed] : cases) {
        Environment environment;
        if (value) environment[GateUnconstrainedFlag::variable] = *value;
        EXPECT_EQ(GateUnconstrainedFlag::isArmed(environment), armed) << value.value_or("(absent)");
    }
}

TEST(CoachGateSessionIDTest, RulesAndRoutingGenerationNameTheSession) {
    const std::string plain = CoachGateSessionID::value(false, 3);
    EXPECT_EQ(plain.size(), 64u);
    EXPECT_EQ(plain, CoachGateSessionID::value(3));
    EXPECT_NE(plain, CoachGateSessionID::value(true, 3));
    EXPECT_NE(plain, CoachGateSessionID::value(false, 4));
    EXPECT_EQ(CoachGateRules::prefix(true), CoachGateRules::text() + "\n\n" + CoachGateRules::lowEffortNote());
}

TEST(CoachGateTest, PreviewScrubsSecretsAndCutsLongReplies) {
    EXPECT_EQ(rawTextPreview("key sk-or-v1-0123456789abcdef0123456789abcdef ok"), "key [redacted] ok");
    EXPECT_EQ(rawTextPreview(std::string(301, 'x') + "é", 300), std::string(300, 'x') + "…(302 chars)");
}

class CoachGateDecideTest : public ::testing::Test {
protected:
    const std::string ok = R"({"summary_for_coach":"they are in Code","should_check_in":false})";
    const Reply decided = Reply::json(200, ScriptedModelServer::completionBody(ok));
    const Reply prose = Reply::json(200, ScriptedModelServer::completionBody("Sure, I think no."));
    const Reply truncated = Reply::json(200, ScriptedModelServer::completionBody(R"({"summary_for_coach":"they)", "length"));

    GateOutcome decide(const std::vector<Reply>& replies, bool unconstrained, GateUnconstrainedBreaker* breaker) {
        for (const Reply& reply : replies) server.enqueue("/v1/chat/completions", reply);
        const size_t before = server.requests("/v1/chat/completions").size();
        retries.clear();
        const CoachGate::Callbacks callbacks{
            [&](const ChatResponse& response) { tally.add(response); },
            [&](const std::string& line) { retries.push_back(line); },
            [&](const ModelBackendError& error) { backendErrors.push_back(error.description()); }};
        const GateOutcome outcome = gate.decide("the message", "session-1", unconstrained, breaker, callbacks, &attempts);
        schemas.clear();
        const auto requests = server.requests("/v1/chat/completions");
        for (size_t i = before; i < requests.size(); ++i) {
            const auto body = requests[i].json();
            EXPECT_EQ(body["messages"].size(), 1u);
            EXPECT_EQ(body["messages"][0]["content"], "the message");
            schemas.push_back(body.contains("response_format"));
        }
        return outcome;
    }

    ScriptedModelServer server{ScriptedModelServer::Transport::tcp};
    CoachGate gate{std::make_shared<LocalModelBackend>(LocalModelConfig{server.chatURL(), "gate-model", 10.0},
                                                       std::make_shared<HTTPSession>(), std::nullopt,
                                                       [](const std::string&) {}, RequestConformance::Mode::off),
                   512};
    GateDecisionLog::UsageTally tally;
    CoachGate::Attempts attempts;
    std::vector<bool> schemas;
    std::vector<std::string> retries, backendErrors;
};

TEST_F(CoachGateDecideTest, TheFreeAttemptFallsBackToTheSchemaOnceAndOnlyForTheModelsOwnFailures) {
    GateUnconstrainedBreaker breaker(8);
    EXPECT_EQ(decide({decided}, true, &breaker), GateOutcome::decided({"they are in Code", false}));
    EXPECT_EQ(schemas, std::vector<bool>{false});

    EXPECT_EQ(decide({prose, decided}, true, nullptr), GateOutcome::decided({"they are in Code", false}));
    EXPECT_EQ(schemas, (std::vector<bool>{false, true}));
    EXPECT_EQ(retries, std::vector<std::string>{"no JSON object found (raw: Sure, I think no.)"});

    EXPECT_EQ(decide({truncated, truncated}, true, &breaker), GateOutcome::failed("truncated response"));
    EXPECT_EQ(schemas, (std::vector<bool>{false, true}));
    EXPECT_EQ(retries, std::vector<std::string>{
                           R"(truncated response (raw: {"summary_for_coach":"they) — skipping the unconstrained )"
                           "attempt for the next 1 tick(s) [consecutiveFailures=1, ticksSinceLastUnconstrainedSuccess=1]"});
    EXPECT_TRUE(attempts.unconstrained && attempts.constrained && !attempts.skippedByBreaker);

    // The backoff skips the free attempt silently; the constrained one's failure leaves the breaker be.
    EXPECT_EQ(decide({prose}, true, &breaker), GateOutcome::failed("no JSON object found"));
    EXPECT_EQ(schemas, std::vector<bool>{true});
    EXPECT_TRUE(retries.empty() && attempts.skippedByBreaker);
    EXPECT_EQ(breaker.counters().consecutiveFailures, 1);

    EXPECT_EQ(decide({decided}, true, &breaker), GateOutcome::decided({"they are in Code", false}));
    EXPECT_EQ(schemas, std::vector<bool>{false});
    EXPECT_EQ(breaker.counters(), GateUnconstrainedBreaker::Counters{});

    EXPECT_EQ(decide({prose}, false, &breaker), GateOutcome::failed("no JSON object found"));
    EXPECT_EQ(schemas, std::vector<bool>{true});
    EXPECT_TRUE(backendErrors.empty());
}

TEST_F(CoachGateDecideTest, ABackendFailureEndsTheDecisionWithoutASecondCall) {
    GateUnconstrainedBreaker breaker(8);
    const GateOutcome outcome = decide({Reply::json(400, R"({"error":"bad request"})")}, true, &breaker);
    ASSERT_TRUE(outcome.failureReason());
    EXPECT_TRUE(outcome.failureReason()->starts_with("backend: HTTP 400")) << *outcome.failureReason();
    EXPECT_EQ(schemas, std::vector<bool>{false});
    EXPECT_EQ(backendErrors.size(), 1u);
    EXPECT_TRUE(retries.empty());
    EXPECT_EQ(breaker.counters().consecutiveFailures, 0);
}

TEST(GateDecisionLogTest, OneLinePerDecisionWithTheSummaryFiltered) {
    testing::TempDir root;
    GateDecisionLog::Record record{
        .tsMs = 1'763'800'000'000,
        .outcome = GateOutcome::decided({"they are on card 4111 1111 1111 1111 in Quicken", true}),
        .attempts = {.unconstrained = true, .constrained = true, .unconstrainedFailure = "truncated response"},
        .breaker = GateUnconstrainedBreaker::Counters{1, 1, 3},
        .usage = ChatUsage{.promptTokens = 900, .completionTokens = 40, .callCount = 2},
        .lowEffort = true,
        .messageCharacters = 7000};
    GateDecisionLog::append(record, GateDecisionLog::defaultURL(root.path()));
    record.outcome = GateOutcome::failed("backend: HTTP 500");
    record.usage.reset();
    GateDecisionLog::append(record, GateDecisionLog::defaultURL(root.path()));
    EXPECT_EQ(testing::readFile(root / "gate-decisions.jsonl"),
              R"({"attempts":["unconstrained","constrained"],"breaker":{"consecutive_failures":1,"skips_remaining":1,)"
              R"("ticks_since_last_success":3},"low_effort":true,"message_chars":7000,"outcome":"decided",)"
              R"("should_check_in":true,"summary_for_coach":"they are on card [redacted card number] in Quicken",)"
              R"("summary_second_person":false,"ts_ms":1763800000000,"unconstrained_failure":"truncated )"
              R"(response","unconstrained_skipped":false,"usage":{"calls":2,"completion_tokens":40,"prompt_tokens":900}})"
              "\n"
              R"({"attempts":["unconstrained","constrained"],"breaker":{"consecutive_failures":1,"skips_remaining":1,)"
              R"("ticks_since_last_success":3},"failure_reason":"backend: HTTP 500","low_effort":true,"message_chars":7000,)"
              R"("outcome":"failed","ts_ms":1763800000000,"unconstrained_failure":"truncated response",)"
              R"("unconstrained_skipped":false})"
              "\n");
    EXPECT_FALSE(GateDecisionLog::isEnabled({}));
    EXPECT_TRUE(GateDecisionLog::isEnabled({{"AIMCAP_GATE_LOG", "1"}}));
    EXPECT_FALSE(GateDecisionLog::isEnabled({{"AIMCAP_GATE_LOG", " off"}}));
}

}  // namespace
}  // namespace aimwise
