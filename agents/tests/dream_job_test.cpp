// aimwise-dream run as the timer runs it, against the scripted model server, and `aimwise memory forget`.
#include "agents/dream/dream_job.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "AimwiseCore/events/event_log_writer.h"
#include "AimwiseCore/memory/dream_lock.h"
#include "AimwiseCore/memory/dream_return_watch.h"
#include "AimwiseCore/memory/memory_store.h"
#include "AimwiseCore/models/model_backend_factory.h"
#include "agents/tests/agent_test_support.h"
#include "tests/support/run_process.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/signals_fixtures.h"

namespace aimwise::testing {
namespace {

namespace fs = std::filesystem;
using Reply = ScriptedModelServer::Reply;

std::string dreamPath() {
    return std::string(AIMWISE_BINARY_DIR) + "/bin/aimwise-dream";
}

// Answers each of the pass's three kinds of call as a model that does its job would.
Reply consolidationReply(const ScriptedModelServer::Request& request) {
    const std::string message = request.json()["messages"][0]["content"].get<std::string>();
    std::string reply;
    if (message.starts_with("Below is one operational period"))
        reply =
            R"({"summary": "Drafted.", "facts": [{"text": "Writes the thesis in the mornings", "provenance": "asserted", "source_lines": [1]}], "lessons": ["Naming the next step helped"]})";
    else
        reply =
            R"({"threads": [{"name": "thesis", "status": "active", "notes": "drafting"}], "keep_fact_indices": [0], "lessons": ["Naming the next step helped"]})";
    return Reply::json(200, ScriptedModelServer::completionBody(reply));
}

class DreamJobTest : public ::testing::Test {
protected:
    void SetUp() override {
        const int64_t now = wallClockMs();
        for (int daysAgo = 3; daysAgo >= 1; --daysAgo)
            EventLogWriter::append(
                {.tsMs = now - daysAgo * 86'400'000,
                 .type = "app_chat_message",
                 .detail = JSONValue::Object{{"role", "user"}, {"text", "mornings are for the thesis"}}},
                sandbox.root / "io-layer/events.jsonl");
    }
    ProcessResult dream(const std::vector<std::string>& arguments) {
        auto env = sandbox.environment();
        env["AIMCAP_LOCAL_INFERENCE_ENDPOINT"] = server.baseURLString();
        return runProcess(dreamPath(), arguments, {.environment = env});
    }
    static bool says(const ProcessResult& result, const std::string& text) {
        return result.standardOutput.find(text) != std::string::npos;
    }
    AgentSandbox sandbox;
    ScriptedModelServer server{ScriptedModelServer::Transport::tcp};
};

TEST_F(DreamJobTest, ANightlyRunMakesDigestsAndBothStandingMemoriesThenHolds) {
    server.setHandler("/v1/chat/completions", consolidationReply);
    const ProcessResult night = dream({"--once"});
    EXPECT_EQ(night.exitStatus, 0) << night.standardOutput << night.standardError;
    EXPECT_TRUE(says(night, "starting: 3 period(s) to digest, and no sign of anyone at the machine"));
    EXPECT_TRUE(says(night, "done: 3 period(s) digested, and the standing memory is up to date"));
    EXPECT_TRUE(says(night, "done: 3 digest(s) folded into the sequential memory"));

    const auto digests = MemoryStore::readAllDigests(sandbox.root);
    ASSERT_EQ(digests.size(), 3u);
    EXPECT_EQ(digests[0].facts.at(0).sourceEventTsMs.size(), 1u);
    const auto standing = MemoryStore::readStandingMemory(sandbox.root);
    ASSERT_TRUE(standing);
    EXPECT_EQ(standing->threads.at(0).name, "thesis");
    EXPECT_EQ(standing->digestCount, 3);
    const auto sequential = MemoryStore::readSequentialMemoryState(sandbox.root);
    ASSERT_TRUE(sequential);
    EXPECT_EQ(sequential->foldedPeriodStartsTsMs.size(), 3u);
    EXPECT_EQ(server.requests("/v1/chat/completions").size(), 7u)
        << "three digests, one regeneration, three folds";

    const ProcessResult again = dream({});
    EXPECT_EQ(again.exitStatus, 0);
    EXPECT_TRUE(says(again, "held: no pending periods -- memory is up to date")) << again.standardOutput;
}

TEST_F(DreamJobTest, ASecondProcessIsRefusedByTheLockEvenWhenForced) {
    const LockAcquisition held = acquireDreamLock(sandbox.root);
    ASSERT_TRUE(held.acquired());
    const ProcessResult refused = dream({"--force"});
    EXPECT_EQ(refused.exitStatus, 0);
    EXPECT_TRUE(says(refused, "held: another process is consolidating memory right now"))
        << refused.standardOutput;
    EXPECT_TRUE(server.requests().empty());
    EXPECT_TRUE(MemoryStore::readAllDigests(sandbox.root).empty());
    EXPECT_EQ(dream({"--later"}).exitStatus, 2);
}

TEST_F(DreamJobTest, APassStandsDownWithinASecondOfThePersonComingBack) {
    const int64_t since = 1'000'000;
    const auto tick = [&](int64_t ms, const char* app, double idleSec) {
        return SignalsReader::TickRow{.tsMs = ms, .frontmostApp = app, .idleAnySec = idleSec};
    };
    EXPECT_TRUE(DreamReturnWatch::showsReturn(tick(since + 5'000, "Code", 1), since));
    EXPECT_FALSE(DreamReturnWatch::showsReturn(tick(since + 5'000, "Code", 6), since))
        << "input from before the pass";
    EXPECT_FALSE(DreamReturnWatch::showsReturn(tick(since + 5'000, "loginwindow", 0), since));

    SignalsFixture signals(sandbox.signals());
    signals.tick({.tsMs = wallClockMs() - 600'000, .frontmostApp = "loginwindow", .idleAnySec = 600});
    server.enqueue("/v1/chat/completions", Reply{.ending = Reply::Ending::hang});
    std::function<bool()> keepWaiting;
    std::string out;
    DreamJob::Services services{.dataRoot = sandbox.root,
                                .readGuardrails = [] { return DreamGuardrails::Snapshot{}; },
                                .out = [&](const std::string& line) { out += line + "\n"; }};
    services.makeBackend = [&](std::function<bool()> shouldKeepWaiting, const DreamJob::Log& log) {
        keepWaiting = shouldKeepWaiting;
        return ModelBackendFactory::forConsolidation({{"AIMCAP_LOCAL_INFERENCE_ENDPOINT", server.baseURLString()}},
                                                     shouldKeepWaiting, log, std::nullopt);
    };
    std::chrono::steady_clock::time_point cameBack;
    std::thread person([&] {
        ASSERT_TRUE(server.waitForRequests(1, 10'000));
        signals.tick({.tsMs = wallClockMs(), .frontmostApp = "Code", .idleAnySec = 0});
        cameBack = std::chrono::steady_clock::now();
    });
    const int exitStatus = DreamJob::runOnce({}, services);
    const auto stoodDown = std::chrono::steady_clock::now();
    person.join();
    EXPECT_EQ(exitStatus, 0);
    EXPECT_LT(stoodDown - cameBack, std::chrono::milliseconds(1500))
        << "the model call in flight was abandoned";
    EXPECT_NE(out.find("stood down: someone is at the machine again"), std::string::npos) << out;
    EXPECT_FALSE(keepWaiting()) << "a retry wait would end too";
    EXPECT_TRUE(MemoryStore::readAllDigests(sandbox.root).empty()) << "the period is left for the next run";
}

TEST_F(DreamJobTest, ForgettingIsRecordedAndHonouredOnReadWithoutTouchingTheDigests) {
    MemoryStore::writeStandingMemory({.regeneratedAtTsMs = 1,
                                      .digestCount = 1,
                                      .facts = {{"Works at ACME Corp", MemoryFactProvenance::asserted, {}},
                                                {"Runs at dawn", MemoryFactProvenance::inferred, {}}}},
                                     sandbox.root);
    auto env = sandbox.environment();
    const ProcessResult forgot =
        runProcess(aimwisePath(), {"memory", "forget", "acme", "corp"}, {.environment = env});
    EXPECT_EQ(forgot.exitStatus, 0);
    EXPECT_EQ(
        forgot.standardOutput,
        "Noted. From now on the coach's memory leaves out every fact, lesson and thread that mentions \"acme "
        "corp\", whatever the case. In the standing memory that hides 1 fact, 0 lessons and 0 threads. The "
        "nightly digests stay on disk as they were and are filtered whenever they are read, so nothing that "
        "mentions it comes back into a new memory.\n");
    const std::string shown = runProcess(aimwisePath(), {"memory"}, {.environment = env}).standardOutput;
    EXPECT_EQ(shown.find("ACME"), std::string::npos);
    EXPECT_NE(shown.find("Runs at dawn"), std::string::npos);
    EXPECT_NE(shown.find("1 item left out because you asked to forget what they mention."),
              std::string::npos);
    EXPECT_EQ(runProcess(aimwisePath(), {"memory", "forget", " "}, {.environment = env}).exitStatus, 2);
}

}  // namespace
}  // namespace aimwise::testing
