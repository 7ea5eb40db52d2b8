#include "CaptureShared/dataroot/data_root_layout.h"

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;
using testing::writeFile;

TEST(DataRootLayoutTest, CoversFollowsTheInventory) {
    EXPECT_TRUE(DataRootLayout::covers("signals.sqlite-wal"));
    EXPECT_TRUE(DataRootLayout::covers("video"));
    EXPECT_TRUE(DataRootLayout::covers("video/display-1/segment.mkv"));
    EXPECT_TRUE(DataRootLayout::covers("memory/period-digests/x/y"));
    EXPECT_TRUE(DataRootLayout::covers("/io-layer//events.jsonl"));
    EXPECT_TRUE(DataRootLayout::covers("coach-fixtures/turn-3.json"));
    // A pattern needs something between prefix and suffix.
    EXPECT_FALSE(DataRootLayout::covers("video/display-"));
    EXPECT_FALSE(DataRootLayout::covers("coach-fixtures/turn-.json"));
    // A file is a leaf.
    EXPECT_FALSE(DataRootLayout::covers("io-layer/events.jsonl/x"));
    EXPECT_FALSE(DataRootLayout::covers(""));
    EXPECT_FALSE(DataRootLayout::covers("io-layer/notes.txt"));
    EXPECT_FALSE(DataRootLayout::covers("Signals.sqlite"));
}

TEST(DataRootLayoutTest, InventoryHasEveryEntryWithSidecars) {
    EXPECT_EQ(DataRootLayout::entries().size(), 40u);  // 34 entries, two databases with three sidecars each
    EXPECT_EQ(DataRootLayout::entries()[1].writer, "capture Signals; checker/set_task.py");
}

TEST(DataRootLayoutTest, RemovalDeletesOnlyWhatTheSystemWrote) {
    testing::TempDir dir;
    const fs::path root = dir / "root";
    for (const char* owned : {"signals.sqlite", "signals.sqlite-wal", "checker-log.jsonl", "io-layer/events.jsonl",
                              "video/display-1/a.mkv", "memory/period-digests/2026/w1.json",
                              "model-request-dumps/x.json"})
        writeFile(root / owned, "x");
    writeFile(root / "io-layer/my-notes.txt", "keep me");
    writeFile(root / "Photos/holiday.jpg", "keep me");
    fs::create_directories(root / "memory/standing-memory.json");  // a directory where a file belongs

    const auto removal = DataRootLayout::removeOwned(root, false);

    EXPECT_TRUE(removal.failures.empty());
    EXPECT_FALSE(removal.rootRemoved);
    EXPECT_TRUE(fs::exists(root / "io-layer/my-notes.txt"));
    EXPECT_TRUE(fs::exists(root / "Photos/holiday.jpg"));
    EXPECT_TRUE(fs::exists(root / "memory/standing-memory.json"));
    EXPECT_FALSE(fs::exists(root / "signals.sqlite"));
    EXPECT_FALSE(fs::exists(root / "video"));
    EXPECT_FALSE(fs::exists(root / "model-request-dumps"));
    EXPECT_EQ(removal.leftBehind,
              (std::vector<std::string>{(root / "Photos").string(), (root / "io-layer/my-notes.txt").string(),
                                        (root / "memory/standing-memory.json").string()}));
}

TEST(DataRootLayoutTest, RemovalTakesTheRootWhenOnlyOwnedFilesWereThere) {
    testing::TempDir dir;
    const fs::path root = dir / "root";
    writeFile(root / "io-layer/events.jsonl", "{}\n");
    writeFile(root / "manifest.json", "{}");
    const auto removal = DataRootLayout::removeOwned(root, false);
    EXPECT_TRUE(removal.rootRemoved);
    EXPECT_FALSE(fs::exists(root));
}

TEST(DataRootLayoutTest, ProtectedMachineDeletesNothing) {
    testing::TempDir dir;
    writeFile(dir / "signals.sqlite", "x");
    const auto removal = DataRootLayout::removeOwned(dir.path(), true);
    ASSERT_EQ(removal.failures.size(), 1u);
    EXPECT_EQ(removal.failures[0],
              dir.path().string() + " — This Mac is protected from purging recorded data, so nothing was deleted.");
    EXPECT_TRUE(fs::exists(dir / "signals.sqlite"));
}

}  // namespace
}  // namespace aimwise
