// The capture agent on a real Wayland compositor: a headless sway with two foot terminals.
#include <gtest/gtest.h>

#include "CaptureShared/signals/signals_reader.h"
#include "agents/tests/agent_test_support.h"
#include "tests/support/sway_display.h"
#include "tests/support/temp_dir.h"

namespace aimwise::testing {
namespace {

class CaptureAgentWaylandTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (const auto missing = SwayDisplay::missing()) GTEST_SKIP() << *missing;
        sway.emplace(sandbox.temp / "sway.log");
    }
    AgentSandbox sandbox;
    std::optional<SwayDisplay> sway;
    std::filesystem::path agentLog = sandbox.temp / "agent.log";

    std::unique_ptr<ChildProcess> startAgent() const {
        auto environment = sandbox.environment();
        environment.merge(sway->environment());
        environment["DISPLAY"] = "";
        return std::make_unique<ChildProcess>(std::vector<std::string>{capturePath(), "--interval-ms", "200"},
                                              ChildProcess::Options{.environment = environment, .standardError = agentLog});
    }
    std::string agentMessages() const { return readFile(agentLog); }
    std::optional<std::string> front() const {
        if (count(sandbox.signals(), "ticks") == 0) return std::nullopt;
        const auto tick = SignalsReader::open(sandbox.signals()).latestTick();
        return tick ? tick->frontmostApp : std::nullopt;
    }
    // The window rows of the newest tick, front first.
    std::vector<Row> newestWindows() const {
        return query(sandbox.signals(),
                     "SELECT owner_name, title, x, y, width, height FROM windows WHERE ts_ms = (SELECT MAX(ts_ms) FROM "
                     "ticks) ORDER BY rowid");
    }
};

TEST_F(CaptureAgentWaylandTest, RecordsTheFocusedToplevelAndFollowsAFocusSwitch) {
    const auto first = sway->terminal("alpha.notes", "notes.md - first shell");
    const auto second = sway->terminal("beta.build", "make -j2 - second shell");
    auto agent = startAgent();

    // The newest window has focus; positions are unknown on wlroots and written as NULL.
    ASSERT_TRUE(eventually([&] { return front() == std::optional<std::string>("beta.build"); })) << agentMessages();
    EXPECT_EQ(newestWindows(), (std::vector<Row>{{"beta.build", "make -j2 - second shell", {}, {}, {}, {}},
                                                 {"alpha.notes", "notes.md - first shell", {}, {}, {}, {}}}));
    EXPECT_EQ(SignalsReader::open(sandbox.signals()).frontmostBundleId(SignalsReader::open(sandbox.signals()).latestTick()->tsMs),
              "beta.build");

    ASSERT_TRUE(sway->command("[app_id=\"alpha.notes\"] focus"));
    ASSERT_TRUE(eventually([&] { return front() == std::optional<std::string>("alpha.notes"); })) << agentMessages();
    EXPECT_EQ(newestWindows().front(), (Row{"alpha.notes", "notes.md - first shell", {}, {}, {}, {}}));

    // No input devices at all: the compositor's idle notice comes after its one-second threshold, and
    // without the pointer's position only the overall idle time is written.
    ASSERT_TRUE(eventually([&] {
        const auto rows = query(sandbox.signals(), "SELECT idle_any_sec FROM ticks ORDER BY ts_ms DESC LIMIT 1");
        return !rows.empty() && rows[0][0] && std::stod(*rows[0][0]) >= 1.0;
    }));
    EXPECT_EQ(query(sandbox.signals(), "SELECT COUNT(*) FROM ticks WHERE idle_key_sec IS NOT NULL OR mouse_x IS NOT NULL"),
              (std::vector<Row>{{"0"}}));
    EXPECT_EQ(agent->stop(), 0);

    const std::string log = agentMessages();
    EXPECT_NE(log.find("reading the Wayland desktop (wlroots compositor) through the compositor's toplevel list"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("window positions and sizes and the stacking order are not given"), std::string::npos) << log;
}

TEST_F(CaptureAgentWaylandTest, AClosedWindowLeavesTheListAndNoWindowMeansNoFront) {
    auto only = sway->terminal("gamma", "only window");
    auto agent = startAgent();
    ASSERT_TRUE(eventually([&] { return front() == std::optional<std::string>("gamma"); })) << agentMessages();
    only.reset();
    ASSERT_TRUE(eventually([&] { return !front() && newestWindows().empty(); })) << agentMessages();
    EXPECT_TRUE(agent->running());
}

}  // namespace
}  // namespace aimwise::testing
