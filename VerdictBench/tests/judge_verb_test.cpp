// `judge`, `prompt` and `estimate-selftest` run as the built binary against fixture data roots and
// the scripted model server.
#include <gtest/gtest.h>

#include "AimwiseCore/classifier/classifier_prompt.h"
#include "AimwiseCore/classifier/classifier_service.h"
#include "AimwiseCore/models/model_backend_error.h"
#include "VerdictBench/print_state.h"
#include "tests/support/run_process.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::ScriptedModelServer;
using Reply = ScriptedModelServer::Reply;

constexpr int64_t T = 1'700'000'000'000;  // 2023-11-14T22:13:20Z
constexpr const char* at = "2023-11-14T22:13:20Z";
constexpr const char* chatPath = "/v1/chat/completions";

class ClassifierVerbs : public ::testing::Test {
protected:
    ClassifierVerbs() : server(ScriptedModelServer::Transport::tcp) {}

    testing::ProcessResult run(const std::vector<std::string>& arguments) {
        testing::ProcessOptions options;
        options.environment = testing::verdictBenchEnvironment(dir.path(), server.baseURLString());
        // No display: a live judgment captures nothing here.
        options.unset = {"DISPLAY", "WAYLAND_DISPLAY"};
        return testing::runProcess(testing::verdictBenchPath(), arguments, options);
    }

    std::filesystem::path root() const { return dir / "root"; }
    testing::SignalsFixture& signals() {
        if (!fixture) fixture.emplace(root() / "signals.sqlite");
        return *fixture;
    }
    ClassifierState stateAt(std::optional<int64_t> asOf) {
        const SignalsReader reader = SignalsReader::open(root() / "signals.sqlite");
        LazyHTTPSession session;
        return *ClassifierService::buildState(reader, nullptr, root() / "signals.sqlite", asOf, session);
    }
    void reply(const std::string& content) {
        server.enqueue(chatPath, Reply::json(200, ScriptedModelServer::completionBody(content)));
    }
    // The user message of the one judgment the server received.
    std::string sentUserMessage() {
        const auto requests = server.requests(chatPath);
        EXPECT_EQ(requests.size(), 1u);
        return requests.empty() ? "" : requests[0].json()["messages"][1]["content"].get<std::string>();
    }

    testing::TempDir dir;
    ScriptedModelServer server;
    std::optional<testing::SignalsFixture> fixture;
};

TEST_F(ClassifierVerbs, AnEmptyDatabaseHasNoTickDataAtNowOrAtTheGivenInstant) {
    signals();
    auto result = run({"judge"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.standardOutput, "io-layer events.jsonl: unavailable\n");
    EXPECT_EQ(result.standardError, "no tick data available at now\n");

    result = run({"prompt", at});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(result.standardError, std::string("no tick data available at ") + at + "\n");
}

TEST_F(ClassifierVerbs, AWindowContentFlagWithNoValueIsReadAsATimestamp) {
    signals().tick({.tsMs = T, .frontmostApp = "Editor"});
    for (const char* verb : {"judge", "prompt"}) {
        const auto result = run({verb, "--window-content"});
        EXPECT_EQ(result.exitStatus, 1) << verb;
        EXPECT_EQ(result.standardError, "could not parse timestamp: --window-content\n") << verb;
    }
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(ClassifierVerbs, AMissingDatabaseFailsWithTheReadersError) {
    std::filesystem::create_directories(root());
    const auto result = run({"judge"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.standardError, "FAIL: " + testing::missingSignals(root() / "signals.sqlite") + "\n");
}

TEST_F(ClassifierVerbs, JudgeAtAPastInstantShowsThatRowCapturesNothingAndWritesNothing) {
    signals()
        .tick({.tsMs = T - 60'000, .frontmostApp = "Editor", .idleAnySec = 3.0, .declaredTask = "draft the memo"})
        .tick({.tsMs = T + 60'000, .frontmostApp = "Mail"})
        .estimateCache("draft the memo", 45.0);
    testing::writeFile(root() / "io-layer" / "events.jsonl",
                       R"({"ts_ms":1,"kind":"event","type":"a","detail":{},"source":"s"})"
                       "\nnot a line\n"
                       R"({"ts_ms":2,"kind":"event","type":"b","detail":{},"source":"s"})"
                       "\n");
    reply(R"({"state": "ON_TASK", "confidence": 0.75, "reason": "You are drafting the memo."})");

    const auto result = run({"judge", "--settled", at});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    const ClassifierState state = stateAt(T);
    EXPECT_EQ(state.frontmostApp, "Editor");
    EXPECT_EQ(result.standardOutput, "io-layer events.jsonl: 2 events\n" + cli::renderState(state) +
                                         "\nwindow_content: nil\n\n"
                                         "called_model: true\n"
                                         "state:        ON_TASK\n"
                                         "confidence:   0.75\n"
                                         "reason:       You are drafting the memo.\n");
    EXPECT_EQ(result.standardError, "");
    EXPECT_EQ(sentUserMessage(), ClassifierPrompt::buildRedactedUserMessage(state).message);
    for (const char* written : {"checker-log.jsonl", "classifier-cadence.json", "classifier-tick-energy.jsonl",
                                "classifier-describe.jsonl"})
        EXPECT_FALSE(std::filesystem::exists(root() / written)) << written;
}

TEST_F(ClassifierVerbs, GivenWindowContentWinsOverNoWindowContent) {
    signals().tick({.tsMs = T, .frontmostApp = "Editor"});
    reply(R"({"state": "ON_TASK", "confidence": 1, "reason": "Reading."})");
    const auto result = run({"judge", "--no-window-content", "--window-content", "reading the docs", at});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_NE(result.standardOutput.find("\nwindow_content: reading the docs\n\n"), std::string::npos);
    EXPECT_EQ(sentUserMessage(),
              ClassifierPrompt::buildRedactedUserMessage(stateAt(T), std::nullopt, "reading the docs").message);
}

TEST_F(ClassifierVerbs, AGuardVerdictCallsNoModel) {
    signals().tick({.tsMs = T, .frontmostApp = "loginwindow"});
    const auto result = run({"judge", at});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_NE(result.standardOutput.find("called_model: false\nstate:        IDLE\nconfidence:   1.0\n"
                                         "reason:       screen locked (loginwindow) — not in use\n"),
              std::string::npos)
        << result.standardOutput;
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(ClassifierVerbs, PrivacyLinesGoToStandardErrorWithoutTheRedactedValue) {
    signals().tick({.tsMs = T, .frontmostApp = "Editor"});
    reply(R"({"state": "NOT_ALIGNED", "confidence": 0.5, "reason": "You typed 123-45-6789."})");
    const auto result = run({"judge", at});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardError, "redacted from classifier input: ssn x1\n");
    EXPECT_EQ(result.standardOutput.find("123-45-6789"), std::string::npos);
    EXPECT_NE(result.standardOutput.find("reason:       You typed [redacted SSN].\n"), std::string::npos);
}

TEST_F(ClassifierVerbs, AFailedModelCallEndsWithTheError) {
    signals().tick({.tsMs = T, .frontmostApp = "Editor"});
    server.enqueue(chatPath, Reply::json(200, ScriptedModelServer::completionBody("no json here")));
    const auto result = run({"judge", at});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.standardOutput.find("window_content: nil"), std::string::npos);
    EXPECT_EQ(result.standardError, "FAIL: " +
                                        ModelBackendError::invalidResponse(
                                            "message.content was not valid JSON: no json here")
                                            .description() +
                                        "\n");
}

TEST_F(ClassifierVerbs, PromptPrintsExactlyTheUserMessageAndIgnoresNoWindowContent) {
    signals().tick({.tsMs = T, .frontmostApp = "Editor", .declaredTask = "draft"}).estimateCache("draft", 30.0);
    const auto result = run({"prompt", "--no-window-content", at, "--window-content", "a spreadsheet"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput,
              ClassifierPrompt::buildRedactedUserMessage(stateAt(T), std::nullopt, "a spreadsheet").message + "\n");
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(ClassifierVerbs, EstimateSelftestAsksOnceAndCachesTheAnswer) {
    signals();
    auto result = run({"estimate-selftest"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.standardError, "usage: estimate-selftest <declared-task-text>\n");

    reply(R"({"has_estimate": true, "estimated_minutes": 90, "reason": "an hour and a half"})");
    result = run({"estimate-selftest", "write for 90 minutes"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "minutes: 90.0\nreason: an hour and a half\n");
    EXPECT_EQ(SignalsReader::open(root() / "signals.sqlite").cachedEstimateMinutes("write for 90 minutes").minutes,
              90.0);

    server.enqueue(chatPath, Reply::json(200, ScriptedModelServer::completionBody("[1]")));
    result = run({"estimate-selftest", "open-ended"});
    EXPECT_EQ(result.standardOutput,
              "minutes: nil\nreason: estimate parse failed (treating as no estimate): model reply was not a JSON "
              "object: [1]\n");
}

}  // namespace
}  // namespace aimwise
