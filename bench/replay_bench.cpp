// Replay's preparation of 1,000 labelled points on a day of capture: the labels read, and for each
// point the state as of its midpoint, the recent apps and the window content lookup, with no model
// call. buildState alone on the same instants is the baseline.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <random>
#include <string>

#include "AimwiseCore/classifier/classifier_service.h"
#include "AimwiseCore/classifier/labels_writer.h"
#include "CaptureShared/signals/schema.h"
#include "CaptureShared/signals/sqlite_db.h"
#include "VerdictBench/replay.h"

namespace {

using namespace aimwise;

constexpr int64_t dayStartMs = 1'795'305'600'000;
constexpr int rowsPerDay = 57'600;  // one tick every 1.5 s
constexpr int64_t tickMs = 1'500;
constexpr int points = 1'000;

struct LabelledDay {
    std::filesystem::path directory;
    std::vector<EventLogEvent> events;

    LabelledDay() {
        std::string pattern = (std::filesystem::temp_directory_path() / "replay-bench-XXXXXX").string();
        if (!mkdtemp(pattern.data())) std::abort();
        directory = pattern;

        SQLiteDB db = SQLiteDB::open(signals());
        Schema::createAll(db);
        const std::string apps[] = {"Editor", "Browser", "Terminal", "Mail", "Chat", "Music", "Notes", "Calendar"};
        std::mt19937 random(7);
        db.exec("BEGIN");
        std::string app = apps[0];
        for (int i = 0; i < rowsPerDay; ++i) {
            if (random() % 40 == 0) app = apps[random() % std::size(apps)];  // runs of about a minute
            const int64_t ts = dayStartMs + i * tickMs;
            // Now and then a stretch away from the machine, so the presence walk has gaps to find.
            const double idle = (i / 2400) % 5 == 4 ? 400.0 : static_cast<double>(random() % 60);
            db.insert("INSERT INTO ticks (ts_ms, frontmost_app, idle_any_sec, declared_task) VALUES (?, ?, ?, ?)",
                      {ts, app, idle, "write the quarterly report"});
            for (int w = 0; w < 3; ++w)
                db.insert("INSERT INTO windows (ts_ms, owner_name, title, layer, x, y, width, height) VALUES "
                          "(?, ?, ?, 0, ?, 40, 900, 700)",
                          {ts, w == 0 ? app : apps[(i + w) % std::size(apps)], "A window title of ordinary length",
                           static_cast<double>(w * 50)});
        }
        db.exec("COMMIT");

        // One declaration an hour, each with its estimate, so that no point asks a model for one.
        for (int hour = 0; hour < 24; ++hour) {
            EventLogEvent event;
            event.tsMs = dayStartMs + hour * 3'600'000;
            event.type = "task_declared";
            event.detail = JSONValue::Object{{"task", "write the quarterly report"}, {"horizon_minutes", 45.0}};
            events.push_back(event);
        }

        LabelsWriter labels(directory / "labels.sqlite");
        const char* words[] = {"on_task", "rabbit_hole", "off_task", "break", "no_task"};
        for (int i = 0; i < points; ++i) {
            const int64_t t0 = dayStartMs + 60'000 + static_cast<int64_t>(i) * (rowsPerDay * tickMs - 120'000) / points;
            labels.insert({.t0Ms = t0, .t1Ms = t0 + 30'000, .label = words[i % 5], .sourceHour = "h",
                           .createdAt = LabelTimes::createdAt(t0), .source = "in_app_ramp", .answeredBlind = true});
        }
    }
    ~LabelledDay() {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }
    std::filesystem::path signals() const { return directory / "signals.sqlite"; }
};

const LabelledDay& day() {
    static const LabelledDay instance;
    return instance;
}

void BM_BuildStateAlone(benchmark::State& state) {
    const auto loaded = LabeledPoints::readLabeledPoints(day().directory / "labels.sqlite", points, 0, true);
    const SignalsReader reader = SignalsReader::open(day().signals());
    LazyHTTPSession session;
    for (auto _ : state) {
        for (const auto& point : loaded.points) {
            auto built = ClassifierService::buildState(reader, &day().events, day().signals(),
                                                       (point.t0Ms + point.t1Ms) / 2, session);
            benchmark::DoNotOptimize(built);
        }
    }
    state.SetItemsProcessed(state.iterations() * points);
}
BENCHMARK(BM_BuildStateAlone)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5);

void BM_ReplayPreparation(benchmark::State& state) {
    const auto archive = FrameArchive::forDataRoot(day().directory);
    LazyHTTPSession session;
    for (auto _ : state) {
        const auto loaded = LabeledPoints::readLabeledPoints(day().directory / "labels.sqlite", points, 0, true);
        const SignalsReader reader = SignalsReader::open(day().signals());
        const Replay::Sources sources{reader, &day().events, day().signals(), *archive};
        for (const auto& point : loaded.points) {
            auto prepared = Replay::prepare(point, sources, session);
            benchmark::DoNotOptimize(prepared);
        }
    }
    state.SetItemsProcessed(state.iterations() * points);
}
BENCHMARK(BM_ReplayPreparation)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    // No point may need a model: a prepared day answers every point without one.
    LazyHTTPSession session;
    const auto archive = FrameArchive::forDataRoot(day().directory);
    const SignalsReader reader = SignalsReader::open(day().signals());
    const auto loaded = LabeledPoints::readLabeledPoints(day().directory / "labels.sqlite", points, 0, true);
    if (loaded.points.size() != points) return 1;
    Replay::prepare(loaded.points.front(), {reader, &day().events, day().signals(), *archive}, session);
    if (session.created()) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
