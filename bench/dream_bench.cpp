// The nightly job over 30 days of logs: 2,000 events a day (declarations, the person's words and the
// coach's, and the system's own bookkeeping) and a classifier tick every 30 seconds.
//   - The schedule check that holds, as a whole aimwise-dream process: with the person at the machine,
//     and at night with memory up to date. Baseline: starting /bin/true.
//   - The resident memory of a whole run that digests the 30 days against an instant model server.
//     Baseline: the holding process's.
//   - Preparing every prompt of a pass, model time excluded: reading the log as the job does, rendering
//     each day and building its digest message, and the regeneration message from 30 digests.
//     Baseline: reading and parsing the whole event log with the general reader.
// The whole-process benchmarks run first: a child's peak memory counts the parent's at its start.
#include <benchmark/benchmark.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/memory/consolidation_pass.h"
#include "AimwiseCore/memory/memory_store.h"
#include "bench/child_process.h"
#include "bench/instant_model_server.h"

namespace {

namespace fs = std::filesystem;
using namespace aimwise;

constexpr int days = 30;
constexpr int eventsPerDay = 2'000;
constexpr int ticksPerDay = 2'880;
constexpr int64_t dayMs = 86'400'000;

std::string localTime(int64_t ms) {
    const time_t seconds = ms / 1000;
    tm local{};
    localtime_r(&seconds, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
    return text;
}

std::string eventLine(int64_t ts, int index) {
    EventLogEvent event{.tsMs = ts, .type = "coach_checkin"};
    const int kind = index % 100;
    if (kind == 0) {
        event.type = "task_declared";
        event.detail =
            JSONValue::Object{{"task", "chapter " + std::to_string(index % 7) + " of the thesis draft"},
                              {"horizon_minutes", 45}};
    } else if (kind < 10) {
        event.type = "app_chat_message";
        event.detail = JSONValue::Object{
            {"role", kind % 3 == 0 ? "coach" : "user"},
            {"text", "message " + std::to_string(index) +
                         ": still on the literature review, the reference library "
                         "needs cleaning before the citations make sense, maybe twenty more minutes"}};
    } else if (kind < 12) {
        event.type = kind == 10 ? "checker_output_sent" : "checker_input_received";
        event.detail = JSONValue::Object{{"text", "back to the draft after a detour through the news"}};
    } else {
        event.detail = JSONValue::Object{{"state", "ON_TASK"}, {"seq", index}};
    }
    return event.encoded() + "\n";
}

// Written once as a stream, so that this process stays small for the children's peak memory.
struct ThirtyDays {
    fs::path directory = fs::temp_directory_path() / ("dream-bench-" + std::to_string(::getpid()));
    int64_t nowMs = wallClockMs();
    int64_t startMs = (nowMs / dayMs - days) * dayMs;

    ThirtyDays() {
        fs::create_directories(root() / "io-layer");
        std::ofstream events(root() / "io-layer/events.jsonl");
        for (int i = 0; i < days * eventsPerDay; ++i)
            events << eventLine(startMs + static_cast<int64_t>(i) * (dayMs / eventsPerDay), i);
        std::ofstream ticks(root() / "checker-log.jsonl");
        for (int i = 0; i < days * ticksPerDay; ++i) {
            const ClassifierTick tick{.at = localTime(startMs + static_cast<int64_t>(i) * 30'000),
                                      .state = "ON_TASK",
                                      .frontmostApp = "Code",
                                      .frontmostWindowTitle = "thesis.tex — Code",
                                      .reason = "Editing the thesis chapter in the editor, as declared.",
                                      .confidence = 0.9,
                                      .declaredTask = "chapter 3 of the thesis draft"};
            ticks << tick.encoded() << "\n";
        }
    }
    ~ThirtyDays() {
        std::error_code ignored;
        fs::remove_all(directory, ignored);
    }
    fs::path root() const { return directory / "root"; }
    std::vector<std::string> environment(const std::string& endpoint) const {
        return {"AIMCAP_DATA_ROOT=" + root().string(),
                "HOME=" + directory.string(),
                "XDG_DATA_HOME=" + (directory / "xdg").string(),
                "XDG_STATE_HOME=" + (directory / "state").string(),
                "AIMCAP_LOCAL_INFERENCE_ENDPOINT=" + endpoint,
                "PATH=/usr/bin:/bin"};
    }
    void personAtTheMachine() const {
        std::ofstream ticks(root() / "checker-log.jsonl", std::ios::app);
        ticks << ClassifierTick{.at = localTime(wallClockMs()), .frontmostApp = "Code"}.encoded() << "\n";
    }
};

ThirtyDays& data() {
    static ThirtyDays instance;
    return instance;
}

std::string dreamProgram() {
    return (fs::read_symlink("/proc/self/exe").parent_path() / "aimwise-dream").string();
}

void BM_TrueProcess(benchmark::State& state) {
    bench::ChildCosts costs(state);
    for (auto _ : state) costs.add(bench::runChild({"/bin/true"}, {}));
}
BENCHMARK(BM_TrueProcess)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30)->Repetitions(5);

void BM_HoldWhileThePersonIsAtTheMachine(benchmark::State& state) {
    data().personAtTheMachine();
    const auto environment = data().environment("http://127.0.0.1:9");  // a hold never reaches it
    bench::ChildCosts costs(state);
    for (auto _ : state) costs.add(bench::runChild({dreamProgram(), "--once"}, environment));
}
BENCHMARK(BM_HoldWhileThePersonIsAtTheMachine)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(30)
    ->Repetitions(5);

void BM_NightlyRunOver30Days(benchmark::State& state) {
    bench::InstantModelServer server;
    const auto environment = data().environment(server.baseURL());
    bench::ChildCosts costs(state);
    for (auto _ : state) {
        fs::remove_all(data().root() / "memory");
        costs.add(bench::runChild({dreamProgram(), "--force"}, environment));
    }
}
BENCHMARK(BM_NightlyRunOver30Days)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->Repetitions(3);

// After the run above, every period has its digest: the night's usual hold.
void BM_HoldWithMemoryUpToDate(benchmark::State& state) {
    const auto environment = data().environment("http://127.0.0.1:9");
    bench::ChildCosts costs(state);
    for (auto _ : state) costs.add(bench::runChild({dreamProgram(), "--once"}, environment));
}
BENCHMARK(BM_HoldWithMemoryUpToDate)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(30)
    ->Repetitions(5);

void BM_ReadAndParseTheEventLog(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(EventLogReader::read(data().root() / "io-layer/events.jsonl"));
}
BENCHMARK(BM_ReadAndParseTheEventLog)->Unit(benchmark::kMillisecond)->Repetitions(5);

std::vector<PeriodDigest> digestsOfAMonth() {
    std::vector<PeriodDigest> digests;
    for (int d = 0; d < days; ++d) {
        PeriodDigest digest{.periodStartTsMs = data().startMs + d * dayMs,
                            .summary = "Drafted chapter 3 in two blocks."};
        for (int f = 0; f < 6; ++f)
            digest.facts.push_back(
                {"fact " + std::to_string((d * 6 + f) % 90) + ": the thesis is due in spring",
                 MemoryFactProvenance::asserted,
                 {data().startMs + d * dayMs}});
        for (int l = 0; l < 3; ++l) digest.lessons.push_back("lesson " + std::to_string((d + l) % 20));
        digests.push_back(std::move(digest));
    }
    return digests;
}

void BM_PrepareEveryPromptOfAPass(benchmark::State& state) {
    const auto digests = digestsOfAMonth();
    const std::vector<CoachCorrection> corrections{{.atMs = 1, .text = "don't ask about the first step"}};
    for (auto _ : state) {
        const auto log = PeriodRendering::readForDigests(data().root() / "io-layer/events.jsonl", 0);
        const auto& events = log.events;
        size_t bytes = 0;
        const auto periods = MemoryConsolidation::pendingPeriods(
            std::nullopt, log.earliestEventMs, data().nowMs, MemoryConsolidation::defaultStepIntervalSec);
        auto first = events.begin();
        for (const auto& period : periods) {
            auto last = std::lower_bound(first, events.end(), period.endMs,
                                         [](const EventLogEvent& e, int64_t ms) { return e.tsMs < ms; });
            bytes += MemoryConsolidation::digestMessage(PeriodRendering::renderIndexed({first, last})).size();
            first = last;
        }
        bytes += MemoryConsolidation::regenerationMessage(digests, MemoryConsolidation::candidatesOf(digests),
                                                          corrections)
                     .size();
        benchmark::DoNotOptimize(bytes);
        state.counters["periods"] = static_cast<double>(periods.size());
    }
}
BENCHMARK(BM_PrepareEveryPromptOfAPass)->Unit(benchmark::kMillisecond)->Repetitions(5);

}  // namespace

BENCHMARK_MAIN();
