// BoundedProcess against real children: what they print, how they end, and that a late one is
// stopped and reaped, with its own children, before run() returns.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "platform/bounded_process.h"

namespace aimwise {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Gone, or a zombie that nobody of ours holds: either way no longer running.
bool stillRunning(pid_t pid) {
    for (int i = 0; i < 100; ++i) {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string pidField, name, state;
        if (!(stat >> pidField >> name >> state) || state == "Z") return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

TEST(BoundedProcessFinished, CollectsBothStreamsAndTheExitStatus) {
    const auto outcome = BoundedProcess::run("sh", {"-c", "printf 'out\\nput'; printf err >&2; exit 3"}, 5.0);
    const auto* finished = std::get_if<BoundedProcess::Finished>(&outcome);
    ASSERT_NE(finished, nullptr) << BoundedProcess::describe(outcome);
    EXPECT_EQ(finished->exitStatus, 3);
    EXPECT_FALSE(finished->succeeded());
    EXPECT_EQ(finished->standardOutput, "out\nput");
    EXPECT_EQ(finished->standardError, "err");
    EXPECT_EQ(BoundedProcess::describe(outcome), "exit status 3");
}

TEST(BoundedProcessFinished, ReportsTheSignalThatEndedTheChild) {
    const auto outcome = BoundedProcess::run("sh", {"-c", "kill -SEGV $$"}, 5.0);
    const auto* finished = std::get_if<BoundedProcess::Finished>(&outcome);
    ASSERT_NE(finished, nullptr);
    EXPECT_EQ(finished->terminatingSignal, SIGSEGV);
    EXPECT_FALSE(finished->succeeded());
}

TEST(BoundedProcessFinished, StandardInputIsEmptySoAReaderDoesNotWait) {
    const auto outcome = BoundedProcess::run("cat", {}, 5.0);
    const auto* finished = std::get_if<BoundedProcess::Finished>(&outcome);
    ASSERT_NE(finished, nullptr);
    EXPECT_TRUE(finished->succeeded());
    EXPECT_EQ(finished->standardOutput, "");
}

TEST(BoundedProcessFinished, OutputBeyondTheLimitIsDroppedWithoutStallingTheChild) {
    BoundedProcess::Options options;
    options.outputLimitBytes = 1000;
    const auto start = Clock::now();
    const auto outcome = BoundedProcess::run("head", {"-c", "20000000", "/dev/zero"}, 10.0, options);
    const auto* finished = std::get_if<BoundedProcess::Finished>(&outcome);
    ASSERT_NE(finished, nullptr) << BoundedProcess::describe(outcome);
    EXPECT_TRUE(finished->succeeded());
    EXPECT_EQ(finished->standardOutput.size(), 1000u);
    EXPECT_LT(secondsSince(start), 5.0);
}

TEST(BoundedProcessFinished, AQuickChildIsNotHeldToTheDeadline) {
    const auto start = Clock::now();
    const auto outcome = BoundedProcess::run("true", {}, 30.0);
    EXPECT_TRUE(std::get<BoundedProcess::Finished>(outcome).succeeded());
    EXPECT_LT(secondsSince(start), 1.0);
}

TEST(BoundedProcessDeadline, ALateChildIsKilledAndReapedAtTheDeadline) {
    const auto start = Clock::now();
    const auto outcome = BoundedProcess::run("sh", {"-c", "echo $$; exec sleep 30"}, 0.3);
    const double elapsed = secondsSince(start);
    const auto* late = std::get_if<BoundedProcess::TimedOut>(&outcome);
    ASSERT_NE(late, nullptr) << BoundedProcess::describe(outcome);
    EXPECT_GE(elapsed, 0.3);
    EXPECT_LT(elapsed, 2.0);
    EXPECT_EQ(late->timeoutSec, 0.3);
    const pid_t pid = std::stoi(late->standardOutput);
    EXPECT_FALSE(stillRunning(pid));
    EXPECT_EQ(BoundedProcess::describe(outcome), "timed out after 0.3s");
}

TEST(BoundedProcessDeadline, AChildThatIgnoresTerminateIsKilledAfterTheGrace) {
    BoundedProcess::Options options;
    options.terminateGraceSec = 0.2;
    const auto start = Clock::now();
    const auto outcome =
        BoundedProcess::run("sh", {"-c", "trap '' TERM; echo $$; while :; do sleep 0.05; done"}, 0.2, options);
    const auto* late = std::get_if<BoundedProcess::TimedOut>(&outcome);
    ASSERT_NE(late, nullptr);
    EXPECT_LT(secondsSince(start), 2.0);
    EXPECT_FALSE(stillRunning(std::stoi(late->standardOutput)));
}

TEST(BoundedProcessDeadline, TheChildsOwnChildrenAreStoppedWithIt) {
    const auto outcome = BoundedProcess::run("sh", {"-c", "sleep 30 & echo $!; wait"}, 0.3);
    const auto* late = std::get_if<BoundedProcess::TimedOut>(&outcome);
    ASSERT_NE(late, nullptr);
    EXPECT_FALSE(stillRunning(std::stoi(late->standardOutput)));
}

TEST(BoundedProcessLaunch, AMissingProgramIsALaunchFailureNotAnExitStatus) {
    for (const std::string program : {"/nonexistent/aimwise-tool", "aimwise-no-such-tool-on-path"}) {
        const auto outcome = BoundedProcess::run(program, {}, 5.0);
        const auto* failed = std::get_if<BoundedProcess::LaunchFailed>(&outcome);
        ASSERT_NE(failed, nullptr) << program;
        EXPECT_NE(failed->reason.find(program), std::string::npos) << failed->reason;
    }
}

TEST(BoundedProcessLaunch, FindInPathReturnsAnExecutableOrNothing) {
    const auto sh = BoundedProcess::findInPath("sh");
    ASSERT_TRUE(sh);
    EXPECT_EQ(sh->front(), '/');
    EXPECT_FALSE(BoundedProcess::findInPath("aimwise-no-such-tool-on-path"));
    EXPECT_FALSE(BoundedProcess::findInPath("bin/sh"));
}

}  // namespace
}  // namespace aimwise
