// The event log grows without limit, so its hot readers must cost what changed, not what exists.
// Builds a 200 MB log in a temporary directory, measures the readers against a single 64 KiB pread
// of the same file, and removes the log afterwards.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "AimwiseCore/events/event_log.h"
#include "AimwiseCore/events/incremental_jsonl_reader.h"

namespace {

namespace fs = std::filesystem;
using namespace aimwise;

fs::path directory;
fs::path logPath;

std::string chatLine(int64_t ts) {
    return R"({"ts_ms":)" + std::to_string(ts) +
           R"(,"kind":"event","type":"app_chat_message","detail":{"role":"user","text":"still on the quarterly )"
           R"(numbers, nothing new to report yet","_producer":{"process":"AimwiseCoach","version":"dev","pid":4242}},)"
           R"("source":"coach-core"})" "\n";
}

void buildLog(int64_t bytes) {
    std::ofstream out(logPath, std::ios::binary);
    std::string buffer;
    int64_t written = 0, ts = 1'795'000'000'000;
    const int64_t taskAt = bytes - 8'000;  // the last task event sits a few KB before the end
    bool taskWritten = false;
    while (written < bytes) {
        buffer.clear();
        while (buffer.size() < (1 << 20) && written + static_cast<int64_t>(buffer.size()) < bytes) {
            if (!taskWritten && written + static_cast<int64_t>(buffer.size()) >= taskAt) {
                buffer += R"({"ts_ms":)" + std::to_string(ts++) +
                          R"(,"kind":"event","type":"task_declared","detail":{"task":"close the books","horizon_minutes":90},)"
                          R"("source":"coach-core"})" "\n";
                taskWritten = true;
            }
            buffer += chatLine(ts++);
        }
        out << buffer;
        written += static_cast<int64_t>(buffer.size());
    }
}

void appendLine() {
    static int64_t ts = 1'796'000'000'000;
    const std::string line = chatLine(ts++);
    const int fd = ::open(logPath.c_str(), O_WRONLY | O_APPEND);
    if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::abort();
    ::close(fd);
}

void BM_Baseline_Pread64KiB(benchmark::State& state) {
    const int fd = ::open(logPath.c_str(), O_RDONLY);
    const off_t size = static_cast<off_t>(fs::file_size(logPath));
    std::string buffer(65536, '\0');
    for (auto _ : state) benchmark::DoNotOptimize(::pread(fd, buffer.data(), buffer.size(), size - 65536));
    ::close(fd);
}
BENCHMARK(BM_Baseline_Pread64KiB);

void BM_Baseline_Stat(benchmark::State& state) {
    struct stat info {};
    for (auto _ : state) benchmark::DoNotOptimize(::stat(logPath.c_str(), &info));
}
BENCHMARK(BM_Baseline_Stat);

// A process's first question: no cache, a backwards scan from the end.
void BM_EventLogRead_Cold(benchmark::State& state) {
    int64_t windows = 0;
    for (auto _ : state) {
        EventLog::resetForTesting();
        auto text = EventLog::read(logPath);
        if (!text || text->empty()) state.SkipWithError("no task found");
        windows += EventLog::statistics().windowReads;
        benchmark::DoNotOptimize(text);
    }
    state.counters["windows_per_read"] = benchmark::Counter(static_cast<double>(windows), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_EventLogRead_Cold)->Unit(benchmark::kMicrosecond);

void BM_EventLogRead_Unchanged(benchmark::State& state) {
    EventLog::resetForTesting();
    EventLog::read(logPath);
    for (auto _ : state) benchmark::DoNotOptimize(EventLog::read(logPath));
}
BENCHMARK(BM_EventLogRead_Unchanged);

void BM_IncrementalRead_Unchanged(benchmark::State& state) {
    auto reader = IncrementalJSONLReaders::events(logPath);
    reader.read();
    for (auto _ : state) {
        auto result = reader.read();
        benchmark::DoNotOptimize(result);
    }
}
BENCHMARK(BM_IncrementalRead_Unchanged)->Iterations(100000);

void BM_IncrementalRead_OneAppendedLine(benchmark::State& state) {
    auto reader = IncrementalJSONLReaders::events(logPath);
    reader.read();
    for (auto _ : state) {
        state.PauseTiming();
        appendLine();
        state.ResumeTiming();
        auto result = reader.read();
        if (result.rows.size() != 1) state.SkipWithError("expected one appended row");
        benchmark::DoNotOptimize(result);
    }
}
BENCHMARK(BM_IncrementalRead_OneAppendedLine)->Unit(benchmark::kMicrosecond)->Iterations(2000);

}  // namespace

int main(int argc, char** argv) {
    char pattern[] = "/tmp/event-log-bench-XXXXXX";
    if (!::mkdtemp(pattern)) return 1;
    directory = pattern;
    logPath = directory / "events.jsonl";
    const int64_t megabytes = std::getenv("EVENT_LOG_BENCH_MB") ? std::atoll(std::getenv("EVENT_LOG_BENCH_MB")) : 200;
    buildLog(megabytes << 20);
    std::fprintf(stderr, "event log: %.0f MB at %s\n", static_cast<double>(fs::file_size(logPath)) / (1 << 20),
                 logPath.c_str());

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    std::error_code ignored;
    fs::remove_all(directory, ignored);
    return 0;
}
