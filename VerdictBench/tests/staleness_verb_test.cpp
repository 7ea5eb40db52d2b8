// The `staleness` verb against fixture data roots, run in this process with a fake clock.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "AimwiseCore/classifier/cadence.h"
#include "CaptureShared/staleness/signals_staleness.h"
#include "VerdictBench/tests/verb_in_process.h"
#include "VerdictBench/verbs.h"
#include "tests/support/fake_clock.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::SignalsFixture;

// A data root and a support directory of its own, so that nothing of the machine leaks in.
class StalenessVerb : public ::testing::Test {
protected:
    testing::ProcessResult run() {
        testing::ProcessOptions options;
        options.environment = {{"AIMCAP_DATA_ROOT", root().string()},
                               {"XDG_DATA_HOME", (dir_ / "xdg").string()},
                               {"XDG_STATE_HOME", (dir_ / "state").string()},
                               {"HOME", (dir_ / "home").string()}};
        options.unset = {"AIMCAP_CLASSIFY_MIN_INTERVAL_SEC", "AIMCAP_CLASSIFY_MAX_INTERVAL_SEC"};
        cli::Invocation invocation = cli::splitArguments({"staleness"});
        invocation.clock = &clock_;
        startMs_ = clock_.wallMs();
        auto result = testing::runVerbInProcess([&] { return verbs::runStaleness(invocation); }, options);
        endMs_ = clock_.wallMs();
        return result;
    }

    std::filesystem::path root() const { return dir_ / "root"; }
    std::filesystem::path supportDir() const { return dir_ / "xdg" / "AimCapture"; }
    SignalsFixture signals() { return SignalsFixture(root() / "signals.sqlite"); }

    void writeCadence(int64_t lastRanAtMs) {
        ClassifierCadence::State state;
        state.lastRanAtMs = state.lastJudgedAtMs = state.runStartedAtMs = lastRanAtMs;
        state.lastVerdict = "ON_TASK";
        ClassifierCadence::write(state, root() / "classifier-cadence.json");
    }

    // The verb's own now, from its first line, checked against the test's clock around the run.
    int64_t printedNow(const std::string& output) {
        std::smatch match;
        EXPECT_TRUE(std::regex_search(output, match, std::regex("now: (-?[0-9]+)ms"))) << output;
        if (match.empty()) return 0;
        const int64_t now = std::stoll(match[1]);
        EXPECT_GE(now, startMs_);
        EXPECT_LE(now, endMs_);
        return now;
    }

    std::string latestLine(int64_t row, int64_t now) {
        return "latest tick: " + std::to_string(row) + "ms, now: " + std::to_string(now) +
               "ms, gap: " + SignalsStaleness::humanDuration(now - row) + "\n";
    }

    int64_t wallClockMs() const { return clock_.wallMs(); }

    testing::FakeClock clock_;
    testing::TempDir dir_;
    int64_t startMs_ = 0, endMs_ = 0;
};

TEST_F(StalenessVerb, AnEmptyDatabaseIsNotChecked) {
    signals();
    const auto result = run();
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "no rows in signals.sqlite — tick would report \"no signal data available\"\n");
}

TEST_F(StalenessVerb, ARecentRowIsFresh) {
    const int64_t row = wallClockMs() - 5'000;
    signals().tick({.tsMs = row, .frontmostApp = "Editor"});
    const auto result = run();
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    const int64_t now = printedNow(result.standardOutput);
    EXPECT_EQ(result.standardOutput, latestLine(row, now) + "fresh — tick would judge normally\n");
}

TEST_F(StalenessVerb, AStaleRowWithoutARecentWakeIsNotYetTrusted) {
    const int64_t row = wallClockMs() - 600'000;
    signals().tick({.tsMs = row}).tick({.tsMs = row - 1'500});
    const auto result = run();
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    const int64_t now = printedNow(result.standardOutput);
    EXPECT_EQ(result.standardOutput,
              latestLine(row, now) +
                  "last classifier wake: none recorded (regime-gap window: 240s)\n"
                  "stale but NOT YET trustworthy — plausibly the classifier's own first wake after a gap; tick would "
                  "judge normally this once and re-check next wake\n");
}

TEST_F(StalenessVerb, AStaleRowAfterARecentWakeIsConfirmedAndNothingIsWritten) {
    const int64_t row = wallClockMs() - 600'000;
    const int64_t lastRan = wallClockMs() - 30'000;
    signals().tick({.tsMs = row});
    writeCadence(lastRan);
    const std::string cadenceBefore = testing::readFile(root() / "classifier-cadence.json");

    const auto result = run();
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    const int64_t now = printedNow(result.standardOutput);
    EXPECT_EQ(result.standardOutput,
              latestLine(row, now) + "last classifier wake: " + std::to_string(lastRan) +
                  "ms (regime-gap window: 240s)\n"
                  "STALE and trustworthy — tick would REFUSE to judge and write/refresh the stale-signals note: " +
                  SignalsStaleness::reason(now - row, row) + "\n");
    EXPECT_FALSE(std::filesystem::exists(supportDir() / "signals-stale-note.json"));
    EXPECT_EQ(testing::readFile(root() / "classifier-cadence.json"), cadenceBefore);
}

TEST_F(StalenessVerb, ARowOlderThanAFreshRecordingPauseIsNotCurrent) {
    const int64_t row = wallClockMs() - 3'600'000;
    const int64_t pauseStart = wallClockMs() - 60'000;
    signals().tick({.tsMs = row});
    writeCadence(wallClockMs() - 10'000);
    testing::writeFile(supportDir() / "recording-pause.json",
                       "{\"requestedMs\": " + std::to_string(pauseStart) +
                           ", \"untilMs\": " + std::to_string(pauseStart + 7'200'000) + ", \"reason\": \"lunch\"}");

    const auto result = run();
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    // The line carries the verb's now only through the row's age; recover it within the run's bounds.
    bool matched = false;
    for (int64_t now = startMs_; now <= endMs_ && !matched; ++now)
        matched = result.standardOutput == "NOT CURRENT — tick would REFUSE to judge (no stale-signals note): " +
                                               SignalsStaleness::reasonPredatesPause(row, pauseStart, now) + "\n";
    EXPECT_TRUE(matched) << result.standardOutput;
}

TEST_F(StalenessVerb, AnUnopenableDatabaseFailsWithTheReadersError) {
    std::filesystem::create_directories(root());
    const auto result = run();
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(result.standardError, "FAIL: " + testing::missingSignals(root() / "signals.sqlite") + "\n");
}

}  // namespace
}  // namespace aimwise
