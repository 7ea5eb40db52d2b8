// The statistics of the replay report, at their edges.
#include <gtest/gtest.h>

#include "VerdictBench/replay_statistics.h"

namespace aimwise {
namespace {

using namespace ReplayStatistics;

TEST(ReplayStatistics, WilsonIsExactAtItsEdgesAndNothingWithoutPoints) {
    EXPECT_FALSE(wilson95(0, 0));
    EXPECT_FALSE(wilson95(0, -3));
    EXPECT_EQ(formatCI(std::nullopt), "n/a");
    for (int n = 1; n <= 300; ++n) {
        EXPECT_EQ(wilson95(0, n)->lower, 0.0) << n;
        EXPECT_EQ(wilson95(n, n)->upper, 1.0) << n;
        EXPECT_LT(wilson95(0, n)->upper, 1.0) << n;
    }
    EXPECT_EQ(formatCI(wilson95(8, 10)), "[49.0%, 94.3%]");
    EXPECT_EQ(formatCI(wilson95(0, 4)), "[0.0%, 49.0%]");
    EXPECT_EQ(formatCI(wilson95(50, 100)), "[40.4%, 59.6%]");
}

TEST(ReplayStatistics, TheSignTestSumsTheSmallerTailTwiceAndClampsAtOne) {
    EXPECT_EQ(twoSidedSignTestP(3, 6), 1.0);
    EXPECT_EQ(twoSidedSignTestP(0, 0), 1.0);
    EXPECT_DOUBLE_EQ(twoSidedSignTestP(0, 5), 0.0625);
    EXPECT_DOUBLE_EQ(twoSidedSignTestP(5, 5), 0.0625);
    EXPECT_NEAR(twoSidedSignTestP(1, 10), 22.0 / 1024, 1e-15);
    EXPECT_NEAR(twoSidedSignTestP(9, 10), 22.0 / 1024, 1e-15);
    EXPECT_DOUBLE_EQ(twoSidedSignTestP(0, 1), 1.0);
    EXPECT_NEAR(twoSidedSignTestP(20, 100), 1.1159e-9, 1e-12);
}

TEST(ReplayStatistics, RecallPerClassIgnoresKeysThatAreNotOnePair) {
    const Confusion confusion = {{"ON_TASK->ON_TASK", 3},   {"ON_TASK->NOT_ALIGNED", 1}, {"IDLE->ON_TASK", 2},
                                 {"NO_TASK->", 1},          {"garbage", 9},              {"A->B->C", 4},
                                 {"NOT_ALIGNED->NOT_ALIGNED", 0}};
    const Recall recall = perClassRecall(confusion);
    EXPECT_EQ(recall.recalls, (std::vector<ClassRecall>{
                                  {"IDLE", 0, 2}, {"NOT_ALIGNED", 0, 0}, {"NO_TASK", 0, 1}, {"ON_TASK", 3, 4}}));
    EXPECT_DOUBLE_EQ(*recall.balanced, 0.75 / 3);
    EXPECT_EQ(renderPerClassRecall(confusion, "local"),
              "per-class recall (local):\n"
              "  IDLE: 0/2  (0.0%)\n"
              "  NOT_ALIGNED: 0/0  (n/a%)\n"
              "  NO_TASK: 0/1  (0.0%)\n"
              "  ON_TASK: 3/4  (75.0%)\n"
              "  balanced accuracy (mean per-class recall): 25.0%  <- compare this across arms, NOT raw accuracy\n");
    EXPECT_EQ(renderPerClassRecall({{"garbage", 1}}, "local"), "");
    EXPECT_FALSE(perClassRecall({}).balanced);
}

}  // namespace
}  // namespace aimwise
