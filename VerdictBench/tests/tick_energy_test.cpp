// The energy rows of a real tick: a judgment adds its run's times to the judged row, and a skip
// leaves its own short row, in a file of its own so that the judged rows stay one per verdict.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "CaptureShared/common/clock.h"
#include "tests/support/run_process.h"
#include "tests/support/scripted_model_server.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::ScriptedModelServer;
using json = nlohmann::json;

TEST(TickEnergyRows, AJudgedTickAndASkipEachLeaveTheirRow) {
    testing::TempDir dir;
    ScriptedModelServer server(ScriptedModelServer::Transport::tcp);
    testing::SignalsFixture signals(dir / "root" / "signals.sqlite");
    const int64_t ts = wallClockMs() - 5'000;
    signals.tick({.tsMs = ts, .frontmostApp = "Editor", .idleAnySec = 1.0});
    signals.window({.tsMs = ts, .ownerName = "Editor", .title = "notes.md"});
    server.enqueue("/v1/chat/completions",
                   ScriptedModelServer::Reply::json(
                       200, ScriptedModelServer::completionBody(
                                R"({"state": "ON_TASK", "confidence": 0.8, "reason": "ok"})")));
    testing::ProcessOptions options;
    options.environment = testing::verdictBenchEnvironment(dir.path(), server.baseURLString());
    options.environment["PATH"] = (dir / "bin").string() + ":/usr/bin:/bin";
    options.unset = {"DISPLAY",
                     "WAYLAND_DISPLAY",
                     "AIMCAP_CLASSIFY_MIN_INTERVAL_SEC",
                     "AIMCAP_CLASSIFY_MAX_INTERVAL_SEC",
                     "AIMCAP_CLASSIFY_REQUIRE_AC",
                     "AIMCAP_CALL_PAUSE"};
    for (int run = 0; run < 2; ++run) {
        const auto result = testing::runProcess(testing::verdictBenchPath(), {"tick"}, options);
        ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    }

    const json judged = json::parse(testing::readFile(dir / "root" / "classifier-tick-energy.jsonl"));
    EXPECT_EQ(judged["kind"], "judged");
    EXPECT_EQ(judged["v"], 1);
    EXPECT_GE(judged["wallMs"].get<int64_t>(),
              judged["endMs"].get<int64_t>() - judged["startMs"].get<int64_t>());
    EXPECT_GE(judged["cpuMs"].get<int64_t>(), 0);
    EXPECT_GE(judged["childCpuMs"].get<int64_t>(), 0);

    const json skipped = json::parse(testing::readFile(dir / "root" / "classifier-skip-energy.jsonl"));
    EXPECT_EQ(skipped["kind"], "skipped");
    EXPECT_GT(skipped["atMs"].get<int64_t>(), judged["atMs"].get<int64_t>());
    for (const char* key : {"wallMs", "cpuMs", "childCpuMs"}) EXPECT_TRUE(skipped.contains(key)) << key;
}

}  // namespace
}  // namespace aimwise
