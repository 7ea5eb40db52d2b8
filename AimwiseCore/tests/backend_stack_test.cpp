// The decorators of a model stack, over a scripted backend and a fake clock: what is retried, what
// falls back, what the caller of a stream ends up seeing, and the log lines that say so.
#include <gtest/gtest.h>

#include <deque>
#include <variant>

#include "AimwiseCore/models/backend_failure.h"
#include "AimwiseCore/models/cancellation.h"
#include "AimwiseCore/models/fallback_model_backend.h"
#include "AimwiseCore/models/merl_proxy_error.h"
#include "AimwiseCore/models/merl_route_directive.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "AimwiseCore/models/non_thinking_model_backend.h"
#include "AimwiseCore/models/offline_mode.h"
#include "AimwiseCore/models/retrying_model_backend.h"
#include "AimwiseCore/models/thinking_overflow_retry_backend.h"
#include "AimwiseCore/models/unavailable_model_backend.h"
#include "tests/support/fake_clock.h"

namespace aimwise {
namespace {

using testing::FakeClock;

ChatResponse reply(std::string text, bool truncated = false) {
    ChatResponse response;
    response.text = std::move(text);
    response.truncated = truncated;
    return response;
}

// Answers each call with the next outcome: a reply (streamed as the given pieces) or an error,
// thrown after the pieces when there are any.
class ScriptedBackend : public ModelBackend {
public:
    struct Outcome {
        std::variant<ChatResponse, std::exception_ptr> result;
        std::vector<std::string> pieces;
    };
    template <typename E>
    void fail(E error, std::vector<std::string> pieces = {}) {
        outcomes.push_back({std::make_exception_ptr(std::move(error)), std::move(pieces)});
    }
    void answer(ChatResponse response, std::vector<std::string> pieces = {}) {
        outcomes.push_back({std::move(response), std::move(pieces)});
    }

    ChatResponse chat(const std::vector<ChatMessage>& messages, const std::optional<std::vector<ToolSpec>>& tools,
                      const ChatOptions& options) override {
        return chatStream(messages, tools, options, {});
    }
    ChatResponse chatStream(const std::vector<ChatMessage>&, const std::optional<std::vector<ToolSpec>>&,
                            const ChatOptions& options, const StreamDeltaHandler& onDelta) override {
        calls.push_back(options);
        if (outcomes.empty()) throw std::logic_error("no outcome scripted");
        Outcome next = outcomes.front();
        outcomes.pop_front();
        for (const std::string& piece : next.pieces)
            if (onDelta) onDelta(ModelStreamDelta{piece, "", false, false});
        if (auto* error = std::get_if<std::exception_ptr>(&next.result)) std::rethrow_exception(*error);
        return std::get<ChatResponse>(next.result);
    }

    std::deque<Outcome> outcomes;
    std::vector<ChatOptions> calls;
};

// The visible text a screen shows after applying each delta and its reset flag.
std::string shown(const std::vector<ModelStreamDelta>& deltas) {
    std::string text;
    for (const ModelStreamDelta& delta : deltas) text = (delta.resetsPrevious ? "" : text) + delta.text;
    return text;
}

const auto timeout = ModelBackendError::transportError("the request timed out after 300 s", true);
const auto refused = ModelBackendError::transportError("connection refused");
const std::vector<ChatMessage> conversation{ChatMessage::user("hello")};

TEST(ReachabilityTest, TheHostedRoutesErrorsCarryTheirOwnFlagAndCancellationIsNeverOne) {
    EXPECT_TRUE(isReachabilityFailure(MerlProxyError::decode(503, "upstream_unavailable", "")));
    EXPECT_FALSE(isReachabilityFailure(MerlProxyError::decode(400, "malformed_request", "")));
    EXPECT_FALSE(isReachabilityFailure(CancellationError()));
    EXPECT_TRUE(isReachabilityFailure(refused));
    EXPECT_TRUE(isTimedOutTransport(timeout));
    EXPECT_FALSE(isTimedOutTransport(refused));
    EXPECT_EQ(describeModelFailure(ModelBackendError::httpError(429, "slow down")), "HTTP 429: slow down");
    EXPECT_EQ(describeModelFailure(ModelBackendError::invalidResponse("no choices")), "invalid response: no choices");
}

class RetryingTest : public ::testing::Test {
protected:
    std::shared_ptr<ScriptedBackend> wrapped = std::make_shared<ScriptedBackend>();
    FakeClock clock;
    std::vector<std::string> log;
    std::function<bool()> keepWaiting = [] { return true; };
    RetryingModelBackend backend(int attempts, std::vector<double> backoff = {20, 90}) {
        return RetryingModelBackend(wrapped, "the local model", attempts, std::move(backoff),
                                    [this] { return keepWaiting(); }, clock,
                                    [this](const std::string& line) { log.push_back(line); });
    }
};

TEST_F(RetryingTest, WaitsTheBackoffOfEachAttemptAndLogsIt) {
    wrapped->fail(refused);
    wrapped->fail(ModelBackendError::httpError(503, ""));
    wrapped->answer(reply("ok"));
    EXPECT_EQ(backend(3).chat(conversation, std::nullopt, {}).text, "ok");
    EXPECT_EQ(clock.totalSleptMs(), 110'000);
    EXPECT_EQ(log, (std::vector<std::string>{
                       "the local model unreachable (attempt 1/3): connection refused -- retrying in up to 20s",
                       "the local model unreachable (attempt 2/3): HTTP 503 -- retrying in up to 90s"}));
}

TEST_F(RetryingTest, ASecondTimeoutEscalatesEvenWithAttemptsLeft) {
    wrapped->fail(timeout);
    wrapped->fail(timeout);
    wrapped->answer(reply("never"));
    EXPECT_THROW(backend(3).chat(conversation, std::nullopt, {}), ModelBackendError);
    EXPECT_EQ(wrapped->calls.size(), 2u);
    EXPECT_EQ(log.back(),
              "the local model: timed out on attempt 2 after already paying the full wait -- not retrying further, "
              "escalating instead of burning another full-length wait");
}

TEST_F(RetryingTest, WhatCannotSucceedElsewhereOrAgainIsNeverRetried) {
    wrapped->fail(ModelBackendError::invalidResponse("response had no choices"));
    EXPECT_THROW(backend(3).chat(conversation, std::nullopt, {}), ModelBackendError);
    wrapped->fail(CancellationError());
    EXPECT_THROW(backend(3).chat(conversation, std::nullopt, {}), CancellationError);
    wrapped->fail(refused);  // zero attempts still makes one
    EXPECT_THROW(backend(0, {}).chat(conversation, std::nullopt, {}), ModelBackendError);
    EXPECT_EQ(wrapped->calls.size(), 3u);
    EXPECT_EQ(clock.totalSleptMs(), 0);
}

TEST_F(RetryingTest, AWaitThatIsNoLongerWantedEndsWithinASecond) {
    wrapped->fail(refused);
    keepWaiting = [this, start = clock.monotonicMs()] { return clock.monotonicMs() - start < 5'500; };
    EXPECT_THROW(backend(2, {20}).chat(conversation, std::nullopt, {}), ModelBackendError);
    EXPECT_EQ(clock.totalSleptMs(), 6'000);
    EXPECT_EQ(log.back(), "the local model: retry wait interrupted -- giving up on this call rather than waiting further");
}

TEST_F(RetryingTest, ARetriedStreamTakesBackWhatTheFailedAttemptShowed) {
    wrapped->fail(refused, {"half a sen"});
    wrapped->answer(reply("whole"), {"who", "le"});
    std::vector<ModelStreamDelta> deltas;
    backend(2).chatStream(conversation, std::nullopt, {}, [&](const ModelStreamDelta& d) { deltas.push_back(d); });
    EXPECT_EQ(shown(deltas), "whole");
    EXPECT_TRUE(deltas[1].resetsThinking);
}

class FallbackTest : public ::testing::Test {
protected:
    std::shared_ptr<ScriptedBackend> primary = std::make_shared<ScriptedBackend>();
    std::shared_ptr<ScriptedBackend> local = std::make_shared<ScriptedBackend>();
    FakeClock clock;
    std::vector<std::string> log;
    FallbackModelBackend backend{primary, local, "openrouter", "the local model",
                                 FallbackModelBackend::Options{60, 600, 600, true}, clock,
                                 [this](const std::string& line) { log.push_back(line); }};
};

TEST_F(FallbackTest, AReachabilityFailureOpensTheBreakerForItsCooldown) {
    primary->fail(ModelBackendError::httpError(429, "rate limited"));
    local->answer(reply("local 1"));
    local->answer(reply("local 2"));
    primary->answer(reply("online again"));
    ChatResponse first = backend.chat(conversation, std::nullopt, {});
    EXPECT_EQ(first.servedBy, "the local model");
    EXPECT_TRUE(first.servedByFallback);
    EXPECT_EQ(first.fallbackCause, FallbackCause::unreachable);
    clock.advance(59'000);
    EXPECT_EQ(backend.chat(conversation, std::nullopt, {}).text, "local 2");
    EXPECT_EQ(primary->calls.size(), 1u);
    clock.advance(1'000);
    EXPECT_EQ(backend.chat(conversation, std::nullopt, {}).text, "online again");
    EXPECT_EQ(log, (std::vector<std::string>{
                       "openrouter unreachable (HTTP 429: rate limited) — falling back to the local model for this "
                       "turn, and for the next 60s",
                       "model backend: openrouter still in cooldown after a reachability failure, using the local "
                       "model without retrying it"}));
}

TEST_F(FallbackTest, ARequestThatWouldFailAnywhereReachesTheCaller) {
    primary->fail(ModelBackendError::httpError(400, "bad request"));
    primary->fail(MerlProxyError::decode(400, "field_not_allowed", ""));
    primary->fail(CancellationError());
    EXPECT_THROW(backend.chat(conversation, std::nullopt, {}), ModelBackendError);
    EXPECT_THROW(backend.chat(conversation, std::nullopt, {}), MerlProxyError);
    EXPECT_THROW(backend.chat(conversation, std::nullopt, {}), CancellationError);
    EXPECT_TRUE(local->calls.empty());
    EXPECT_FALSE(backend.breaker().skipCause(clock.monotonicMs()));
}

TEST_F(FallbackTest, TheHostedRoutesRefusalsEachMoveTheCallTheirOwnWay) {
    MerlProxyError::Fields terms;
    terms.reason = MerlProxyError::Reason::termsUpdateRequired;
    terms.termsVersion = 7;
    terms.termsURL = "https://example.com/terms";
    primary->fail(MerlRouteDirective("paced", 0.4, 600));
    primary->fail(MerlProxyError::decode(429, "rate_limited", ""));
    primary->fail(MerlProxyError(terms));
    for (int i = 0; i < 4; ++i) local->answer(reply("local"));

    EXPECT_EQ(backend.chat(conversation, std::nullopt, {}).fallbackCause, FallbackCause::paced);
    EXPECT_EQ(backend.chat(conversation, std::nullopt, {}).fallbackCause, FallbackCause::unreachable);
    EXPECT_FALSE(backend.breaker().skipCause(clock.monotonicMs()));  // neither opens the breaker
    ChatResponse updated = backend.chat(conversation, std::nullopt, {});
    EXPECT_EQ(updated.fallbackCause, FallbackCause::termsUpdateRequired);
    EXPECT_EQ(updated.termsUpdateVersion, 7);
    EXPECT_EQ(updated.termsUpdateURL, "https://example.com/terms");
    clock.advance(599'000);
    EXPECT_EQ(backend.chat(conversation, std::nullopt, {}).fallbackCause, FallbackCause::termsUpdateRequired);
    EXPECT_EQ(primary->calls.size(), 3u);
    EXPECT_EQ(log[0], "model backend: openrouter is pacing this license (paced, online share 0.40) — the local model "
                      "answers this turn");
    EXPECT_EQ(log[1], "model backend: openrouter rate-limited this call — the local model answers it; the next call "
                      "asks openrouter again");
    EXPECT_EQ(log[2], "openrouter says the terms of service were updated — the local model answers for this turn and "
                      "the next 600s");
}

TEST_F(FallbackTest, AFallbackStreamShowsOnlyTheSecondText) {
    primary->fail(refused, {"The first mod", "el was say"});
    local->answer(reply("Second."), {"Sec", "ond."});
    std::vector<ModelStreamDelta> deltas;
    backend.chatStream(conversation, std::nullopt, {}, [&](const ModelStreamDelta& d) { deltas.push_back(d); });
    EXPECT_EQ(shown(deltas), "Second.");
    EXPECT_EQ(std::count_if(deltas.begin(), deltas.end(), [](auto& d) { return d.resetsPrevious; }), 1);
    EXPECT_FALSE(deltas[2].resetsThinking);  // only the visible text is taken back
}

TEST_F(FallbackTest, ATruncatedPrimaryReplyIsRerunOnTheFallbackAndKeptWhenThatFails) {
    primary->answer(reply("cut of", true));
    local->answer(reply("whole answer"));
    EXPECT_EQ(backend.chat(conversation, std::nullopt, {}).text, "whole answer");
    primary->answer(reply("cut again", true));
    local->fail(refused);
    ChatResponse kept = backend.chat(conversation, std::nullopt, {});
    EXPECT_EQ(kept.text, "cut again");
    EXPECT_TRUE(kept.truncated);
    EXPECT_EQ(log.back(), "model backend: the local model failed too (connection refused) -- keeping openrouter's "
                          "truncated reply");
}

TEST(ThinkingOverflowTest, ATruncatedThinkingReplyIsAskedOnceMoreWithoutThinking) {
    auto wrapped = std::make_shared<ScriptedBackend>();
    std::vector<std::string> log;
    ThinkingOverflowRetryBackend backend(wrapped, "the local model", [&](const std::string& l) { log.push_back(l); });
    ChatOptions thinking;
    thinking.think = true;
    ChatResponse cut = reply("", true);
    cut.thinking = "hmm hmm";

    wrapped->answer(cut);
    wrapped->answer(reply("done"));
    EXPECT_EQ(backend.chat(conversation, std::nullopt, thinking).text, "done");
    EXPECT_FALSE(wrapped->calls[1].think);

    wrapped->answer(cut);
    wrapped->fail(refused);
    EXPECT_EQ(backend.chat(conversation, std::nullopt, thinking), cut);
    EXPECT_EQ(log.back(), "the local model: the thinking-off retry failed (connection refused) -- keeping the "
                          "truncated first reply");

    wrapped->answer(reply("short", true));  // without thinking there is nothing to retry
    EXPECT_TRUE(backend.chat(conversation, std::nullopt, {}).truncated);
    EXPECT_EQ(wrapped->calls.size(), 5u);
    EXPECT_EQ(log.front(), "the local model: reply cut off with thinking on (7 thinking chars, 0 reply chars) -- the "
                           "model's context filled before it answered. Retrying once with thinking off.");
}

TEST(SmallDecoratorsTest, ThinkingOffUnavailableAndOfflineMode) {
    auto wrapped = std::make_shared<ScriptedBackend>();
    wrapped->answer(reply("x"));
    ChatOptions thinking;
    thinking.think = true;
    NonThinkingModelBackend(wrapped).chat(conversation, std::nullopt, thinking);
    EXPECT_FALSE(wrapped->calls[0].think);

    UnavailableModelBackend unavailable(MerlProxyError::proxyNotConfigured());
    EXPECT_THROW(unavailable.chatStream(conversation, std::nullopt, {}, {}), MerlProxyError);

    EXPECT_TRUE(OfflineMode::isEnabled({{"AIMCAP_OFFLINE_MODE", "1"}}));
    for (const char* value : {"true", "yes", " 1", "0", ""})
        EXPECT_FALSE(OfflineMode::isEnabled({{"AIMCAP_OFFLINE_MODE", value}})) << value;
    EXPECT_TRUE(OfflineMode::isOverriddenByEnvironment("1", false));
    EXPECT_FALSE(OfflineMode::isOverriddenByEnvironment("1", true));
    EXPECT_FALSE(OfflineMode::isOverriddenByEnvironment("", false));
}

}  // namespace
}  // namespace aimwise
