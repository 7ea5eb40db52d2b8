#include "VerdictBench/print_state.h"

#include <gtest/gtest.h>

namespace aimwise {
namespace {

TEST(PrintStateTest, AbsentValuesShowNilAndNumbersTheirShortestForm) {
    ClassifierState state;
    state.tsMs = 1795327944000;
    state.frontmostApp = "Code";
    state.idleAnySec = 3.0;
    state.minutesSinceDeclared = 12.25;
    state.minutesOverEstimate = -0.1;
    EXPECT_EQ(cli::renderState(state),
              "ts_ms:                  1795327944000\n"
              "frontmost_app:          Code\n"
              "browser_app:            nil\n"
              "browser_title:          nil\n"
              "idle_any_sec:           3.0\n"
              "declared_task:          nil\n"
              "minutes_since_declared: 12.25\n"
              "estimate_minutes:       nil\n"
              "minutes_over_estimate:  -0.1\n");
}

TEST(PrintStateTest, DeclaredTaskShowsItsFirstEightyCharactersOnly) {
    ClassifierState state;
    std::string task;
    for (int i = 0; i < 85; ++i) task += (i < 79 ? "é" : "x");
    state.declaredTask = task;
    const std::string rendered = cli::renderState(state);
    std::string expected;
    for (int i = 0; i < 79; ++i) expected += "é";
    EXPECT_NE(rendered.find("declared_task:          " + expected + "x\n"), std::string::npos);
}

}  // namespace
}  // namespace aimwise
