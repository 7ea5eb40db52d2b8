// Whole-process cost of `VerdictBench energy-report` over 14 days of rows: 40,000 tick rows (one
// tick every 30 s, a fifth of them judged, one skip in ten with battery readings) and a fortnight
// of coach turns, gate calls and nightly passes to match; the same with every tick row judged; and the
// fortnight at the end of files that hold 90 more days. The baseline is a VerdictBench start that
// prints a few lines and ends (`pyrepr-selftest`), in the same run. Each iteration is one child
// process; the time is its wall time, the counter its CPU time. (Its peak resident set is not shown:
// it would read as this process's, whose memory the child shares until it execs.)
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "AimwiseCore/energy/energy_row.h"
#include "bench/child_process.h"

namespace {

namespace fs = std::filesystem;
using aimwise::EnergyKind;
using aimwise::EnergyRow;

constexpr int64_t dayMs = 86'400'000;
constexpr int tickRows = 40'000;

int64_t wallClockMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

const int64_t nowMs = wallClockMs();

aimwise::PowerSource::BatteryReading reading(int64_t energyMwh) {
    aimwise::PowerSource::BatteryReading battery;
    battery.status = "Discharging";
    battery.voltageMv = 11'800;
    battery.currentMa = 900;
    battery.powerMw = 10'600;
    battery.energyMwh = energyMwh;
    battery.energyFullMwh = 60'000;
    battery.capacityPercent = energyMwh * 100 / 60'000;
    return battery;
}

EnergyRow run(EnergyKind kind, int64_t startMs, int64_t wallMs, bool withBattery, int64_t& level) {
    EnergyRow row{kind, startMs + wallMs, std::nullopt, std::nullopt, wallMs, wallMs / 20, wallMs / 4};
    if (withBattery) {
        row.startMs = startMs;
        row.endMs = startMs + wallMs;
        row.onAC = false;
        row.before = reading(level);
        level = std::max<int64_t>(1'000, level - wallMs / 300);
        row.after = reading(level);
    }
    if (kind == EnergyKind::judged) row.model = "gemma4:12b-it-qat";
    if (kind == EnergyKind::turn)
        row.model = "coach-model", row.promptTokens = 3'000, row.completionTokens = 250;
    return row;
}

// The rows of `days` days ending `endMs`, appended to `files`.
void fortnight(std::map<std::string, std::string>& files, int64_t endMs, int days, bool allJudged) {
    const int64_t fromMs = endMs - days * dayMs;
    const int rows = tickRows * days / 14;
    const int64_t stepMs = (endMs - fromMs) / rows;
    int64_t level = 55'000;
    const auto add = [&](const EnergyRow& row) {
        files[aimwise::EnergyKinds::fileName(row.kind)] +=
            aimwise::JSONValue(aimwise::EnergyLog::encode(row)).serialized() + "\n";
    };
    for (int i = 0; i < rows; ++i) {
        const int64_t at = fromMs + i * stepMs;
        if (allJudged || i % 5 == 0)
            add(run(EnergyKind::judged, at, 4'000, true, level));
        else
            add(run(EnergyKind::skipped, at, 9, i % 10 == 1, level));
        if (i % 130 == 7) add(run(EnergyKind::gate, at + 5'000, 3'000, true, level));
        if (i % 400 == 9) add(run(EnergyKind::turn, at + 9'000, 15'000, true, level));
        if (i % 2'880 == 100) add(run(EnergyKind::pass, at + 12'000, 240'000, false, level));
        if (level < 5'000) level = 55'000;  // charged overnight
    }
}

struct DataRoot {
    fs::path directory;

    explicit DataRoot(int olderDays, bool allJudged) {
        std::string pattern = (fs::temp_directory_path() / "energy-report-bench-XXXXXX").string();
        if (!mkdtemp(pattern.data())) std::abort();
        directory = pattern;
        std::map<std::string, std::string> files;
        if (olderDays > 0) fortnight(files, nowMs - 14 * dayMs, olderDays, allJudged);
        fortnight(files, nowMs, 14, allJudged);
        fs::create_directories(directory / "root");
        for (const auto& [name, text] : files) {
            FILE* out = std::fopen((directory / "root" / name).c_str(), "wb");
            if (!out || std::fwrite(text.data(), 1, text.size(), out) != text.size()) std::abort();
            std::fclose(out);
        }
    }
    ~DataRoot() {
        std::error_code ignored;
        fs::remove_all(directory, ignored);
    }
    std::vector<std::string> environment() const {
        return {"AIMCAP_DATA_ROOT=" + (directory / "root").string(),
                "XDG_DATA_HOME=" + (directory / "xdg").string(),
                "XDG_STATE_HOME=" + (directory / "state").string(),
                "HOME=" + directory.string(),
                "TZ=UTC",
                "PATH=/usr/bin:/bin"};
    }
};

std::string verdictBench() {
    return (fs::read_symlink("/proc/self/exe").parent_path() / "VerdictBench").string();
}

void measure(benchmark::State& state, const DataRoot& root, const std::vector<std::string>& arguments) {
    double cpuMs = 0;
    for (auto _ : state) {
        const aimwise::bench::ChildCost cost = aimwise::bench::runChild(arguments, root.environment());
        if (cost.status != 0) state.SkipWithError("the child failed");
        state.SetIterationTime(cost.wallSec);
        cpuMs += cost.cpuSec * 1000.0;
    }
    state.counters["cpu_ms"] = benchmark::Counter(cpuMs, benchmark::Counter::kAvgIterations);
}

const DataRoot& root(int which) {
    static const DataRoot fortnightRoot(0, false), allJudgedRoot(0, true), afterMonthsRoot(90, false);
    return which == 0 ? fortnightRoot : which == 1 ? allJudgedRoot : afterMonthsRoot;
}

void BM_VerdictBenchStartBaseline(benchmark::State& state) {
    measure(state, root(0), {verdictBench(), "pyrepr-selftest"});
}

void BM_EnergyReport(benchmark::State& state) {
    measure(state, root(static_cast<int>(state.range(0))),
            {verdictBench(), "energy-report", "--now-ms", std::to_string(nowMs)});
}

BENCHMARK(BM_VerdictBenchStartBaseline)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(20)
    ->Repetitions(5);
// 0: the fortnight; 1: every tick row judged; 2: the fortnight after 90 older days.
BENCHMARK(BM_EnergyReport)
    ->ArgName("rows")
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(20)
    ->Repetitions(5);

}  // namespace

BENCHMARK_MAIN();
