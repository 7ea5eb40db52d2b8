// `shadow` and `shadow-compare` run as the built binary: a verdict recorded only in its own log, and
// those verdicts lined up against the classifier log.
#include <gtest/gtest.h>

#include <fmt/format.h>

#include "AimwiseCore/coach/projection_date_parsing.h"
#include "CaptureShared/common/local_time.h"
#include "tests/support/run_process.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;
using testing::ScriptedModelServer;

constexpr int64_t T = 1'782'898'215'000;
constexpr int64_t minute = 60'000;

class ShadowVerbs : public ::testing::Test {
protected:
    fs::path root() const { return dir / "root"; }
    testing::ProcessResult run(const std::vector<std::string>& arguments) {
        testing::ProcessOptions options;
        options.environment = testing::verdictBenchEnvironment(dir.path(), server.baseURLString());
        options.unset = {"DISPLAY", "WAYLAND_DISPLAY"};
        return testing::runProcess(testing::verdictBenchPath(), arguments, options);
    }
    void checker(std::initializer_list<std::pair<int64_t, const char*>> records, const std::string& extra = "") {
        std::string text = extra;
        for (const auto& [ms, state] : records)
            text += fmt::format(R"({{"at":"{}","state":"{}"}})" "\n", LocalTime::format(ms), state);
        testing::writeFile(root() / "checker-log.jsonl", text);
    }
    void shadow(std::initializer_list<std::pair<int64_t, const char*>> records) {
        std::string text = "not json\n{\"state\":\"IDLE\"}\n";
        for (const auto& [ms, state] : records) text += fmt::format(R"({{"tsMs":{},"state":"{}"}})" "\n", ms, state);
        testing::writeFile(root() / "classifier-shadow.jsonl", text);
    }

    testing::TempDir dir;
    ScriptedModelServer server{ScriptedModelServer::Transport::tcp};
};

TEST_F(ShadowVerbs, ShadowJudgesNowAndWritesOnlyItsOwnLog) {
    testing::SignalsFixture(root() / "signals.sqlite").tick({.tsMs = T, .frontmostApp = "Editor", .declaredTask = "plan"});
    testing::writeFile(root() / "io-layer" / "events.jsonl",
                       R"({"ts_ms":1782898000000,"kind":"event","type":"task_declared","detail":{"horizon_minutes":30},"source":"s"})"
                       "\n");
    server.enqueue("/v1/chat/completions",
                   ScriptedModelServer::Reply::json(200, ScriptedModelServer::completionBody(
                                                             R"({"state":"ON_TASK","confidence":0.8,"reason":"Planning."})")));
    const auto result = run({"shadow"});
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    const fs::path log = root() / "classifier-shadow.jsonl";
    EXPECT_EQ(result.standardOutput,
              "shadow verdict: ON_TASK (confidence 0.8, called_model true) — appended to " + log.string() + "\n");
    const std::string line = testing::readFile(log);
    EXPECT_EQ(line.substr(line.find(",\"calledModel\"")),
              R"(,"calledModel":true,"confidence":0.8,"declaredTask":"plan","frontmostApp":"Editor","reason":"Planning.","state":"ON_TASK","tsMs":1782898215000})"
              "\n");
    EXPECT_TRUE(ProjectionDateParsing::parseLocal(line.substr(7, 19)));
    for (const char* untouched : {"checker-log.jsonl", "classifier-cadence.json", "classifier-describe.jsonl",
                                  "classifier-tick-energy.jsonl"})
        EXPECT_FALSE(fs::exists(root() / untouched)) << untouched;

    fs::remove(root() / "signals.sqlite");
    testing::SignalsFixture(root() / "signals.sqlite");
    EXPECT_EQ(run({"shadow"}).standardError, "no tick data available — nothing to shadow-judge\n");
}

TEST_F(ShadowVerbs, CompareMatchesTheNearestCheckerRecordWithinTheTolerance) {
    checker({{T, "ON_TASK"}, {T + 20 * minute, "NOT_ALIGNED"}, {T + 40 * minute, "IDLE"}},
            "{\"at\":\"yesterday\",\"state\":\"IDLE\"}\n");
    shadow({{T + 2 * minute, "ON_TASK"}, {T + 14 * minute, "ON_TASK"}, {T + 31 * minute, "IDLE"}, {T + 90 * minute, "IDLE"}});
    struct Case {
        std::vector<std::string> arguments;
        std::string expected;
    };
    const std::string heading = "shadow records:  5\nchecker records: 3\n";
    for (const Case& c : std::vector<Case>{
             {{}, heading + "matched (within 10 min): 3\nagreed:                     2 / 3  (66.7%)\n"
                            "confusion (legacy->bench):\n  IDLE->IDLE: 1\n  NOT_ALIGNED->ON_TASK: 1\n  ON_TASK->ON_TASK: 1\n"},
             {{"5"}, heading + "matched (within 5 min): 1\nagreed:                     1 / 1  (100.0%)\n"
                               "confusion (legacy->bench):\n  ON_TASK->ON_TASK: 1\n"},
             {{"0.5"}, heading + "matched (within 0 min): 0\nagreed:                     0 / 0  (n/a)\n"
                                 "confusion (legacy->bench):\n"},
             {{"soon"}, heading + "matched (within 10 min): 3\n"},
         }) {
        const auto result = run([&] {
            std::vector<std::string> all{"shadow-compare"};
            all.insert(all.end(), c.arguments.begin(), c.arguments.end());
            return all;
        }());
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_EQ(result.standardOutput.substr(0, c.expected.size()), c.expected);
    }
}

TEST_F(ShadowVerbs, CompareRefusesWhenEitherSideIsEmpty) {
    checker({}, "{\"at\":\"never\",\"state\":\"IDLE\"}\n");
    auto result = run({"shadow-compare"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.standardError, "nothing to compare — run `bench run VerdictBench shadow` a few times first\n");
    shadow({{T, "IDLE"}});
    result = run({"shadow-compare"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.standardError, "checker-log.jsonl has no parseable records — nothing to compare against\n");
}

}  // namespace
}  // namespace aimwise
