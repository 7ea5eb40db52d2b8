// The Linux child runner against real children: it returns at once from start, reports each end
// through its poll descriptor, and stops a child past its deadline even when it ignores SIGTERM.
#include "platform/child_runner.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <map>

namespace aimwise {
namespace {

using Steady = std::chrono::steady_clock;

// Waits on the descriptor alone, as a loop would, until `count` children ended or ten seconds passed.
std::map<ChildRunner::Id, BoundedProcess::Outcome> waitForEnds(ChildRunner& runner, size_t count) {
    std::map<ChildRunner::Id, BoundedProcess::Outcome> ends;
    const auto giveUp = Steady::now() + std::chrono::seconds(10);
    while (ends.size() < count && Steady::now() < giveUp) {
        pollfd fd{runner.pollFd(), POLLIN, 0};
        if (::poll(&fd, 1, 10'000) <= 0) break;
        for (auto& end : runner.collect()) ends.emplace(end.id, std::move(end.outcome));
    }
    return ends;
}

TEST(ChildRunner, CollectsEachEndWithoutBlockingTheCaller) {
    const auto runner = ChildRunner::create();
    const auto started = Steady::now();
    const auto exits = runner->start("sh", {"-c", "exit 3"}, 5.0);
    const auto hangs = runner->start("sleep", {"30"}, 0.3);
    const auto ignoresTerm = runner->start("sh", {"-c", "trap '' TERM; sleep 30 & wait"}, 0.2);
    const auto missing = runner->start("/nonexistent/aimwise-tool", {"x"}, 5.0);
    EXPECT_LT(std::chrono::duration<double>(Steady::now() - started).count(), 0.5);
    EXPECT_EQ(runner->running(), 4u);

    const auto ends = waitForEnds(*runner, 4);
    ASSERT_EQ(ends.size(), 4u);
    EXPECT_EQ(BoundedProcess::describe(ends.at(exits)), "exit status 3");
    EXPECT_EQ(BoundedProcess::describe(ends.at(hangs)), "timed out after 0.3s");
    EXPECT_EQ(BoundedProcess::describe(ends.at(ignoresTerm)), "timed out after 0.2s");
    EXPECT_EQ(BoundedProcess::describe(ends.at(missing)),
              "could not start /nonexistent/aimwise-tool: No such file or directory");
    // Stopped at their deadlines plus the grace, not waited for.
    EXPECT_LT(std::chrono::duration<double>(Steady::now() - started).count(), 3.0);
    EXPECT_EQ(runner->running(), 0u);
    EXPECT_TRUE(runner->collect().empty());
}

}  // namespace
}  // namespace aimwise
