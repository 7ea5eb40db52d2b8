// Reading the files we own when something else stands in their place, and what an atomic write
// leaves behind.
#include "CaptureShared/common/atomic_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <functional>

#include "CaptureShared/common/line_append.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::TempDir;
using testing::writeFile;

// A named pipe with no writer, an endless device behind a link, a directory: each is refused at
// once, by every reader and by the appender, never waited on or read without end.
TEST(BoundedRead, AnythingButARegularFileEndsAtOnceAsUnreadable) {
    TempDir dir;
    const std::vector<std::pair<std::string, std::function<void(const fs::path&)>>> standIns{
        {"fifo", [](const fs::path& at) { ASSERT_EQ(::mkfifo(at.c_str(), 0600), 0); }},
        {"zero", [](const fs::path& at) { fs::create_symlink("/dev/zero", at); }},
        {"directory", [](const fs::path& at) { fs::create_directory(at); }},
    };
    for (const auto& [name, make] : standIns) {
        SCOPED_TRACE(name);
        const fs::path path = dir / name;
        make(path);
        const auto started = std::chrono::steady_clock::now();
        EXPECT_THROW(readWholeFile(path, ReadLimit::setting), fs::filesystem_error);
        EXPECT_THROW(readFileTail(path), fs::filesystem_error);
        EXPECT_FALSE(LineAppend::append(path, "{}\n").ok());
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(1));
    }
}

TEST(BoundedRead, ASettingPastItsLimitIsRefusedAndALogIsReadFromItsNewestWholeLines) {
    TempDir dir;
    writeFile(dir / "log", "first line\nsecond\nthird\n");
    EXPECT_THROW(readWholeFile(dir / "log", 10), fs::filesystem_error);
    EXPECT_EQ(readWholeFile(dir / "log", 24), "first line\nsecond\nthird\n");
    // The window starts inside "second": that piece is not a record.
    EXPECT_EQ(readFileTail(dir / "log", 10), "third\n");
    EXPECT_EQ(readFileTail(dir / "log", 100), "first line\nsecond\nthird\n");
}

// A line cut short by a full disk or a killed writer does not swallow the next one.
TEST(LineAppendTest, ALineAfterACutOneStartsOnItsOwnLine) {
    TempDir dir;
    writeFile(dir / "log", "{\"a\":1}\n{\"cut\":");
    const LineAppend::Result result = LineAppend::append(dir / "log", "{\"b\":2}\n");
    EXPECT_TRUE(result.ok());
    EXPECT_EQ(result.expected, 9);
    ASSERT_TRUE(LineAppend::append(dir / "log", "{\"c\":3}\n").ok());
    EXPECT_EQ(readFile(dir / "log"), "{\"a\":1}\n{\"cut\":\n{\"b\":2}\n{\"c\":3}\n");
}

TEST(AtomicWrite, TemporariesLeftByAKilledWriterAreRemovedOnceAnHourOld) {
    TempDir dir;
    const auto aged = [&](const std::string& name, int64_t ageSec) {
        writeFile(dir / name, "left behind");
        const timeval then{::time(nullptr) - ageSec, 0};
        const timeval times[2] = {then, then};
        ASSERT_EQ(::utimes((dir / name).c_str(), times), 0);
    };
    aged(".state.json.Ab3xYz", 2 * 3600);
    aged(".state.json.Qw7rTy", 60);          // a writer may still be at work on it
    aged(".state.json.Ab3xYz7", 2 * 3600);   // not a name this writer makes
    aged(".other.json.Ab3xYz", 2 * 3600);    // another file's
    writeFileAtomically(dir / "state.json", "{}");
    std::vector<std::string> left;
    for (const auto& entry : fs::directory_iterator(dir.path())) left.push_back(entry.path().filename().string());
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, (std::vector<std::string>{".other.json.Ab3xYz", ".state.json.Ab3xYz7", ".state.json.Qw7rTy",
                                              "state.json"}));
    EXPECT_EQ(readFile(dir / "state.json"), "{}");
}

}  // namespace
}  // namespace aimwise
