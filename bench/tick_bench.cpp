// Whole-process cost of `VerdictBench tick`: the skip that most wakes end in, a judging tick against
// a model server that answers at once (no screen capture), and the sqlite3 shell reading one row the
// same way as a floor. Each iteration is one child process; the time is its wall time, and the
// counters its CPU time and peak resident set, as /usr/bin/time reports them.
//
// BM_StartWithLibrary prices each shared library the skipping tick loads (the list is printed in the
// context above the results), and each that the tick opens only when it first needs it: a probe
// process that loads one library against one that loads none. A summary after the results sets the
// skipping tick against the sqlite3 shell.
//
// AIMWISE_TICK_BENCH_ROOT, when set, keeps the prepared data root there to run a tick by hand.
// AIMWISE_TICK_BENCH_BASELINE, when set, names another VerdictBench (an earlier build) whose skipping
// tick BM_BaselineTickThatSkips runs in the same run, for a ratio.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unicode/uvernum.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "AimwiseCore/classifier/cadence.h"
#include "CaptureShared/common/clock.h"
#include "bench/child_process.h"
#include "bench/instant_model_server.h"
#include "CaptureShared/signals/schema.h"
#include "CaptureShared/signals/sqlite_db.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

// A day of capture ending now, with a declared task whose estimate is cached.
struct DataRoot {
    fs::path directory;
    bool keep = false;

    DataRoot() {
        if (const char* kept = std::getenv("AIMWISE_TICK_BENCH_ROOT")) {
            directory = kept;
            keep = true;
            fs::remove_all(directory);
            fs::create_directories(directory);
        } else {
            std::string pattern = (fs::temp_directory_path() / "tick-bench-XXXXXX").string();
            if (!mkdtemp(pattern.data())) std::abort();
            directory = pattern;
        }
        fs::create_directories(root() / "io-layer");
        aimwise::SQLiteDB db = aimwise::SQLiteDB::open(root() / "signals.sqlite");
        aimwise::Schema::createAll(db);
        const int64_t now = aimwise::Clock::system().wallMs();
        db.exec("BEGIN");
        for (int64_t ts = now - 86'400'000; ts < now; ts += 1'500)
            db.insert("INSERT INTO ticks (ts_ms, frontmost_app, idle_any_sec, declared_task) VALUES (?, ?, ?, ?)",
                      {ts, "Editor", 2.0, "write the quarterly report"});
        db.insert("INSERT INTO events (ts_ms, type) VALUES (?, 'task_declared')", {now - 3'600'000});
        db.exec("COMMIT");
        db.exec("CREATE TABLE IF NOT EXISTS estimate_cache (declared_task TEXT PRIMARY KEY, estimated_minutes REAL, "
                "reason TEXT, parsed_at_ms INTEGER)");
        db.insert("INSERT INTO estimate_cache VALUES ('write the quarterly report', 120, 'two hours', ?)", {now});
    }
    ~DataRoot() {
        std::error_code ignored;
        if (!keep) fs::remove_all(directory, ignored);
    }
    fs::path root() const { return directory / "root"; }

    // A row of this instant in the front window that the cadence last judged a moment ago.
    void freshRowJudgedJustNow() const {
        aimwise::SQLiteDB db = aimwise::SQLiteDB::open(root() / "signals.sqlite");
        const int64_t now = aimwise::Clock::system().wallMs();
        db.insert("INSERT INTO ticks (ts_ms, frontmost_app, idle_any_sec, declared_task) VALUES (?, ?, ?, ?)",
                  {now, "Editor", 2.0, "write the quarterly report"});
        aimwise::ClassifierCadence::State state;
        state.lastRanAtMs = state.lastJudgedAtMs = state.runStartedAtMs = now - 1'000;
        state.lastVerdict = "ON_TASK";
        state.lastFrontmostApp = "Editor";
        aimwise::ClassifierCadence::write(state, root() / "classifier-cadence.json");
    }
};

const DataRoot& dataRoot() {
    static const DataRoot instance;
    return instance;
}

// VerdictBench is built into the same directory as this program.
std::string verdictBench() { return (fs::read_symlink("/proc/self/exe").parent_path() / "VerdictBench").string(); }

using aimwise::bench::ChildCost;
using aimwise::bench::runChild;

std::vector<std::string> tickEnvironment(const std::string& endpoint) {
    const fs::path home = dataRoot().directory;
    return {"AIMCAP_DATA_ROOT=" + dataRoot().root().string(), "XDG_DATA_HOME=" + (home / "xdg").string(),
            "XDG_STATE_HOME=" + (home / "state").string(), "HOME=" + home.string(),
            "AIMCAP_LOCAL_INFERENCE_ENDPOINT=" + endpoint, "AIMCHECK_MODEL=bench-model", "PATH=/usr/bin:/bin"};
}

void skippingTicks(benchmark::State& state, const std::string& program) {
    const auto environment = tickEnvironment("http://127.0.0.1:9");  // a skip must never reach it
    aimwise::bench::ChildCosts costs(state);
    for (auto _ : state) {
        dataRoot().freshRowJudgedJustNow();
        costs.add(runChild({program, "tick"}, environment));
    }
}

void BM_TickThatSkips(benchmark::State& state) { skippingTicks(state, verdictBench()); }
BENCHMARK(BM_TickThatSkips)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30)->Repetitions(5);

void BM_BaselineTickThatSkips(benchmark::State& state) {
    const char* baseline = std::getenv("AIMWISE_TICK_BENCH_BASELINE");
    if (!baseline || !*baseline) return state.SkipWithError("AIMWISE_TICK_BENCH_BASELINE is not set");
    skippingTicks(state, baseline);
}
BENCHMARK(BM_BaselineTickThatSkips)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30)->Repetitions(5);

void BM_TickThatJudgesWithAnInstantServer(benchmark::State& state) {
    aimwise::bench::InstantModelServer server;
    const auto environment = tickEnvironment(server.baseURL());
    aimwise::bench::ChildCosts costs(state);
    for (auto _ : state) {
        dataRoot().freshRowJudgedJustNow();
        fs::remove(dataRoot().root() / "classifier-cadence.json");  // no prior state: a judgment is due
        costs.add(runChild({verdictBench(), "tick"}, environment));
    }
}
BENCHMARK(BM_TickThatJudgesWithAnInstantServer)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(20)
    ->Repetitions(5);

void BM_Sqlite3ShellReadingTheNewestRow(benchmark::State& state) {
    const std::string database = (dataRoot().root() / "signals.sqlite").string();
    aimwise::bench::ChildCosts costs(state);
    for (auto _ : state)
        costs.add(runChild({"sqlite3", database, "SELECT ts_ms FROM ticks ORDER BY ts_ms DESC LIMIT 1"},
                           {"PATH=/usr/bin:/bin"}));
}
BENCHMARK(BM_Sqlite3ShellReadingTheNewestRow)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(30)
    ->Repetitions(5);

// What the dynamic loader maps for a VerdictBench start, as `ldd` lists it.
std::vector<std::string> librariesOfTheTick() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) std::abort();
    const pid_t pid = aimwise::bench::spawnQuietly({verdictBench()}, {"LD_TRACE_LOADED_OBJECTS=1"}, fds[1], STDOUT_FILENO);
    if (pid < 0) std::abort();
    ::close(fds[1]);
    std::string listing;
    char buffer[4096];
    for (ssize_t got; (got = ::read(fds[0], buffer, sizeof buffer)) > 0;) listing.append(buffer, size_t(got));
    ::close(fds[0]);
    ::waitpid(pid, nullptr, 0);
    std::vector<std::string> names;
    for (size_t at = 0; at < listing.size();) {
        size_t end = listing.find('\n', at);
        if (end == std::string::npos) end = listing.size();
        const std::string line = listing.substr(at, end - at);
        const size_t first = line.find_first_not_of(" \t");
        if (first != std::string::npos) {
            const std::string name = line.substr(first, line.find(' ', first) - first);
            if (name.starts_with("lib")) names.push_back(name);
        }
        at = end + 1;
    }
    return names;
}

// The tick's own libraries, then those it opens only when it makes a request, a digest or reads text.
const std::vector<std::string>& probedLibraries() {
    static const std::vector<std::string> libraries = [] {
        std::vector<std::string> names{""};  // the baseline: a probe that loads nothing
        for (const auto& name : librariesOfTheTick())
            if (!name.starts_with("libc.so")) names.push_back(name);  // the probe itself has it
        const std::string icu = std::to_string(U_ICU_VERSION_MAJOR_NUM);
        names.insert(names.end(), {"libcurl.so.4", "libcrypto.so.3", "libicuuc.so." + icu, "libicui18n.so." + icu});
        return names;
    }();
    return libraries;
}

void BM_StartWithLibrary(benchmark::State& state, const std::string& library) {
    const std::string probe = (fs::read_symlink("/proc/self/exe").parent_path() / "library_load_probe").string();
    std::vector<std::string> arguments{probe};
    if (!library.empty()) arguments.push_back(library);
    aimwise::bench::ChildCosts costs(state);
    for (auto _ : state) costs.add(runChild(arguments, {}));
}

// Prints the runs as usual and keeps the medians that the summary compares.
class MedianKeeper : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs)
            if (run.aggregate_name == "median") medians[run.run_name.function_name] = run;
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, Run> medians;
};

void printSummary(const MedianKeeper& kept) {
    const auto tick = kept.medians.find("BM_TickThatSkips");
    const auto shell = kept.medians.find("BM_Sqlite3ShellReadingTheNewestRow");
    if (tick == kept.medians.end() || shell == kept.medians.end()) return;
    const auto rssMB = [](const benchmark::BenchmarkReporter::Run& run) {
        const auto counter = run.counters.find("maxRSS_KiB");
        return counter == run.counters.end() ? 0.0 : double(counter->second) / 1024.0;
    };
    const double tickMs = tick->second.GetAdjustedRealTime(), shellMs = shell->second.GetAdjustedRealTime();
    std::printf("\nskipping tick %.2f ms, peak %.1f MB; sqlite3 point query %.2f ms, peak %.1f MB; "
                "tick / sqlite3 = %.2fx (target at most 1.5x, and under 10 MB)\n",
                tickMs, rssMB(tick->second), shellMs, rssMB(shell->second), tickMs / shellMs);
}

}  // namespace

int main(int argc, char** argv) {
    std::string listing;
    for (const auto& name : librariesOfTheTick()) listing += (listing.empty() ? "" : " ") + name;
    benchmark::AddCustomContext("libraries loaded by a skipping tick", listing);
    for (const auto& library : probedLibraries())
        benchmark::RegisterBenchmark(("BM_StartWithLibrary/" + (library.empty() ? "none" : library)).c_str(),
                                     BM_StartWithLibrary, library)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(30)
            ->Repetitions(5);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    MedianKeeper reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printSummary(reporter);
    benchmark::Shutdown();
    return 0;
}
