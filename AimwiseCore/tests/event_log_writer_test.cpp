#include "AimwiseCore/events/event_log_writer.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <cmath>
#include <random>

#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/events/jsonl_append.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::TempDir;

mode_t modeOf(const std::filesystem::path& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 0777;
}

EventLogEvent sample(int64_t tsMs, JSONValue detail = JSONValue::Object{}) {
    return EventLogEvent{tsMs, "event", "coach_checkin", std::move(detail), "coach-core"};
}

// Runs `body` in a child process and returns its exit status; for tests that change process limits.
int inChild(const std::function<bool()>& body) {
    const pid_t pid = ::fork();
    if (pid == 0) ::_exit(body() ? 0 : 1);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(EventLogWriterStamp, EveryLineSaysWhichProcessWroteIt) {
    const auto stamped = EventLogWriter::withProducerStamp(
        JSONValue::Object{{"task", "write"}, {"_producer", "forged"}}, "AimwiseClassifier", "1.2.3", 4242);
    const JSONValue expectedProducer = JSONValue::Object{{"process", "AimwiseClassifier"}, {"version", "1.2.3"}, {"pid", 4242}};
    EXPECT_EQ(*stamped.member("_producer"), expectedProducer) << "an earlier stamp is overwritten";
    EXPECT_EQ(stamped.member("task")->stringValue(), "write");

    for (const JSONValue& notObject : {JSONValue("text"), JSONValue(JSONValue::Array{1, 2}), JSONValue(nullptr)}) {
        const auto replaced = EventLogWriter::withProducerStamp(notObject, "p", "v", 1);
        ASSERT_TRUE(replaced.objectIfAny());
        EXPECT_EQ(replaced.objectIfAny()->size(), 1u) << "a detail that is not an object loses its content";
    }
}

TEST(EventLogWriterFiles, CreatesAPrivateDirectoryAndFileAndAppendsWholeLines) {
    TempDir dir;
    const auto path = dir / "root" / "io-layer" / "events.jsonl";
    // A root with none of the system's files, like an unmounted disk's mount point, gets nothing.
    std::filesystem::create_directories(dir / "root");
    EXPECT_THROW(EventLogWriter::append(sample(1), path), EventLogWriterError);
    EXPECT_FALSE(std::filesystem::exists(dir / "root" / "io-layer"));
    testing::writeFile(dir / "root" / "manifest.json", "{}");
    EventLogWriter::append(sample(1, JSONValue::Object{{"note", "two\nlines"}}), path, "Test", "9");
    EventLogWriter::append(std::vector<EventLogEvent>{sample(2), sample(3)}, path);
    EXPECT_EQ(modeOf(dir / "root" / "io-layer"), 0700u);
    EXPECT_EQ(modeOf(path), 0600u);

    const std::string text = testing::readFile(path);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
    const auto events = EventLogReader::parse(text);
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].detail.member("note")->stringValue(), "two\nlines");
    EXPECT_EQ(events[0].detail.member("_producer")->member("process")->stringValue(), "Test");
    EXPECT_EQ(events[1].detail.member("_producer")->member("process")->stringValue(), EventLogWriter::defaultProcessName);
    EXPECT_EQ(*events[2].detail.member("_producer")->member("pid"), JSONValue(static_cast<double>(::getpid())));
}

TEST(EventLogWriterFailures, ReportEachCaseInItsOwnWords) {
    TempDir dir;
    std::filesystem::create_directories(dir / "events.jsonl");
    try {
        EventLogWriter::append(sample(1), dir / "events.jsonl");
        FAIL() << "appending to a directory must fail";
    } catch (const EventLogWriterError& error) {
        EXPECT_EQ(error.kind, EventLogWriterError::Kind::openFailed);
        EXPECT_EQ(error.description(), "could not open file for append: errno " + std::to_string(EISDIR));
    }

    testing::writeFile(dir / "plain", "x");
    EXPECT_THROW(EventLogWriter::append(sample(1), dir / "plain" / "events.jsonl"), std::filesystem::filesystem_error);

    const auto path = dir / "log.jsonl";
    const std::vector<EventLogEvent> batch = {sample(1), sample(2, JSONValue::Object{{"bad", NAN}}), sample(3)};
    try {
        EventLogWriter::append(batch, path);
        FAIL();
    } catch (const EventLogWriterError& error) {
        EXPECT_EQ(error.kind, EventLogWriterError::Kind::encodingFailed);
        EXPECT_EQ(error.description(), "could not encode row as JSON");
    }
    const auto written = EventLogReader::read(path);
    ASSERT_EQ(written.size(), 1u) << "the batch stops at the failure and keeps what it wrote";
    EXPECT_EQ(written[0].tsMs, 1);

    EXPECT_EQ((EventLogWriterError{EventLogWriterError::Kind::shortWrite, 0, 120, 64}.description()),
              "short write: expected 120 bytes, wrote 64");
}

TEST(EventLogWriterFailures, AWriteCutShortByTheFileSizeLimitIsReported) {
    TempDir dir;
    const auto path = dir / "events.jsonl";
    const int status = inChild([&] {
        ::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{100, 100};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
        try {
            EventLogWriter::append(sample(1, JSONValue::Object{{"pad", std::string(1000, 'x')}}), path);
        } catch (const EventLogWriterError& error) {
            return error.kind == EventLogWriterError::Kind::shortWrite && error.actual == 100 && error.expected > 1000;
        }
        return false;
    });
    EXPECT_EQ(status, 0);
}

TEST(JSONLAppendRows, WritesSortedKeysOnOneLine) {
    TempDir dir;
    const auto path = dir / "deep" / "classifier-tick-energy.jsonl";
    JSONLAppend::append({{"v", 1}, {"model", "m"}, {"before", JSONValue::Object{{"z", 1}, {"a", 2.5}}}, {"text", "a\nb"}}, path);
    JSONLAppend::append({{"v", 2}}, path);
    EXPECT_EQ(testing::readFile(path),
              "{\"before\":{\"a\":2.5,\"z\":1},\"model\":\"m\",\"text\":\"a\\nb\",\"v\":1}\n{\"v\":2}\n");
    EXPECT_EQ(modeOf(path), 0600u);
    EXPECT_EQ(modeOf(dir / "deep"), 0700u);
    try {
        JSONLAppend::append({{"x", INFINITY}}, path);
        FAIL();
    } catch (const JSONLAppend::AppendError& error) {
        EXPECT_EQ(error.description(), "could not encode row as JSON");
    }
    testing::writeFile(dir / "file", "");
    EXPECT_THROW(JSONLAppend::append({{"v", 1}}, dir / "file" / "x.jsonl"), std::filesystem::filesystem_error);
}

// Many processes append large lines at once; each line must arrive whole. The payload of each line
// is derived from (writer, sequence), so the reader can check every byte without a copy.
TEST(EventLogWriterConcurrency, EightProcessesAppendingLargeLinesNeverInterleave) {
    constexpr int writers = 8;
    constexpr int perWriter = 2000;
    constexpr size_t maxPayload = 64 * 1024 - 512;  // keeps each line within 64 KB
    std::string cycle;
    while (cycle.size() < maxPayload + 26) cycle += "abcdefghijklmnopqrstuvwxyz";
    const auto payloadOf = [&](int writer, int seq, size_t size) {
        return std::string_view(cycle).substr(static_cast<size_t>(writer * 7 + seq * 13) % 26, size);
    };

    TempDir dir;
    testing::writeFile(dir / "manifest.json", "{}");
    const auto path = dir / "io-layer" / "events.jsonl";
    const auto started = std::chrono::steady_clock::now();
    std::vector<pid_t> children;
    for (int writer = 0; writer < writers; ++writer) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            std::mt19937 random(static_cast<unsigned>(writer + 1));
            std::uniform_int_distribution<size_t> size(0, maxPayload);
            for (int seq = 0; seq < perWriter; ++seq) {
                const std::string payload(payloadOf(writer, seq, size(random)));
                try {
                    EventLogWriter::append(sample(seq, JSONValue::Object{{"writer", writer}, {"seq", seq}, {"payload", payload}}),
                                           path, "writer-" + std::to_string(writer), "test");
                } catch (...) {
                    ::_exit(1);
                }
            }
            ::_exit(0);
        }
        children.push_back(pid);
    }
    for (const pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    const auto written = std::chrono::steady_clock::now();

    const std::string text = testing::readFile(path);
    std::vector<int> nextSeq(writers, 0);
    size_t lines = 0, bad = 0;
    forEachLine(text, [&](std::string_view line) {
        ++lines;
        const auto event = EventLogEvent::decode(line);
        if (!event) {
            ++bad;
            return;
        }
        const int writer = static_cast<int>(*event->detail.member("writer")->numberIfAny());
        const int seq = static_cast<int>(*event->detail.member("seq")->numberIfAny());
        const std::string& payload = *event->detail.member("payload")->stringIfAny();
        const bool intact = writer >= 0 && writer < writers && seq == nextSeq[writer] &&
                            payload == payloadOf(writer, seq, payload.size());
        if (!intact) {
            ++bad;
            return;
        }
        ++nextSeq[writer];
    });
    EXPECT_EQ(bad, 0u);
    EXPECT_EQ(lines, static_cast<size_t>(writers * perWriter));
    for (int writer = 0; writer < writers; ++writer) EXPECT_EQ(nextSeq[writer], perWriter) << writer;
    const auto checked = std::chrono::steady_clock::now();
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    std::printf("  %zu MB by %d processes: written in %lld ms, checked in %lld ms\n", text.size() >> 20, writers,
                static_cast<long long>(duration_cast<milliseconds>(written - started).count()),
                static_cast<long long>(duration_cast<milliseconds>(checked - written).count()));
}

}  // namespace
}  // namespace aimwise
