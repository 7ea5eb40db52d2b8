#include "agents/capture/tick_record.h"

#include <gtest/gtest.h>

namespace aimwise {
namespace {

DesktopSnapshot browsing() {
    DesktopSnapshot snapshot;
    DesktopWindow browser{.id = 2, .ownerName = "Firefox", .bundleId = "firefox", .pid = 10,
                          .title = "Budget \u2014 Mozilla Firefox", .x = 0, .y = 0, .width = 800, .height = 600};
    DesktopWindow editor{.id = 1, .ownerName = "Code", .bundleId = "Code", .title = "main.cpp"};
    snapshot.front = browser;
    snapshot.windows = {browser, editor};
    snapshot.idleSec = 3.0;
    snapshot.pointerX = 5;
    snapshot.pointerY = 6;
    return snapshot;
}

TEST(TickRecordTest, TheFrontBrowserFillsTheBrowserColumnsWithThePageTitle) {
    const TickRecord record =
        buildTickRecord(1000, browsing(), IdleSplit::Reading{1, 3, 3}, false, {}, std::string("Task: x\n"));
    EXPECT_EQ(record.frontmostApp, "Firefox");
    EXPECT_EQ(record.frontmostBundleId, "firefox");
    EXPECT_EQ(record.browserApp, "Firefox");
    EXPECT_EQ(record.browserTitle, "Budget");
    EXPECT_EQ(record.idleKeySec, 1.0);
    EXPECT_EQ(record.idleAnySec, 3.0);
    EXPECT_EQ(record.screenLocked, false);
    EXPECT_EQ(record.declaredTask, "Task: x\n");
    EXPECT_EQ(record.windows.size(), 2u);

    DesktopSnapshot editing = browsing();
    editing.front = editing.windows[1];
    const TickRecord other = buildTickRecord(1000, editing, std::nullopt, false, {}, std::nullopt);
    EXPECT_EQ(other.frontmostApp, "Code");
    EXPECT_EQ(other.browserApp, std::nullopt);
    EXPECT_EQ(other.browserTitle, std::nullopt);
    EXPECT_EQ(other.idleAnySec, std::nullopt);
}

TEST(TickRecordTest, ALockedScreenIsTheLoginWindowAndShowsNothingBehindIt) {
    const TickRecord locked = buildTickRecord(1000, browsing(), std::nullopt, true, {}, std::nullopt);
    EXPECT_EQ(locked.frontmostApp, "loginwindow");
    EXPECT_EQ(locked.frontmostBundleId, std::nullopt);
    EXPECT_EQ(locked.browserTitle, std::nullopt);
    EXPECT_TRUE(locked.windows.empty());

    // Without logind's word, a running screen saver counts as the lock.
    DesktopSnapshot saver = browsing();
    saver.screensaverActive = true;
    EXPECT_EQ(buildTickRecord(1000, saver, std::nullopt, std::nullopt, {}, std::nullopt).frontmostApp, "loginwindow");
    // logind's word wins over the screen saver.
    const TickRecord unlocked = buildTickRecord(1000, saver, std::nullopt, false, {}, std::nullopt);
    EXPECT_EQ(unlocked.frontmostApp, "Firefox");
    EXPECT_EQ(unlocked.screensaverActive, true);
}

TEST(TickRecordTest, AClearedTaskAndANamelessFrontWindowAreNull) {
    DesktopSnapshot nameless = browsing();
    nameless.front->ownerName.clear();
    const TickRecord record = buildTickRecord(1000, nameless, std::nullopt, false, {}, std::string());
    EXPECT_EQ(record.declaredTask, std::nullopt);
    EXPECT_EQ(record.frontmostApp, std::nullopt);
}

}  // namespace
}  // namespace aimwise
