// The coach driver polls, and every poll that reaches the gate builds its message from the day's logs.
// Builds a day in a temporary data root (2,000 events, 2,880 classifier ticks, a capture sample every
// 1.5 s), and measures the message built fresh, built again with only the newest lines changed, and
// built with nothing changed, against merely reading and parsing the two logs in the same run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "AimwiseCore/coach/coach_gate_message.h"
#include "AimwiseCore/coach/gate_message_source.h"
#include "AimwiseCore/coach/gate_screen_text.h"
#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/events/event_log_reader.h"
#include "CaptureShared/common/local_time.h"
#include "CaptureShared/signals/schema.h"
#include "CaptureShared/signals/sqlite_db.h"

namespace {

namespace fs = std::filesystem;
using namespace aimwise;

constexpr int eventCount = 2'000;
constexpr int tickCount = 2'880;
constexpr int64_t dayStartMs = 1'773'100'800'000;
constexpr int64_t dayMs = 86'400'000;

fs::path root;
int64_t appendedAtMs = dayStartMs + dayMs;  // lines appended while measuring come after the day

const char* const apps[] = {"Code", "Firefox", "Slack", "Terminal", "Mail", "Zotero"};
const char* const states[] = {"ON_TASK", "ON_TASK", "NOT_ALIGNED", "IDLE"};

std::string eventLine(int64_t ts, int index) {
    EventLogEvent event{.tsMs = ts};
    // A day's mix: a few declarations, a couple of hundred chat lines and check-ins, and the rest the
    // system's own bookkeeping.
    const int kind = index % 100 == 0 ? 0 : index % 10 == 1 ? 1 : index % 50 == 3 ? 4 : 5;
    switch (kind) {
        case 0: event.type = "task_declared";
            event.detail = JSONValue::Object{{"task", "chapter " + std::to_string(index % 7) + " of the thesis draft"},
                                             {"horizon_minutes", 45 + index % 60}};
            break;
        case 1:
            event.type = "app_chat_message";
            event.detail = JSONValue::Object{
                {"role", index % 20 == 1 ? "coach" : "user"},
                {"text", "message " + std::to_string(index) + ": still on the literature review, the Zotero library "
                         "needs cleaning before the citations make sense, maybe twenty more minutes"}};
            break;
        case 4: event.type = "coach_checkin"; break;
        default:
            event.type = "checker_input_received";
            event.detail = JSONValue::Object{{"state", states[index % 4]}, {"app", apps[index % 6]}, {"seq", index}};
    }
    return event.encoded() + "\n";
}

std::string tickLine(int64_t ms, int index) {
    const int run = index / 20;  // a verdict holds about ten minutes
    ClassifierTick tick{.at = LocalTime::format(ms),
                        .state = states[run % 4],
                        .frontmostApp = apps[run % 6],
                        .frontmostWindowTitle = "thesis-draft-" + std::to_string(run) + ".tex — \"chapter\" " + std::to_string(run % 7),
                        .reason = "Tick " + std::to_string(index) + ": the window shows the LaTeX source of chapter " +
                                  std::to_string(run % 7) + " with the bibliography pane open; the declared task is "
                                  "the thesis draft and the edits in view continue the methods section.",
                        .confidence = 0.82,
                        .declaredTask = "chapter " + std::to_string(run % 7) + " of the thesis draft",
                        .model = "gemma4:12b-it-qat",
                        .screenshotAtMs = ms - 4'000,
                        .reasonCheck = "passed"};
    return tick.encoded() + "\n";
}

void append(const fs::path& path, const std::string& line) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND);
    if (fd < 0 || ::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::abort();
    ::close(fd);
}

fs::path eventsPath() { return root / "io-layer" / "events.jsonl"; }
fs::path ticksPath() { return root / "checker-log.jsonl"; }

void buildDay() {
    fs::create_directories(root / "io-layer");
    std::ofstream events(eventsPath()), ticks(ticksPath());
    for (int i = 0; i < eventCount; ++i) events << eventLine(dayStartMs + int64_t(i) * (dayMs / eventCount), i);
    for (int i = 0; i < tickCount; ++i) ticks << tickLine(dayStartMs + int64_t(i) * 30'000, i);
    SQLiteDB signals = SQLiteDB::open(root / "signals.sqlite");
    Schema::createAll(signals);
    signals.exec("BEGIN");
    for (int64_t ms = dayStartMs; ms < dayStartMs + dayMs; ms += 1'500)
        signals.insert("INSERT INTO ticks (ts_ms, frontmost_app) VALUES (?, ?)",
                       {ms, apps[(ms / 90'000) % 6]});
    signals.exec("COMMIT");
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

// What a driver's first poll costs: nothing kept, no memo warm.
void BM_GateMessage_FirstBuild(benchmark::State& state) {
    int64_t bytes = 0;
    for (auto _ : state) {
        GateScreenText::forget();
        DateParseMemo::shared().clear();
        GateMessageSource source(root);
        bytes = static_cast<int64_t>(source.build(appendedAtMs, {}).message.size());
    }
    state.counters["message_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_GateMessage_FirstBuild)->Unit(benchmark::kMillisecond);

// The pure build over logs already parsed: what the timeline itself costs.
void BM_GateMessage_FromParsedLogs(benchmark::State& state) {
    const auto events = EventLogReader::read(eventsPath());
    const auto ticks = ClassifierLogReader::read(ticksPath());
    for (auto _ : state)
        benchmark::DoNotOptimize(CoachGateMessage::build(events, ticks, 0, appendedAtMs, 24, std::nullopt, 3600, true,
                                                         std::nullopt, std::nullopt, std::nullopt));
}
BENCHMARK(BM_GateMessage_FromParsedLogs)->Unit(benchmark::kMillisecond);

void BM_GateMessage_NewestLinesChanged(benchmark::State& state) {
    GateMessageSource source(root);
    source.build(appendedAtMs, {});
    int index = eventCount;
    for (auto _ : state) {
        state.PauseTiming();
        appendedAtMs += 30'000;
        append(eventsPath(), eventLine(appendedAtMs, index));
        append(ticksPath(), tickLine(appendedAtMs, index++));
        state.ResumeTiming();
        benchmark::DoNotOptimize(source.build(appendedAtMs, {}));
    }
}
BENCHMARK(BM_GateMessage_NewestLinesChanged)->Unit(benchmark::kMicrosecond)->Iterations(1000);

void BM_GateMessage_NothingChanged(benchmark::State& state) {
    GateMessageSource source(root);
    source.build(appendedAtMs, {});
    for (auto _ : state) benchmark::DoNotOptimize(source.build(appendedAtMs, {}));
}
BENCHMARK(BM_GateMessage_NothingChanged)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    char pattern[] = "/tmp/coach-gate-bench-XXXXXX";
    if (!::mkdtemp(pattern)) return 1;
    root = pattern;
    buildDay();
    std::fprintf(stderr, "a day of logs: events %.0f KB, classifier log %.0f KB, in %s\n",
                 static_cast<double>(fs::file_size(eventsPath())) / 1024,
                 static_cast<double>(fs::file_size(ticksPath())) / 1024, root.c_str());

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    std::error_code ignored;
    fs::remove_all(root, ignored);
    return 0;
}
