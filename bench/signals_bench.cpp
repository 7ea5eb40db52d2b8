// SignalsReader on a day of capture: what the tick pays to learn the newest row and the
// recent apps. The open alone is the baseline the queries are measured against.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <random>
#include <string>

#include "CaptureShared/signals/schema.h"
#include "CaptureShared/signals/signals_reader.h"
#include "CaptureShared/signals/sqlite_db.h"

namespace {

using aimwise::SignalsReader;

constexpr int64_t dayStartMs = 1'795'305'600'000;
constexpr int rowsPerDay = 57'600;  // one tick every 1.5 s
constexpr int64_t tickMs = 1'500;
constexpr int64_t lastTickMs = dayStartMs + (rowsPerDay - 1) * tickMs;

struct DayOfTicks {
    std::filesystem::path directory;
    std::filesystem::path database;

    DayOfTicks() {
        std::string pattern = (std::filesystem::temp_directory_path() / "signals-bench-XXXXXX").string();
        if (!mkdtemp(pattern.data())) std::abort();
        directory = pattern;
        database = directory / "signals.sqlite";

        aimwise::SQLiteDB db = aimwise::SQLiteDB::open(database);
        aimwise::Schema::createAll(db);
        const std::string apps[] = {"Editor", "Browser", "Terminal", "Mail", "Chat", "Music", "Notes", "Calendar"};
        std::mt19937 random(7);
        db.exec("BEGIN");
        std::string app = apps[0];
        for (int i = 0; i < rowsPerDay; ++i) {
            if (random() % 40 == 0) app = apps[random() % std::size(apps)];  // runs of about a minute
            const bool browsing = app == "Browser";
            db.insert("INSERT INTO ticks (ts_ms, frontmost_app, idle_any_sec, browser_app, browser_title, browser_url, "
                      "battery_pct, ac_plugged, declared_task) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)",
                      {dayStartMs + i * tickMs, app, static_cast<double>(random() % 120),
                       browsing ? std::optional<std::string>("Browser") : std::nullopt,
                       browsing ? std::optional<std::string>("A page title of ordinary length") : std::nullopt,
                       browsing ? std::optional<std::string>("https://example.org/some/path?q=1") : std::nullopt,
                       90 - i / 1000, i % 7000 < 3500, "write the quarterly report"});
        }
        db.exec("COMMIT");
    }
    ~DayOfTicks() {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }
};

const DayOfTicks& day() {
    static const DayOfTicks instance;
    return instance;
}

void BM_OpenOnly(benchmark::State& state) {
    for (auto _ : state) {
        SignalsReader reader = SignalsReader::open(day().database);
        benchmark::DoNotOptimize(reader);
    }
}
BENCHMARK(BM_OpenOnly);

void BM_LatestTickAndRecentApps(benchmark::State& state) {
    const SignalsReader reader = SignalsReader::open(day().database);
    for (auto _ : state) {
        const auto row = reader.latestTick();
        const auto apps = reader.recentApps(row->tsMs, 600'000);
        benchmark::DoNotOptimize(apps.data());
    }
}
BENCHMARK(BM_LatestTickAndRecentApps);

// As a tick meets it: a fresh handle, then both queries.
void BM_OpenThenLatestTickAndRecentApps(benchmark::State& state) {
    for (auto _ : state) {
        const SignalsReader reader = SignalsReader::open(day().database);
        const auto row = reader.latestTick();
        const auto apps = reader.recentApps(row->tsMs, 600'000);
        benchmark::DoNotOptimize(apps.data());
    }
}
BENCHMARK(BM_OpenThenLatestTickAndRecentApps);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    if (SignalsReader::open(day().database).latestTick()->tsMs != lastTickMs) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
