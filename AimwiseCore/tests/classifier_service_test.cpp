#include "AimwiseCore/classifier/classifier_service.h"

#include <gtest/gtest.h>

#include "AimwiseCore/classifier/classifier_prompt.h"
#include "AimwiseCore/classifier/self_observation.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::FixtureTick;
using testing::ScriptedModelServer;
using Reply = ScriptedModelServer::Reply;
namespace Check = ClassifierReasonPrivacyCheck;

constexpr int64_t T = 1'700'000'000'000;
constexpr int64_t minute = 60'000;
constexpr const char* chatPath = "/v1/chat/completions";

Reply completion(const std::string& content) { return Reply::json(200, ScriptedModelServer::completionBody(content)); }

EventLogEvent declared(int64_t tsMs, std::optional<double> horizon = std::nullopt) {
    EventLogEvent event;
    event.tsMs = tsMs;
    event.type = "task_declared";
    JSONValue::Object detail{{"task", "write the report"}};
    if (horizon) detail["horizon_minutes"] = *horizon;
    event.detail = detail;
    return event;
}

// A data root's signals file and a model server reached through the process's endpoint variable.
class ClassifierServiceTest : public ::testing::Test {
protected:
    ClassifierServiceTest() : server(ScriptedModelServer::Transport::tcp), signals(dir / "signals.sqlite") {
        environment.set("AIMCAP_LOCAL_INFERENCE_ENDPOINT", server.baseURLString());
    }

    std::optional<ClassifierState> build(const std::vector<EventLogEvent>* events = nullptr,
                                         std::optional<int64_t> asOf = std::nullopt) {
        const SignalsReader reader = SignalsReader::open(signals.path());
        return ClassifierService::buildState(reader, events, signals.path(), asOf, lazySession);
    }

    // Present every minute over [from, to], all in one app.
    void presentRun(int64_t from, int64_t to, const std::string& task = "write the report") {
        std::vector<FixtureTick> rows;
        for (int64_t ts = from; ts <= to; ts += minute)
            rows.push_back({.tsMs = ts, .frontmostApp = "Editor", .idleAnySec = 2.0, .declaredTask = task});
        signals.ticks(rows);
    }

    ClassifierBackend::Config config() const { return {server.chatURL(), "judge-model", 450, 10.0}; }

    ClassifierService::Outcome judge(const ClassifierState& state, const std::optional<std::string>& override = {},
                                     const RedactionReport& upstream = {},
                                     std::optional<ContentWithheldReason> withheld = std::nullopt) {
        return ClassifierService::judge(state, override, std::nullopt, std::nullopt, upstream, withheld, config(),
                                        session);
    }

    testing::TempDir dir;
    testing::ScopedEnvironment environment;
    ScriptedModelServer server;
    testing::SignalsFixture signals;
    LazyHTTPSession lazySession;
    HTTPSession session;
};

// --- buildState -------------------------------------------------------------------------------

TEST_F(ClassifierServiceTest, NoRowAtOrBeforeTheInstantGivesNoState) {
    EXPECT_FALSE(build());
    signals.tick({.tsMs = T, .frontmostApp = "Editor"});
    EXPECT_FALSE(build(nullptr, T - 1));
    ASSERT_TRUE(build(nullptr, T));
    EXPECT_FALSE(lazySession.created());
}

TEST_F(ClassifierServiceTest, AssemblesTheRowWithTheFrontWindowTitleAndRecentApps) {
    signals.tick({.tsMs = T - 2 * minute, .frontmostApp = "Mail"})
        .tick({.tsMs = T - minute, .frontmostApp = "Firefox"})
        .tick({.tsMs = T,
               .frontmostApp = "Firefox",
               .idleAnySec = 4.5,
               .browserApp = "Firefox",
               .browserTitle = "Docs",
               .browserURL = "https://example.org/docs"})
        .window({.tsMs = T, .ownerName = "Firefox", .title = "Docs — Firefox"})
        .window({.tsMs = T, .ownerName = "Mail", .title = "Inbox"});
    const auto state = build();
    ASSERT_TRUE(state);
    EXPECT_EQ(state->tsMs, T);
    EXPECT_EQ(state->frontmostWindowTitle, "Docs — Firefox");
    EXPECT_EQ(state->browserURL, "https://example.org/docs");
    EXPECT_EQ(state->idleAnySec, 4.5);
    ASSERT_EQ(state->recentApps10Min.size(), 2u);
    EXPECT_EQ(state->recentApps10Min[0].app, "Firefox");
    // No declared text: no estimate is looked for and no gap is computed.
    EXPECT_FALSE(state->estimateMinutes);
    EXPECT_FALSE(state->gapSinceLastPresentMinutes);
    EXPECT_FALSE(state->minutesSinceReturn);
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(ClassifierServiceTest, TheNewestEventLogDeclarationAtOrBeforeTheRowGivesTimeAndEstimate) {
    presentRun(T - 40 * minute, T);
    signals.estimateCache("write the report", 999.0);
    const std::vector<EventLogEvent> events = {declared(T - 90 * minute, 5.0), declared(T - 30 * minute - 5'000, 20.0),
                                               declared(T + minute, 1.0)};
    const auto state = build(&events);
    ASSERT_TRUE(state);
    EXPECT_EQ(state->minutesSinceDeclared, 30.0);  // 30 min 5 s, truncated to one decimal
    EXPECT_EQ(state->estimateMinutes, 20.0);       // the event's horizon wins over the cache
    EXPECT_EQ(state->minutesOverEstimate, 10.0);
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(ClassifierServiceTest, WithoutAnEventLogTheDatabaseGivesTheTimeAndTheCacheTheEstimate) {
    presentRun(T - 50 * minute, T);
    signals.event(T - 45 * minute - 35'000, "task_declared").estimateCache("write the report", 60.0);
    for (const std::vector<EventLogEvent> empty; const auto* events : {static_cast<const std::vector<EventLogEvent>*>(nullptr), &empty}) {
        const auto state = build(events);
        ASSERT_TRUE(state);
        EXPECT_EQ(state->minutesSinceDeclared, 45.5);
        EXPECT_EQ(state->estimateMinutes, 60.0);
        EXPECT_EQ(state->minutesOverEstimate, -14.5);  // negative inside the estimate
    }
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(ClassifierServiceTest, ACachedNullMeansNoEstimateWithoutAskingAgain) {
    presentRun(T - 5 * minute, T);
    signals.estimateCache("write the report", std::nullopt);
    const auto state = build();
    ASSERT_TRUE(state);
    EXPECT_FALSE(state->estimateMinutes);
    EXPECT_FALSE(state->minutesOverEstimate);
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(ClassifierServiceTest, AnUncachedDeclarationAsksTheModelOnceAndCachesTheAnswer) {
    presentRun(T - 5 * minute, T);
    signals.event(T - 100 * minute, "task_declared");
    server.enqueue(chatPath, completion(R"({"has_estimate": true, "estimated_minutes": 90, "reason": "an hour and a half"})"));
    const auto first = build();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->estimateMinutes, 90.0);
    EXPECT_EQ(first->minutesOverEstimate, 10.0);
    const auto second = build();
    EXPECT_EQ(second->estimateMinutes, 90.0);
    ASSERT_EQ(server.requests(chatPath).size(), 1u);
    EXPECT_EQ(server.requests(chatPath)[0].json()["messages"][1]["content"], "write the report");
}

TEST_F(ClassifierServiceTest, PresentAllAlongIsAGapOfZero) {
    presentRun(T - 30 * minute, T);
    signals.estimateCache("write the report", 60.0);
    const auto state = build();
    EXPECT_EQ(state->gapSinceLastPresentMinutes, 0.0);
    EXPECT_FALSE(state->minutesSinceReturn);
    EXPECT_FALSE(state->gapFollowedTaskEndpoint);
}

TEST_F(ClassifierServiceTest, AnAbsenceAfterTheDeclarationIsMeasuredAndComparedWithTheEstimate) {
    signals.estimateCache("write the report", 30.0);
    presentRun(T - 200 * minute, T - 120 * minute);
    presentRun(T - 15 * minute, T);
    for (const auto& [declaredAt, followed] : {std::pair{T - 200 * minute, true}, std::pair{T - 140 * minute, false}}) {
        const std::vector<EventLogEvent> events = {declared(declaredAt)};
        const auto state = build(&events);
        ASSERT_TRUE(state);
        EXPECT_EQ(state->gapSinceLastPresentMinutes, 105.0);
        EXPECT_EQ(state->minutesSinceReturn, 15.0);
        // Last seen 80 (or 20) minutes into a 30-minute estimate.
        EXPECT_EQ(state->gapFollowedTaskEndpoint, followed);
    }
    // Unknown declaration time: the gap stands, its relation to the estimate is unknown.
    const auto undated = build();
    EXPECT_EQ(undated->gapSinceLastPresentMinutes, 105.0);
    EXPECT_FALSE(undated->gapFollowedTaskEndpoint);
}

TEST_F(ClassifierServiceTest, ADeclarationMadeAfterTheReturnCountsAsNoGap) {
    signals.estimateCache("write the report", 30.0);
    presentRun(T - 200 * minute, T - 120 * minute);
    presentRun(T - 15 * minute, T);
    const std::vector<EventLogEvent> events = {declared(T - 10 * minute)};
    const auto state = build(&events);
    EXPECT_EQ(state->gapSinceLastPresentMinutes, 0.0);
    EXPECT_FALSE(state->minutesSinceReturn);
}

TEST_F(ClassifierServiceTest, AnAbsenceLongerThanTheWalkLeavesTheGapAbsentForAnOldDeclaration) {
    signals.estimateCache("write the report", 30.0);
    std::vector<FixtureTick> away;
    for (int64_t ts = T - 300 * minute; ts < T - 10 * minute; ts += 5 * minute)
        away.push_back({.tsMs = ts, .frontmostApp = "loginwindow", .declaredTask = "write the report"});
    signals.ticks(away);
    presentRun(T - 10 * minute, T);

    const std::vector<EventLogEvent> old = {declared(T - 10 * minute - 240 * minute)};
    auto state = build(&old);
    EXPECT_FALSE(state->gapSinceLastPresentMinutes);
    EXPECT_EQ(state->minutesSinceReturn, 10.0);

    const std::vector<EventLogEvent> recent = {declared(T - 10 * minute - 239 * minute)};
    state = build(&recent);
    EXPECT_EQ(state->gapSinceLastPresentMinutes, 0.0);
    EXPECT_FALSE(state->minutesSinceReturn);
}

// --- guards ----------------------------------------------------------------------------------

ClassifierState stateWith(std::optional<std::string> app, std::optional<double> idle = std::nullopt) {
    ClassifierState state;
    state.tsMs = T;
    state.frontmostApp = std::move(app);
    state.idleAnySec = idle;
    return state;
}

TEST(ClassifierGuards, TheLockScreenInAnyCaseIsIdleAtAnyIdleTime) {
    for (const char* app : {"loginwindow", "LoginWindow", "LOGINWINDOW"})
        for (double idle : {0.0, 5000.0}) {
            const auto verdict = ClassifierService::guardVerdict(stateWith(app, idle), std::nullopt);
            ASSERT_TRUE(verdict) << app;
            EXPECT_EQ(*verdict, (ClassifierJudgment{"IDLE", 1.0, "screen locked (loginwindow) — not in use"}));
        }
}

TEST(ClassifierGuards, AwayStartsAboveThreeHundredSeconds) {
    EXPECT_FALSE(ClassifierService::guardVerdict(stateWith("Editor", 300.0), std::nullopt));
    const auto verdict = ClassifierService::guardVerdict(stateWith("Editor", 300.1), std::nullopt);
    ASSERT_TRUE(verdict);
    EXPECT_EQ(*verdict, (ClassifierJudgment{"IDLE", 1.0, "away ~300s — no check"}));
    EXPECT_EQ(ClassifierService::guardVerdict(stateWith("Editor", 7265.9), std::nullopt)->reason,
              "away ~7265s — no check");
}

TEST(ClassifierGuards, ATaskOverrideBypassesEveryGuardButTheOwnWindow) {
    const std::optional<std::string> override = "review the draft";
    EXPECT_FALSE(ClassifierService::guardVerdict(stateWith("loginwindow"), override));
    EXPECT_FALSE(ClassifierService::guardVerdict(stateWith("Editor", 9000.0), override));
    ClassifierState stale = stateWith("Editor");
    stale.declaredTask = "old";
    stale.minutesSinceDeclared = 600.0;
    stale.minutesOverEstimate = 500.0;
    EXPECT_FALSE(ClassifierService::guardVerdict(stale, override));

    const auto own = ClassifierService::guardVerdict(stateWith(ClassifierSelfObservation::currentAppName), override);
    ASSERT_TRUE(own);
    EXPECT_EQ(own->state, "ABSTAINED");
    EXPECT_EQ(own->reason, ClassifierSelfObservation::abstainedReason);
}

TEST(ClassifierGuards, ADeclarationPastItsEstimateByFourHoursIsStale) {
    ClassifierState state = stateWith("Editor");
    state.declaredTask = "write";
    state.minutesSinceDeclared = 300.0;
    state.gapSinceLastPresentMinutes = 0.0;
    state.minutesOverEstimate = 239.9;
    EXPECT_FALSE(ClassifierService::guardVerdict(state, std::nullopt));
    state.minutesOverEstimate = 240.0;
    EXPECT_EQ(ClassifierService::guardVerdict(state, std::nullopt),
              (ClassifierJudgment{"NO_TASK", 1.0,
                                  "over 4h past your own estimate's end — treating the earlier declaration as stale "
                                  "rather than still judging against it"}));
    state.minutesOverEstimate = 659.0;
    EXPECT_EQ(ClassifierService::guardVerdict(state, std::nullopt)->reason.substr(0, 8), "over 10h");
}

TEST(ClassifierGuards, AnOldDeclarationIsStaleOnlyWithoutRecentPresence) {
    const std::string noActivity =
        "no activity for at least 4h — treating the earlier declaration as stale rather than still judging against it";
    ClassifierState state = stateWith("Editor");
    state.declaredTask = "write";
    state.minutesSinceDeclared = 300.0;
    state.gapSinceLastPresentMinutes = 0.0;  // present all along: the model decides
    EXPECT_FALSE(ClassifierService::guardVerdict(state, std::nullopt));
    state.gapSinceLastPresentMinutes = std::nullopt;  // away longer than the walk could see
    EXPECT_EQ(ClassifierService::guardVerdict(state, std::nullopt)->reason, noActivity);
    state.gapSinceLastPresentMinutes = 240.0;
    EXPECT_EQ(ClassifierService::guardVerdict(state, std::nullopt)->reason, noActivity);
    state.minutesSinceDeclared = 239.9;
    EXPECT_FALSE(ClassifierService::guardVerdict(state, std::nullopt));
}

TEST_F(ClassifierServiceTest, AGuardVerdictCallsNoModelAndDropsWhatWasPassedIn) {
    RedactionReport upstream;
    upstream.add(SensitiveIdentifierKind::ssn);
    const auto outcome = judge(stateWith("loginwindow"), std::nullopt, upstream,
                               ContentWithheldReason::frontmostAppDenylisted);
    EXPECT_FALSE(outcome.calledModel);
    EXPECT_EQ(outcome.judgment.confidence, 1.0);
    EXPECT_TRUE(outcome.redactions.empty());
    EXPECT_EQ(outcome.reasonCheck, Check::Result(Check::NotRun{}));
    EXPECT_FALSE(outcome.contentWithheldForDenylist);
    EXPECT_TRUE(outcome.privacyLogLines().empty());
    EXPECT_TRUE(server.requests().empty());
}

// --- the model path ---------------------------------------------------------------------------

TEST_F(ClassifierServiceTest, SendsOneRequestOfTheFixedShapeAndKeepsTheReplyAsItCame) {
    server.enqueue(chatPath, completion(R"({"state": "ON_TASK"})"));
    ClassifierState state = stateWith("Editor", 3.0);
    state.declaredTask = "write the report";
    const auto outcome = judge(state, std::nullopt, {}, ContentWithheldReason::anotherDenylistedAppWindowVisible);

    EXPECT_TRUE(outcome.calledModel);
    EXPECT_EQ(outcome.judgment, (ClassifierJudgment{"ON_TASK", 0.0, ""}));
    EXPECT_EQ(outcome.contentWithheldForDenylist, ContentWithheldReason::anotherDenylistedAppWindowVisible);
    ASSERT_EQ(server.requests(chatPath).size(), 1u);
    const auto body = server.requests(chatPath)[0].json();
    std::vector<std::string> keys;
    for (const auto& [key, value] : body.items()) keys.push_back(key);
    std::sort(keys.begin(), keys.end());
    EXPECT_EQ(keys, (std::vector<std::string>{"chat_template_kwargs", "max_tokens", "messages", "model",
                                              "response_format", "stream"}));
    EXPECT_EQ(body["model"], "judge-model");
    EXPECT_EQ(body["max_tokens"], 450);
    EXPECT_EQ(body["stream"], false);
    EXPECT_EQ(body["chat_template_kwargs"], nlohmann::ordered_json({{"enable_thinking", false}}));
    EXPECT_EQ(body["response_format"], nlohmann::ordered_json({{"type", "json_object"}}));
    EXPECT_EQ(body["messages"][0]["content"], ClassifierPrompt::systemPrompt);
    EXPECT_EQ(body["messages"][1]["content"],
              ClassifierPrompt::buildRedactedUserMessage(state, std::nullopt, std::nullopt, std::nullopt,
                                                         ContentWithheldReason::anotherDenylistedAppWindowVisible)
                  .message);
}

TEST_F(ClassifierServiceTest, AnUnknownStateAndAnOutOfRangeConfidencePassThrough) {
    server.enqueue(chatPath, completion(R"({"state": "", "confidence": 7, "reason": 12})"));
    EXPECT_EQ(judge(stateWith("Editor")).judgment, (ClassifierJudgment{"", 7.0, ""}));
}

TEST_F(ClassifierServiceTest, AReplyThatIsNotJSONRaisesWithItsFirstTwoHundredCharacters) {
    const std::string text = std::string(150, 'a') + std::string(50, 'b') + std::string(100, 'c');
    server.enqueue(chatPath, completion(text));
    try {
        judge(stateWith("Editor"));
        FAIL() << "judge succeeded";
    } catch (const ModelBackendError& error) {
        ASSERT_TRUE(error.asInvalidResponse());
        EXPECT_EQ(error.asInvalidResponse()->reason, "message.content was not valid JSON: " + text.substr(0, 200));
    }
}

TEST_F(ClassifierServiceTest, AServerErrorOfTheMainCallRaises) {
    server.enqueue(chatPath, Reply::json(500, R"({"error":{"code":500,"message":"boom","type":"server_error"}})"));
    EXPECT_THROW(judge(stateWith("Editor")), ModelBackendError);
}

TEST_F(ClassifierServiceTest, AnIdentifierInTheReasonIsRedactedAndCountedWithoutACheck) {
    server.enqueue(chatPath,
                   completion(R"({"state": "NOT_ALIGNED", "confidence": 0.8, "reason": "You typed 123-45-6789 \"here\""})"));
    const auto outcome = judge(stateWith("Editor"));
    EXPECT_EQ(outcome.judgment.reason.find("123-45-6789"), std::string::npos);
    EXPECT_NE(outcome.judgment.reason.find("[redacted SSN]"), std::string::npos);
    EXPECT_EQ(outcome.judgment.reason.find('"'), std::string::npos);  // no quotation mark survives
    EXPECT_EQ(outcome.redactions.count(SensitiveIdentifierKind::ssn), 1);
    EXPECT_EQ(outcome.reasonCheck, Check::Result(Check::NotRun{}));
    EXPECT_EQ(outcome.privacyLogLines(), (std::vector<std::string>{"redacted from classifier input: ssn x1"}));
    EXPECT_EQ(server.requests(chatPath).size(), 1u);
}

ClassifierState bankState() {
    ClassifierState state = stateWith("Firefox");
    state.browserApp = "Firefox";
    state.browserURL = "https://www.chase.com/accounts";
    state.browserTitle = "Accounts";
    state.declaredTask = "pay the rent";
    return state;
}

TEST_F(ClassifierServiceTest, AFinancialSiteAsksTheSmallCheckWhichKeepsAPlainReason) {
    server.enqueue(chatPath, completion(R"({"state": "ON_TASK", "confidence": 0.9, "reason": "Paying rent on the bank site."})"));
    server.enqueue(chatPath, completion(R"({"private": false})"));
    const auto outcome = judge(bankState());
    EXPECT_EQ(outcome.judgment, (ClassifierJudgment{"ON_TASK", 0.9, "Paying rent on the bank site."}));
    EXPECT_EQ(outcome.reasonCheck, Check::Result(Check::Kept{Check::Site{SensitiveSites::Category::financial}}));
    EXPECT_EQ(outcome.privacyLogLines(), (std::vector<std::string>{"reason privacy check (financial): kept"}));

    const auto requests = server.requests(chatPath);
    ASSERT_EQ(requests.size(), 2u);
    const auto check = requests[1].json();
    EXPECT_EQ(check["max_tokens"], 40);
    EXPECT_EQ(check["model"], "judge-model");
    EXPECT_EQ(check["messages"][0]["content"], Check::systemPrompt(Check::Site{SensitiveSites::Category::financial}));
    EXPECT_EQ(check["messages"][1]["content"], Check::userMessage("Paying rent on the bank site.", "pay the rent"));
}

TEST_F(ClassifierServiceTest, TheCheckFailsClosedCostingTheReasonAndNeverTheVerdict) {
    struct Case {
        Reply reply;
        std::string record;
    };
    const std::vector<Case> cases = {
        {completion(R"({"private": true})"), "replaced_flagged"},
        {completion(R"({"private": "false"})"), "replaced_no_verdict"},
        {completion(R"({})"), "replaced_no_verdict"},
        {completion("not json"), "replaced_failed:unparseable reply"},
        {Reply::json(503, R"({"error":{"code":503,"message":"busy","type":"unavailable_error"}})"),
         "replaced_failed:http 503"},
    };
    const Check::Trigger financial = Check::Site{SensitiveSites::Category::financial};
    for (const auto& c : cases) {
        server.enqueue(chatPath, completion(R"({"state": "NOT_ALIGNED", "confidence": 0.7, "reason": "Balance is $4,210."})"));
        server.enqueue(chatPath, c.reply);
        const auto outcome = judge(bankState());
        EXPECT_EQ(outcome.judgment, (ClassifierJudgment{"NOT_ALIGNED", 0.7, Check::genericReason(financial)}))
            << c.record;
        EXPECT_EQ(Check::recordValue(outcome.reasonCheck), c.record);
    }
}

TEST_F(ClassifierServiceTest, IdentifiersRemovedFromTheInputTriggerTheCheckWithTheOverrideAsIntention) {
    server.enqueue(chatPath, completion(R"({"state": "ON_TASK", "confidence": 0.6, "reason": "Filling in a form."})"));
    server.enqueue(chatPath, completion(R"({"private": false})"));
    RedactionReport upstream;
    upstream.add(SensitiveIdentifierKind::cardNumber, 2);
    ClassifierState state = stateWith("Editor");
    state.declaredTask = "ignored";
    const auto outcome = ClassifierService::judge(state, "file taxes for 123-45-6789", std::nullopt, std::nullopt,
                                                  upstream, std::nullopt, config(), session);
    EXPECT_EQ(outcome.reasonCheck, Check::Result(Check::Kept{Check::IdentifiersOnScreen{}}));
    EXPECT_EQ(outcome.redactions.count(SensitiveIdentifierKind::cardNumber), 2);
    const auto requests = server.requests(chatPath);
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1].json()["messages"][1]["content"],
              Check::userMessage("Filling in a form.", "file taxes for [redacted SSN]"));
}

TEST_F(ClassifierServiceTest, ATitleTriggerWithNoDeclarationSaysNoneDeclared) {
    server.enqueue(chatPath, completion(R"({"state": "NO_TASK", "confidence": 0.5, "reason": "Reading a statement."})"));
    server.enqueue(chatPath, completion(R"({"private": false})"));
    ClassifierState state = stateWith("Preview");
    state.frontmostWindowTitle = "Wells Fargo statement.pdf";
    const auto outcome = judge(state);
    EXPECT_EQ(outcome.reasonCheck, Check::Result(Check::Kept{Check::Site{SensitiveSites::Category::financial}}));
    const auto requests = server.requests(chatPath);
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_NE(requests[1].json()["messages"][1]["content"].get<std::string>().find("(none declared)"),
              std::string::npos);
}

TEST_F(ClassifierServiceTest, TheLoggedTickCarriesTheVerdictTheStateAndTheChecks) {
    ClassifierService::Outcome outcome;
    outcome.state = bankState();
    outcome.state.frontmostWindowTitle = "Chase";
    outcome.judgment = {"ON_TASK", 0.25, "fine"};
    outcome.reasonCheck = Check::Replaced{Check::IdentifiersOnScreen{}, Check::Failed{"transport error"}};
    outcome.contentWithheldForDenylist = ContentWithheldReason::frontmostAppDenylisted;
    const ClassifierTick tick = ClassifierService::loggedTick("2026-11-22T07:00:00", outcome, 42, "m");
    EXPECT_EQ(tick.at, "2026-11-22T07:00:00");
    EXPECT_EQ(tick.state, "ON_TASK");
    EXPECT_EQ(tick.confidence, 0.25);
    EXPECT_EQ(tick.frontmostWindowTitle, "Chase");
    EXPECT_EQ(tick.browserTitle, "Accounts");
    EXPECT_EQ(tick.declaredTask, "pay the rent");
    EXPECT_EQ(tick.screenshotAtMs, 42);
    EXPECT_EQ(tick.reasonCheck, "replaced_failed:transport error");
    EXPECT_EQ(tick.contentWithheldForDenylist, "frontmost_denylisted");

    outcome.reasonCheck = Check::NotRun{};
    outcome.contentWithheldForDenylist.reset();
    const ClassifierTick plain = ClassifierService::loggedTick("x", outcome, std::nullopt, "m");
    EXPECT_FALSE(plain.reasonCheck);
    EXPECT_FALSE(plain.contentWithheldForDenylist);
    EXPECT_EQ(plain.encoded().find("reason_check"), std::string::npos);
}

}  // namespace
}  // namespace aimwise
