// The capture agent against a real X server (Xvfb) with real client windows.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "CaptureShared/signals/signals_reader.h"
#include "agents/capture/capture_agent.h"
#include "agents/capture/wayland_notice.h"
#include "agents/tests/agent_test_support.h"
#include "tests/support/run_process.h"
#include "tests/support/x_display.h"

namespace aimwise::testing {
namespace {

class CaptureAgentTest : public ::testing::Test {
protected:
    AgentSandbox sandbox;
    XvfbDisplay xvfb{XvfbDisplay::Number::restartable, sandbox.temp / "xvfb.log"};
    std::filesystem::path agentLog = sandbox.temp / "agent.log";

    ProcessResult captureOnce() {
        return runProcess(capturePath(), {"--once"}, {.environment = sandbox.environment(xvfb.name())});
    }
    std::unique_ptr<ChildProcess> startAgent(std::vector<std::string> extra = {}) {
        std::vector<std::string> argv{capturePath(), "--interval-ms", "200"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        return std::make_unique<ChildProcess>(
            argv, ChildProcess::Options{.environment = sandbox.environment(xvfb.name()), .standardError = agentLog});
    }
    std::string agentMessages() const {
        std::ifstream in(agentLog);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    SignalsReader reader() const { return SignalsReader::open(sandbox.signals()); }
    int64_t latestTs() const { return reader().latestTick().value_or(SignalsReader::TickRow{}).tsMs; }
    static size_t occurrences(const std::string& text, const std::string& word) {
        size_t n = 0;
        for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++n;
        return n;
    }
};

// Titles are cleaned before they are kept; nothing in the data root holds the number afterwards.
TEST_F(CaptureAgentTest, ACardNumberInATitleNeverReachesTheDisk) {
    TestWindows windows(xvfb.name());
    const XWindowId shop = windows.create("Navigator", "firefox", "Pay 4111 1111 1111 1111 \u2014 Mozilla Firefox", 0, 0, 640, 480);
    windows.publishHints({windows.create("code", "Code", "card 4111-1111-1111-1111.txt - Code", 0, 0, 400, 300), shop}, shop);
    ASSERT_EQ(captureOnce().exitStatus, 0);
    EXPECT_EQ(query(sandbox.signals(), "SELECT title FROM windows ORDER BY rowid"),
              (std::vector<Row>{{"Pay [redacted card number] \u2014 Mozilla Firefox"},
                                {"card [redacted card number].txt - Code"}}));
    for (const auto& entry : std::filesystem::recursive_directory_iterator(sandbox.root))
        for (const char* form : {"1111 1111 1111", "1111-1111-1111", "111111111111"})
            EXPECT_TRUE(!entry.is_regular_file() || readFile(entry.path()).find(form) == std::string::npos)
                << entry.path() << " holds " << form;
}

TEST_F(CaptureAgentTest, OneSampleRecordsTheFrontWindowTheVisibleStackAndIdleTime) {
    TestWindows windows(xvfb.name());
    const XWindowId editor = windows.create("code", "Code", "notes.md - Code", 10, 20, 400, 300, 4242);
    const XWindowId browser = windows.create("Navigator", "firefox", "Hacker News \u2014 Mozilla Firefox", 300, 100, 640,
                                          480, 777);
    const XWindowId minimised = windows.create("gimp", "Gimp", "hidden picture", 0, 0, 200, 200);
    windows.unmap(minimised);
    windows.publishHints({editor, minimised, browser}, browser);
    windows.warpPointer(123, 456);
    windows.resetIdle();

    const ProcessResult run = captureOnce();
    ASSERT_EQ(run.exitStatus, 0) << run.standardError;

    const auto tick = reader().latestTick();
    ASSERT_TRUE(tick);
    EXPECT_EQ(tick->frontmostApp, "Firefox");
    EXPECT_EQ(tick->browserApp, "Firefox");
    EXPECT_EQ(tick->browserTitle, "Hacker News");
    EXPECT_EQ(tick->browserURL, std::nullopt);
    ASSERT_TRUE(tick->idleAnySec);
    EXPECT_LT(*tick->idleAnySec, 5.0);
    EXPECT_EQ(reader().frontmostBundleId(tick->tsMs), "firefox");

    const auto front = reader().contentWindow(tick->tsMs, "Firefox");
    ASSERT_TRUE(front);
    EXPECT_EQ(*front, (SignalsReader::WindowRow{"Hacker News \u2014 Mozilla Firefox", 300, 100, 640, 480, 0}));
    const auto behind = reader().contentWindow(tick->tsMs, "Code");
    ASSERT_TRUE(behind);
    EXPECT_EQ(*behind, (SignalsReader::WindowRow{"notes.md - Code", 10, 20, 400, 300, 0}));

    // Front to back, unmapped windows left out; pids and the pointer as the clients set them.
    const auto rows = query(sandbox.signals(), "SELECT owner_name, owner_pid, is_fullscreen FROM windows ORDER BY rowid");
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0], (Row{"Firefox", "777", "0"}));
    EXPECT_EQ(rows[1], (Row{"Code", "4242", "0"}));
    const auto pointer = query(sandbox.signals(), "SELECT mouse_x, mouse_y, screen_locked, screensaver_active FROM ticks");
    ASSERT_EQ(pointer.size(), 1u);
    EXPECT_EQ(pointer[0], (Row{"123.0", "456.0", "0", "0"}));
}

TEST_F(CaptureAgentTest, WithoutWindowManagerHintsTheFocusAndTheWindowTreeStandIn) {
    TestWindows windows(xvfb.name());
    const XWindowId terminal = windows.create("xterm", "XTerm", "make -j2", 0, 0, 500, 400, 31);
    windows.create("evince", "Evince", "paper.pdf", 520, 0, 600, 700, 32);
    windows.focus(terminal);

    ASSERT_EQ(captureOnce().exitStatus, 0);
    const auto tick = reader().latestTick();
    ASSERT_TRUE(tick);
    EXPECT_EQ(tick->frontmostApp, "XTerm");
    EXPECT_EQ(tick->browserApp, std::nullopt);
    // The tree lists windows bottom to top; the rows go front to back.
    const auto rows = query(sandbox.signals(), "SELECT owner_name, title, x, width FROM windows ORDER BY rowid");
    EXPECT_EQ(rows, (std::vector<Row>{{"Evince", "paper.pdf", "520.0", "600.0"}, {"XTerm", "make -j2", "0.0", "500.0"}}));
}

TEST_F(CaptureAgentTest, ARunningAgentFollowsMovesRetitlesFocusAndIdleTime) {
    TestWindows windows(xvfb.name());
    const XWindowId editor = windows.create("code", "Code", "notes.md - Code", 10, 20, 400, 300, 4242);
    const XWindowId browser = windows.create("chromium", "Chromium", "Docs - Chromium", 300, 100, 640, 480, 778);
    windows.publishHints({editor, browser}, browser);
    windows.resetIdle();
    auto agent = startAgent();
    ASSERT_TRUE(eventually([&] { return count(sandbox.signals(), "ticks") >= 2; })) << agentMessages();
    EXPECT_EQ(reader().latestTick()->browserTitle, "Docs");

    windows.moveResize(editor, 50, 60, 500, 350);
    windows.setTitle(editor, "report.md - Code");
    windows.setFullscreen(editor);
    windows.publishHints({browser, editor}, editor);
    ASSERT_TRUE(eventually([&] { return reader().latestTick()->frontmostApp == std::optional<std::string>("Code"); }));
    // The next sample certainly saw every change.
    const int64_t seen = latestTs();
    ASSERT_TRUE(eventually([&] { return latestTs() > seen; }));
    const auto tick = reader().latestTick();
    EXPECT_EQ(tick->browserApp, std::nullopt);
    EXPECT_EQ(reader().contentWindow(tick->tsMs, "Code"),
              (SignalsReader::WindowRow{"report.md - Code", 50, 60, 500, 350, 0}));
    const auto fullscreen = query(sandbox.signals(), "SELECT is_fullscreen FROM windows WHERE owner_name = 'Code' AND ts_ms = " +
                                                         std::to_string(tick->tsMs));
    EXPECT_EQ(fullscreen, (std::vector<Row>{{"1"}}));

    // Nobody touches anything: idle time grows, and starts again at the next input.
    std::this_thread::sleep_for(std::chrono::milliseconds(1600));
    EXPECT_GE(reader().latestTick()->idleAnySec.value_or(0), 1.2);
    windows.resetIdle();
    ASSERT_TRUE(eventually([&] { return reader().latestTick()->idleAnySec.value_or(99) < 0.8; }));
    EXPECT_EQ(agent->stop(), 0);
}

TEST_F(CaptureAgentTest, StopsWritingWhileTheDataRootIsAwayAndResumesWhenItReturns) {
    TestWindows windows(xvfb.name());
    windows.create("xterm", "XTerm", "shell", 0, 0, 300, 200);
    auto agent = startAgent({"--root-retry-sec", "1"});
    ASSERT_TRUE(eventually([&] { return count(sandbox.signals(), "ticks") >= 3; })) << agentMessages();

    // As an unmounted volume looks: the path is simply not there.
    const auto away = sandbox.temp / "unmounted";
    std::filesystem::rename(sandbox.root, away);
    ASSERT_TRUE(eventually([&] { return agentMessages().find("isn't mounted") != std::string::npos; }));
    const int64_t stopped = count(away / "signals.sqlite", "ticks");
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_EQ(count(away / "signals.sqlite", "ticks"), stopped) << "wrote into a data root that is gone";
    EXPECT_FALSE(std::filesystem::exists(sandbox.root)) << "recreated the missing root";
    EXPECT_EQ(occurrences(agentMessages(), "isn't mounted"), 1u) << agentMessages();

    std::filesystem::rename(away, sandbox.root);
    ASSERT_TRUE(eventually([&] { return count(sandbox.signals(), "ticks") > stopped + 2; })) << agentMessages();
    EXPECT_TRUE(agent->running());
}

TEST_F(CaptureAgentTest, SurvivesTheXServerGoingAwayAndComingBack) {
    {
        auto agent = startAgent();
        {
            TestWindows windows(xvfb.name());
            windows.create("xterm", "XTerm", "before", 0, 0, 300, 200);
            ASSERT_TRUE(eventually([&] { return count(sandbox.signals(), "ticks") >= 2; })) << agentMessages();
        }

        xvfb.kill();
        ASSERT_TRUE(eventually([&] { return agentMessages().find("lost the connection") != std::string::npos; }))
            << agentMessages();
        const int64_t before = count(sandbox.signals(), "ticks");
        std::this_thread::sleep_for(std::chrono::milliseconds(800));
        EXPECT_EQ(count(sandbox.signals(), "ticks"), before) << "wrote samples without a display";
        EXPECT_TRUE(agent->running());

        xvfb.restart();
        TestWindows after(xvfb.name());
        after.create("evince", "Evince", "after", 0, 0, 300, 200);
        ASSERT_TRUE(eventually(
            [&] {
                const auto rows = query(sandbox.signals(), "SELECT COUNT(*) FROM windows WHERE title = 'after'");
                return !rows.empty() && rows[0][0] != "0";
            },
            15000))
            << agentMessages();
        EXPECT_EQ(agent->stop(), 0);
    }
}

TEST_F(CaptureAgentTest, NoDisplayMeansNoRowsAndAClearMessage) {
    auto env = sandbox.environment();
    const ProcessResult run = runProcess(capturePath(), {"--once"}, {.environment = env, .unset = {"DISPLAY"}});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.standardError.find("DISPLAY is not set"), std::string::npos) << run.standardError;
    EXPECT_FALSE(std::filesystem::exists(sandbox.signals()));
}

TEST(WaylandNoticeTest, AWaylandSessionIsToldWhatCanBeSeen) {
    EXPECT_EQ(waylandNotice({{"XDG_SESSION_TYPE", "x11"}, {"DISPLAY", ":0"}}), std::nullopt);
    EXPECT_EQ(waylandNotice({{"WAYLAND_DISPLAY", ""}}), std::nullopt);
    for (const Environment& wayland : {Environment{{"XDG_SESSION_TYPE", "wayland"}}, Environment{{"WAYLAND_DISPLAY", "wayland-0"}}}) {
        const auto notice = waylandNotice(wayland);
        ASSERT_TRUE(notice);
        EXPECT_NE(notice->find("only applications running through XWayland"), std::string::npos);
    }
}

}  // namespace
}  // namespace aimwise::testing
