// The inotify watcher against real files: written in each way the system's writers and readers
// meet, and what it reports after each.
#include "platform/file_watcher.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <fstream>
#include <functional>

#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;
using testing::writeFile;

// What the watcher reports once its descriptor is readable, or nothing after `waitMs`.
std::vector<fs::path> nextEvents(FileWatcher& watcher, int waitMs = 2000) {
    pollfd fd{watcher.pollFd(), POLLIN, 0};
    if (::poll(&fd, 1, waitMs) <= 0) return {};
    return watcher.readEvents();
}

TEST(FileWatcher, SeesAFileAppendedReplacedByARenameCreatedLaterAndDeleted) {
    testing::TempDir dir;
    const fs::path events = dir / "events.jsonl", later = dir / "later.json";
    writeFile(events, "{}\n");
    const auto watcher = FileWatcher::create();
    watcher->watch(dir.path(), {"events.jsonl", "later.json"});
    EXPECT_TRUE(watcher->readEvents().empty());

    const auto append = [&] { std::ofstream(events, std::ios::app) << "{}\n"; };
    struct Row {
        const char* name;
        std::function<void()> act;
        std::vector<fs::path> expected;
    };
    const std::vector<Row> rows{
        {"appended", append, {events}},
        {"appended many times, reported once",
         [&] {
             for (int i = 0; i < 50; ++i) append();
         },
         {events}},
        {"replaced by a rename",
         [&] {
             writeFile(dir / "events.tmp", "{}\n");
             fs::rename(dir / "events.tmp", events);
         },
         {events}},
        {"appended after the replace", append, {events}},
        {"created after the start", [&] { writeFile(later, "{}"); }, {later}},
        {"two files at once, in order",
         [&] {
             append();
             writeFile(later, "[]");
         },
         {events, later}},
        {"deleted", [&] { fs::remove(later); }, {later}},
        {"another file in the directory", [&] { writeFile(dir / "other.txt", "x"); }, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        row.act();
        EXPECT_EQ(nextEvents(*watcher, row.expected.empty() ? 200 : 2000), row.expected);
    }
}

TEST(FileWatcher, AMissingDirectoryIsATypedError) {
    testing::TempDir dir;
    const auto watcher = FileWatcher::create();
    try {
        watcher->watch(dir / "absent", {"events.jsonl"});
        ADD_FAILURE() << "an absent directory was watched";
    } catch (const FileWatcherError& error) {
        EXPECT_EQ(error.description(),
                  "could not watch " + (dir / "absent").string() + ": No such file or directory");
    }
}

}  // namespace
}  // namespace aimwise
