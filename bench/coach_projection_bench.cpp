// Every coach turn rebuilds its conversation from the whole retained log. Builds thirty days in a
// temporary data root (50,000 events, 86,400 classifier ticks, one every 30 s) and measures the
// projection over logs already parsed, the coach driver's source when only new lines arrived since the
// last turn and when nothing did, and the first projection of a fresh process, against merely reading
// and parsing the two logs in the same run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "AimwiseCore/coach/coach_output_guards.h"
#include "AimwiseCore/coach/coach_projection.h"
#include "AimwiseCore/coach/coach_projection_source.h"
#include "AimwiseCore/coach/gate_screen_text.h"
#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/events/event_log_reader.h"
#include "CaptureShared/common/local_time.h"

namespace {

namespace fs = std::filesystem;
using namespace aimwise;

constexpr int eventCount = 50'000;
constexpr int tickCount = 86'400;
constexpr int64_t startMs = 1'771'000'000'000;
constexpr int64_t tickEveryMs = 30'000;
constexpr int64_t spanMs = tickCount * tickEveryMs;  // thirty days

fs::path root;
int64_t appendedAtMs = startMs + spanMs;  // lines appended while measuring come after the month

const char* const apps[] = {"Code", "Firefox", "Slack", "Terminal", "Mail", "Zotero"};
const char* const states[] = {"ON_TASK", "ON_TASK", "NOT_ALIGNED", "ON_TASK", "ABSTAINED"};

const CoachProjection::Window window{.highResSpan = 6 * 3600.0, .stepInterval = 3600.0, .onTaskCheckinEveryTicks = 40};

std::string eventLine(int64_t ts, int index) {
    EventLogEvent event{.tsMs = ts};
    using Object = JSONValue::Object;
    switch (index % 20) {
        case 0:
            event.type = "task_declared";
            event.detail = Object{{"notes", "chapter " + std::to_string(index % 7) + " of the thesis draft"},
                                  {"horizon_minutes", 45 + index % 60}};
            break;
        case 1: case 5: case 9:
            event.type = "app_chat_message";
            event.detail = Object{{"role", "user"},
                                  {"text", "message " + std::to_string(index) + ": still on the literature review, the "
                                           "Zotero library needs cleaning before the citations make sense"}};
            break;
        case 2: case 6:
            event.type = "app_chat_message";
            event.detail = Object{{"role", "coach"},
                                  {"text", "Reply " + std::to_string(index) + ": what is the first citation you will fix?"}};
            break;
        case 3: case 7: case 11:
            event.type = "coach_decision";
            event.detail = Object{{"move", index % 3 ? "TALK" : "WRITE_TASK"}, {"reason", "spoke"}};
            if (index % 3 == 0)
                event.detail = Object{{"move", "WRITE_TASK"}, {"reason", "write_task"},
                                      {"tool_calls", JSONValue::Array{Object{
                                                         {"name", "write_current_intention"},
                                                         {"arguments", Object{{"notes", "fix the citations"},
                                                                              {"horizon_minutes", 30}}}}}}};
            break;
        case 4: event.type = "coach_checkin"; event.detail = Object{{"summary_for_coach", "in Zotero for a while"}}; break;
        case 8: event.type = "ui_opened"; break;
        case 10: event.type = "ui_closed"; event.detail = Object{{"dismissed_by", "user"}}; break;
        case 12: event.type = "no_reply_timeout"; event.detail = Object{{"since_ts_ms", ts - 900'000}}; break;
        case 13: event.type = "turn_trigger"; event.detail = Object{{"text", "[classifier drift time=01-01 10:00]\noff task\n[/classifier drift]"}}; break;
        default:
            event.type = "checker_input_received";
            event.detail = Object{{"text", "ok, back to it " + std::to_string(index)}};
    }
    return event.encoded() + "\n";
}

std::string tickLine(int64_t ms, int index) {
    const int run = index / 20;  // a verdict holds about ten minutes
    ClassifierTick tick{.at = LocalTime::format(ms),
                        .state = states[run % 5],
                        .frontmostApp = apps[run % 6],
                        .frontmostWindowTitle = "thesis-draft-" + std::to_string(run % 50) + ".tex",
                        .reason = "The window shows the LaTeX source of chapter " + std::to_string(run % 7) +
                                  " with the bibliography pane open; the edits continue the methods section.",
                        .confidence = 0.82,
                        .declaredTask = "chapter " + std::to_string(run % 7) + " of the thesis draft",
                        .model = "gemma4:12b-it-qat",
                        .screenshotAtMs = ms - 4'000};
    return tick.encoded() + "\n";
}

void append(const fs::path& path, const std::string& line) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND);
    if (fd < 0 || ::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::abort();
    ::close(fd);
}

fs::path eventsPath() { return root / "io-layer" / "events.jsonl"; }
fs::path ticksPath() { return root / "checker-log.jsonl"; }

void buildMonth() {
    fs::create_directories(root / "io-layer");
    std::ofstream events(eventsPath()), ticks(ticksPath());
    for (int i = 0; i < eventCount; ++i) events << eventLine(startMs + int64_t(i) * (spanMs / eventCount), i);
    for (int i = 0; i < tickCount; ++i) ticks << tickLine(startMs + int64_t(i) * tickEveryMs, i);
}

void forgetMemos() {
    DateParseMemo::shared().clear();
    LeakStripMemo::shared().clear();
    GateScreenText::forget();
}

void BM_Baseline_ReadAndParseBothLogs(benchmark::State& state) {
    for (auto _ : state) {
        auto events = EventLogReader::read(eventsPath());
        auto ticks = ClassifierLogReader::read(ticksPath());
        benchmark::DoNotOptimize(events);
        benchmark::DoNotOptimize(ticks);
    }
}
BENCHMARK(BM_Baseline_ReadAndParseBothLogs)->Unit(benchmark::kMillisecond);

// The projection itself, over a month already parsed, as a process that has run a while does it.
void BM_Project_ParsedMonth(benchmark::State& state) {
    const auto events = EventLogReader::read(eventsPath());
    const auto ticks = ClassifierLogReader::read(ticksPath());
    size_t messages = 0;
    for (auto _ : state) {
        auto result = CoachProjection::project(events, ticks, std::string("notes"), appendedAtMs, window,
                                               CoachProjection::DeadToolCallPolicy::replay);
        messages = result.messages.size();
        benchmark::DoNotOptimize(result);
    }
    state.counters["messages"] = double(messages);
}
BENCHMARK(BM_Project_ParsedMonth)->Unit(benchmark::kMillisecond);

// The same with every memo empty: the first turn of a fresh process.
void BM_Project_ParsedMonth_ColdMemos(benchmark::State& state) {
    const auto events = EventLogReader::read(eventsPath());
    const auto ticks = ClassifierLogReader::read(ticksPath());
    for (auto _ : state) {
        state.PauseTiming();
        forgetMemos();
        state.ResumeTiming();
        benchmark::DoNotOptimize(CoachProjection::project(events, ticks, std::string("notes"), appendedAtMs, window,
                                                          CoachProjection::DeadToolCallPolicy::replay));
    }
}
BENCHMARK(BM_Project_ParsedMonth_ColdMemos)->Unit(benchmark::kMillisecond);

// A fresh driver's first turn: both logs read whole, then projected.
void BM_Source_FirstTurn(benchmark::State& state) {
    for (auto _ : state) {
        CoachProjectionSource source(root);
        benchmark::DoNotOptimize(source.project(appendedAtMs, std::string("notes"), window,
                                                CoachProjection::DeadToolCallPolicy::replay));
    }
}
BENCHMARK(BM_Source_FirstTurn)->Unit(benchmark::kMillisecond);

// The steady state: a tick and an event arrived since the last turn.
void BM_Source_NewLinesSinceLastTurn(benchmark::State& state) {
    CoachProjectionSource source(root);
    source.project(appendedAtMs, std::string("notes"), window, CoachProjection::DeadToolCallPolicy::replay);
    int index = eventCount;
    for (auto _ : state) {
        state.PauseTiming();
        appendedAtMs += tickEveryMs;
        append(eventsPath(), eventLine(appendedAtMs, index));
        append(ticksPath(), tickLine(appendedAtMs, index++));
        state.ResumeTiming();
        benchmark::DoNotOptimize(source.project(appendedAtMs, std::string("notes"), window,
                                                CoachProjection::DeadToolCallPolicy::replay));
    }
}
BENCHMARK(BM_Source_NewLinesSinceLastTurn)->Unit(benchmark::kMicrosecond)->Iterations(1000);

void BM_Source_NothingChanged(benchmark::State& state) {
    CoachProjectionSource source(root);
    source.project(appendedAtMs, std::string("notes"), window, CoachProjection::DeadToolCallPolicy::replay);
    for (auto _ : state)
        benchmark::DoNotOptimize(source.project(appendedAtMs, std::string("notes"), window,
                                                CoachProjection::DeadToolCallPolicy::replay));
}
BENCHMARK(BM_Source_NothingChanged)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    char pattern[] = "/tmp/coach-projection-bench-XXXXXX";
    if (!::mkdtemp(pattern)) return 1;
    root = pattern;
    buildMonth();
    std::fprintf(stderr, "thirty days of logs: events %.1f MB, classifier log %.1f MB, in %s\n",
                 double(fs::file_size(eventsPath())) / 1e6, double(fs::file_size(ticksPath())) / 1e6, root.c_str());

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    std::error_code ignored;
    fs::remove_all(root, ignored);
    return 0;
}
