// Reading the files we own when something else stands in their place, and what a write leaves behind.
#include "CaptureShared/common/atomic_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <chrono>
#include <set>

#include "CaptureShared/common/line_append.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using testing::writeFile;

// A pipe with no writer, an endless device behind a link, a directory: refused at once by every
// reader and by the appender, never waited on or read without end.
TEST(BoundedRead, AnythingButARegularFileEndsAtOnceAsUnreadable) {
    TempDir dir;
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    fs::create_symlink("/dev/zero", dir / "zero");
    fs::create_directory(dir / "directory");
    for (const char* name : {"fifo", "zero", "directory"}) {
        const auto started = std::chrono::steady_clock::now();
        EXPECT_THROW(readWholeFile(dir / name, ReadLimit::setting), fs::filesystem_error) << name;
        EXPECT_THROW(readFileTail(dir / name), fs::filesystem_error) << name;
        EXPECT_FALSE(LineAppend::append(dir / name, "{}\n").ok()) << name;
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(1));
    }
    // A setting past its limit is refused; a log is read from its newest whole lines.
    writeFile(dir / "log", "first line\nsecond\nthird\n");
    EXPECT_THROW(readWholeFile(dir / "log", 10), fs::filesystem_error);
    EXPECT_EQ(readFileTail(dir / "log", 10), "third\n") << "the piece of \"second\" is not a record";
}

TEST(AtomicWrite, TemporariesLeftByAKilledWriterAreRemovedOnceAnHourOld) {
    TempDir dir;
    // Old, young (a writer may be at work on it), not a name this writer makes, another file's.
    for (const auto& [name, ageSec] : {std::pair{".state.json.Ab3xYz", 7200}, {".state.json.Qw7rTy", 60},
                                      {".state.json.Ab3xYz7", 7200}, {".other.json.Ab3xYz", 7200}}) {
        writeFile(dir / name, "left behind");
        const timeval times[2] = {{::time(nullptr) - ageSec, 0}, {::time(nullptr) - ageSec, 0}};
        ASSERT_EQ(::utimes((dir / name).c_str(), times), 0);
    }
    writeFileAtomically(dir / "state.json", "{}");
    std::set<std::string> left;
    for (const auto& entry : fs::directory_iterator(dir.path())) left.insert(entry.path().filename().string());
    EXPECT_EQ(left, (std::set<std::string>{".other.json.Ab3xYz", ".state.json.Ab3xYz7", ".state.json.Qw7rTy", "state.json"}));
}

}  // namespace
}  // namespace aimwise
