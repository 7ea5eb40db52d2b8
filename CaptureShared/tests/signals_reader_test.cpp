#include "CaptureShared/signals/signals_reader.h"

#include <gtest/gtest.h>

#include <limits>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <set>

#include "tests/support/signals_fixtures.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::FixtureTick;
using testing::SignalsFixture;
using testing::TempDir;
using Reader = SignalsReader;

constexpr int64_t t0 = 1'763'000'000'000;
constexpr int64_t minute = 60'000;

FixtureTick appTick(int64_t tsMs, std::string app, std::optional<double> idle = 1.0) {
    return FixtureTick{.tsMs = tsMs, .frontmostApp = std::move(app), .idleAnySec = idle};
}

TEST(SignalsReaderTicks, RowQueriesHonourTheirBoundsAndReadNullAsAbsent) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    Reader reader = Reader::open(fixture.path());
    EXPECT_EQ(reader.latestTick(), std::nullopt);

    fixture.tick({.tsMs = t0, .frontmostApp = "Mail", .frontmostBundleId = "org.example.mail", .idleAnySec = 2.5,
                  .browserApp = "Browser", .browserTitle = "Inbox", .browserURL = "https://mail.example",
                  .declaredTask = "write"});
    fixture.ticks({appTick(t0 + 1, "Zoom"), appTick(t0 + 2, "Meet"), {.tsMs = t0 + 1500}});
    EXPECT_EQ(reader.latestTick(), (Reader::TickRow{t0 + 1500, {}, {}, {}, {}, {}, {}}));
    EXPECT_EQ(reader.latestTick(t0), (Reader::TickRow{t0, "Mail", "Browser", "Inbox", "https://mail.example", 2.5, "write"}));
    EXPECT_EQ(reader.latestTick(t0 - 1), std::nullopt);

    EXPECT_EQ(reader.ticks(t0 + 1, t0 + 1500, 100),
              (std::vector<ActivityTimeline::Sample>{{t0 + 1, "Zoom", 1.0, {}, {}}, {t0 + 2, "Meet", 1.0, {}, {}},
                                                     {t0 + 1500, {}, {}, {}, {}}}));
    EXPECT_EQ(reader.ticks(t0, t0 + 1500, 2).back().tsMs, t0 + 1);

    EXPECT_EQ(reader.frontmostBundleId(t0), "org.example.mail");
    EXPECT_EQ(reader.frontmostBundleId(t0 + 1), std::nullopt);

    EXPECT_EQ(reader.latestTickMs({"Zoom", "Meet"}), (Reader::FrontmostAppTick{t0 + 2, "Meet"}));
    EXPECT_EQ(reader.latestTickMs({"Zoom"}, t0 + 2), std::nullopt);
    EXPECT_EQ(reader.latestTickMs({}), std::nullopt);
    EXPECT_EQ(reader.latestNonEmptyBrowserTabMs(), t0);
    EXPECT_EQ(reader.latestNonEmptyBrowserTabMs(t0 + 1), std::nullopt);
}

TEST(SignalsReaderRecentApps, CountsBecomeTruncatedMinutesOfTheSixBusiestAppsInTheWindow) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    std::vector<FixtureTick> rows;
    int64_t ts = t0;
    // 41 ticks are 1.025 minutes, which truncates to 1.0; 40 are exactly 1.0; 44 are 1.1.
    for (auto [app, count] : std::vector<std::pair<std::string, int>>{
             {"Editor", 41}, {"Browser", 40}, {"Terminal", 44}, {"A", 4}, {"B", 8}, {"C", 12}, {"D", 2}})
        for (int i = 0; i < count; ++i) rows.push_back(appTick(++ts, app));
    rows.push_back({.tsMs = ++ts});  // no app
    for (int i = 0; i < 50; ++i) rows.push_back(appTick(t0 - 600'000 - i, "Before"));  // at or before the start
    rows.push_back(appTick(ts + 1, "After"));
    fixture.ticks(rows);

    EXPECT_EQ(Reader::open(fixture.path()).recentApps(ts, ts - t0 + 600'000),
              (std::vector<AppMinutes>{{"Terminal", 1.1}, {"Editor", 1.0}, {"Browser", 1.0}, {"C", 0.3},
                                       {"B", 0.2}, {"A", 0.1}}));
}

Reader::WindowRow win(std::optional<std::string> title, double w, double h, int layer = 0) {
    return Reader::WindowRow{std::move(title), 0, 0, w, h, layer};
}

TEST(FocusedContentWindow, TheFirstTitledCandidateElseTheFirstCandidate) {
    EXPECT_EQ(Reader::focusedContentWindow({win("   ", 800, 600), win("Doc", 800, 600), win("Other", 900, 900)}),
              win("Doc", 800, 600));
    // Tabs and no-break spaces are blank too, and so is an absent title.
    EXPECT_EQ(Reader::focusedContentWindow({win("\t\u00a0", 800, 600), win(std::nullopt, 800, 600)}),
              win("\t\u00a0", 800, 600));
    // Too narrow, too short or off layer 0: no candidates, however well titled.
    EXPECT_EQ(Reader::focusedContentWindow(
                  {win("narrow", 59.9, 900), win("short", 900, 59.9), win("menu", 900, 900, 25), win("", 60, 60)}),
              win("", 60, 60));
}

TEST(FocusedContentWindow, WithoutCandidatesTheLargestAreaWinsAndTiesKeepTheEarlier) {
    EXPECT_EQ(Reader::focusedContentWindow({win("a", 59.9, 100), win("b", 50, 50), win("c", 1000, 1000, 3)}),
              win("c", 1000, 1000, 3));
    EXPECT_EQ(Reader::focusedContentWindow({win("first", 40, 50), win("second", 50, 40)}), win("first", 40, 50));
    EXPECT_EQ(Reader::focusedContentWindow({}), std::nullopt);
}

TEST(SignalsReaderWindows, ContentWindowExtentAndTitlesReadTheWindowsTable) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    Reader reader = Reader::open(fixture.path());
    EXPECT_EQ(reader.maxWindowExtent(t0, t0 + 10), (Reader::WindowExtent{}));

    fixture.window({.tsMs = t0, .ownerName = "Editor", .title = "", .width = 900, .height = 900});
    fixture.window({.tsMs = t0, .ownerName = "Editor", .title = "no geometry", .width = std::nullopt});
    fixture.window({.tsMs = t0, .ownerName = "Editor", .title = "main.cpp", .layer = std::nullopt, .x = 10});
    fixture.window({.tsMs = t0, .ownerName = "", .title = "unowned"});
    fixture.window({.tsMs = t0 + 5, .ownerName = "B", .x = 7000, .y = 0, .width = 1000, .height = 700});
    fixture.window({.tsMs = t0 + 5, .ownerName = "C", .x = 7000, .y = 0, .width = 1001, .height = 9000});
    fixture.window({.tsMs = t0 + 11, .ownerName = "D", .title = std::nullopt, .width = 9, .height = 9});

    EXPECT_EQ(reader.contentWindow(t0, "Editor"), (Reader::WindowRow{"main.cpp", 10, 0, 800, 600, 0}));
    EXPECT_EQ(reader.contentWindow(t0, "Nobody"), std::nullopt);
    EXPECT_EQ(reader.contentWindow(t0, ""), std::nullopt);
    // Geometry past 8000 in either direction is left out of the maxima.
    EXPECT_EQ(reader.maxWindowExtent(t0, t0 + 10), (Reader::WindowExtent{8000.0, 900.0}));
    EXPECT_EQ(reader.latestNonEmptyWindowTitleMs(), t0);
    EXPECT_EQ(reader.latestNonEmptyWindowTitleMs(t0 + 1), std::nullopt);
}

TEST(SignalsReaderEvents, TaskDeclaredIsTheNewestDeclarationAtOrBefore) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    fixture.event(t0, "task_declared").event(t0 + 10, "app_switch").event(t0 + 20, "task_declared", "{}");
    Reader reader = Reader::open(fixture.path());
    EXPECT_EQ(reader.taskDeclaredTsMsFromSQLiteEvents(t0 + 19), t0);
    EXPECT_EQ(reader.taskDeclaredTsMsFromSQLiteEvents(t0 + 20), t0 + 20);
    EXPECT_EQ(reader.taskDeclaredTsMsFromSQLiteEvents(t0 - 1), std::nullopt);
}

TEST(SignalsReaderEstimateCache, AMissingTableIsNotFoundButOtherFailuresRaise) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    EXPECT_EQ(Reader::open(fixture.path()).cachedEstimateMinutes("write"), (Reader::CachedEstimate{false, {}}));

    fixture.estimateCache("write", 45.0).estimateCache("tidy up", std::nullopt);
    Reader reader = Reader::open(fixture.path());
    EXPECT_EQ(reader.cachedEstimateMinutes("write"), (Reader::CachedEstimate{true, 45.0}));
    EXPECT_EQ(reader.cachedEstimateMinutes("tidy up"), (Reader::CachedEstimate{true, std::nullopt}));
    EXPECT_EQ(reader.cachedEstimateMinutes("never seen"), (Reader::CachedEstimate{false, std::nullopt}));

    TempDir other;
    SignalsFixture(other / "signals.sqlite").db().exec("CREATE TABLE estimate_cache (declared_task TEXT)");
    EXPECT_THROW(Reader::open(other / "signals.sqlite").cachedEstimateMinutes("x"), SignalsReaderError);
}

TEST(SignalsReaderBattery, KeepsOnlyRowsWhereLevelOrChargerChangedNewestFirst) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    fixture.ticks({
        {.tsMs = t0 + 0, .batteryPct = 80, .acPlugged = false},
        {.tsMs = t0 + 1, .batteryPct = 80, .acPlugged = false},  // unchanged
        {.tsMs = t0 + 2, .batteryPct = 79, .acPlugged = false},  // level
        {.tsMs = t0 + 3},                                        // no reading at all
        {.tsMs = t0 + 4, .batteryPct = 79, .acPlugged = true},   // charger
        {.tsMs = t0 + 5, .batteryPct = 79},                      // NULL differs from 1
        {.tsMs = t0 + 6, .batteryPct = 79},                      // NULL equals NULL
    });
    Reader reader = Reader::open(fixture.path());
    using Row = Reader::BatteryHistoryRow;
    EXPECT_EQ(reader.batteryHistory(t0, 100),
              (std::vector<Row>{{t0 + 5, 79, {}}, {t0 + 4, 79, true}, {t0 + 2, 79, false}, {t0, 80, false}}));
    EXPECT_EQ(reader.batteryHistory(t0, 2).size(), 2u);
    // The first row since the bound has nothing before it, so it is kept.
    EXPECT_EQ(reader.batteryHistory(t0 + 1, 100).back(), (Row{t0 + 1, 80, false}));
}

// presenceGap as the classifier calls it, over `rows` alone.
Reader::PresenceGapResult walk(const std::vector<FixtureTick>& rows, int64_t limit = 1000) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    fixture.ticks(rows);
    return Reader::open(fixture.path()).presenceGap(t0, 14'400'000, 300.0, 180'000, limit);
}

Reader::PresenceGapResult gap(int64_t beforeAbsenceMs, int64_t runStartMs) {
    return Reader::PresenceGap{{.tsMs = beforeAbsenceMs, .frontmostApp = "A", .idleAnySec = 1.0}, runStartMs};
}

TEST(SignalsReaderPresenceGap, ContinuousPresence) {
    const Reader::PresenceGapResult present = Reader::ContinuouslyPresent{};
    EXPECT_EQ(walk({}), present);
    // Idle exactly at the limit, or unknown, is present; rows at or after the bound are not walked.
    EXPECT_EQ(walk({appTick(t0 - 2 * minute, "A"), appTick(t0 - minute, "A", std::nullopt), appTick(t0 - 1, "A", 300.0),
                    appTick(t0, "A", 999.0)}),
              present);
    // 180000 ms between present rows is still one run, and the first row is not measured against the bound.
    EXPECT_EQ(walk({appTick(t0 - 64 * minute, "A"), appTick(t0 - 61 * minute, "A")}), present);
}

TEST(SignalsReaderPresenceGap, GapsEndAtThePresentRowBeforeTheAbsence) {
    EXPECT_EQ(walk({appTick(t0 - 30 * minute, "A"), appTick(t0 - 20 * minute, "A", 900.0),
                    appTick(t0 - 10 * minute, "LoginWindow"), appTick(t0 - 2 * minute, "A"), appTick(t0 - minute, "A")}),
              gap(t0 - 30 * minute, t0 - 2 * minute));
    // A hole of more than 180000 ms inside the present run is a gap too.
    EXPECT_EQ(walk({appTick(t0 - 7 * minute - 1, "A"), appTick(t0 - 4 * minute, "A"), appTick(t0 - minute, "A")}),
              gap(t0 - 7 * minute - 1, t0 - 4 * minute));
    // Holes inside an absence are no continuity breaks.
    EXPECT_EQ(walk({appTick(t0 - 90 * minute, "A"), appTick(t0 - 60 * minute, "A", 999.0),
                    appTick(t0 - 2 * minute, "A", 999.0), appTick(t0 - minute, "A")}),
              gap(t0 - 90 * minute, t0 - minute));
}

TEST(SignalsReaderPresenceGap, AnAbsenceReachingPastTheWindowOrTheRowsExceedsIt) {
    const Reader::PresenceGapResult exceeds = Reader::GapExceedsWindow{t0 - minute};
    std::vector<FixtureTick> fiveHoursAway = {appTick(t0 - 6 * 60 * minute, "A")};
    for (int m = 5 * 60; m >= 2; m -= 2) fiveHoursAway.push_back(appTick(t0 - m * minute, "A", 1000.0));
    fiveHoursAway.push_back(appTick(t0 - minute, "A"));
    EXPECT_EQ(walk(fiveHoursAway), exceeds);
    EXPECT_EQ(walk({appTick(t0 - 10 * minute, "A", 400.0), appTick(t0 - minute, "A")}), exceeds);
    // The limit ends the walk the same way.
    EXPECT_EQ(walk({appTick(t0 - 20 * minute, "A"), appTick(t0 - 10 * minute, "A", 400.0), appTick(t0 - minute, "A")}, 2),
              exceeds);
    // A row dated at the far end of the range by a damaged file breaks the run; nothing overflows.
    const int64_t farPast = std::numeric_limits<int64_t>::min();
    EXPECT_EQ(walk({appTick(farPast, "A"), appTick(t0 - minute, "A")}), gap(farPast, t0 - minute));
    EXPECT_EQ(walk({appTick(farPast, "A", 999.0), appTick(t0 - minute, "A")}), exceeds);
}

void expectReaderError(const std::function<void()>& action, const std::string& description) {
    try {
        action();
        ADD_FAILURE() << "expected SignalsReaderError " << description;
    } catch (const SignalsReaderError& error) {
        EXPECT_EQ(error.description(), description);
    }
}

TEST(SignalsReaderErrors, OpeningAndPreparingFailWithTheLibrarysWords) {
    TempDir dir;
    const std::string at = dir.path().string();
    expectReaderError([&] { Reader::open(dir / "absent.sqlite"); },
                      "could not open " + at + "/absent.sqlite (unable to open database file): nothing has been "
                      "recorded there yet — check that the disk holding the data root is mounted and that "
                      "aimwise-capture is running");
    EXPECT_FALSE(std::filesystem::exists(dir / "absent.sqlite"));

    testing::writeFile(dir / "text.sqlite", std::string(8192, 'x'));
    Reader notADatabase = Reader::open(dir / "text.sqlite");
    const std::string notADatabaseSaid = "could not read " + at +
                                         "/text.sqlite (file is not a database): it is not a readable signals "
                                         "database — move it aside, and aimwise-capture starts a new one";
    expectReaderError([&] { notADatabase.latestTick(); }, notADatabaseSaid);
    expectReaderError([&] { notADatabase.cachedEstimateMinutes("x"); }, notADatabaseSaid);

    { SQLiteDB::open(dir / "empty.sqlite").exec("CREATE TABLE unrelated (x)"); }
    expectReaderError([&] { Reader::open(dir / "empty.sqlite").recentApps(0, 1); },
                      "could not read " + at +
                          "/empty.sqlite (no such table: ticks): it holds no signals yet — aimwise-capture adds them "
                          "with its next sample; if it is not running, move the file aside and start it");

    Reader reader = Reader::open(dir / "empty.sqlite");
    Reader taken = std::move(reader);
    expectReaderError([&] { reader.latestTick(); },  // NOLINT
                      "could not read the signals database (unknown sqlite error) — check the file's permissions "
                      "and the disk it is on");

    // '?', '#' and '%' in a path are not URI syntax.
    SignalsFixture(dir / "odd ?name#with%41.sqlite").tick({.tsMs = 42});
    EXPECT_EQ(Reader::open(dir / "odd ?name#with%41.sqlite").latestTick()->tsMs, 42);
}

TEST(SignalsReaderErrors, ALockedDatabaseIsAQueryFailureNotACrash) {
    TempDir dir;
    const auto path = dir / "signals.sqlite";
    {
        SignalsFixture fixture(path);
        fixture.db().exec("PRAGMA journal_mode=DELETE");
    }
    sqlite3* holder = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &holder), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE; INSERT INTO ticks (ts_ms) VALUES (2);", nullptr, nullptr, nullptr),
              SQLITE_OK);
    Reader reader = Reader::open(path);
    expectReaderError([&] { reader.latestTick(); }, "could not read " + path.string() +
                                                         " (database is locked): another program is holding it — "
                                                         "try again in a moment");
    sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(holder);
    EXPECT_EQ(reader.latestTick()->tsMs, 2);
}

// Every query on a damaged file: SignalsReaderError is allowed, anything else is a failure.
void everyQuerySurvives(const std::filesystem::path& path) {
    try {
        Reader reader = Reader::open(path);
        const std::function<void()> queries[] = {
            [&] { reader.latestTick(t0 + 50'000); },
            [&] { reader.recentApps(t0 + 100'000, 600'000); },
            [&] { reader.contentWindow(t0, "Editor"); },
            [&] { reader.taskDeclaredTsMsFromSQLiteEvents(t0 + 100'000); },
            [&] { reader.cachedEstimateMinutes("write"); },
            [&] { reader.presenceGap(t0 + 100'000, 14'400'000, 300.0, 180'000, 1000); },
            [&] { reader.frontmostBundleId(t0); },
            [&] { reader.ticks(t0, t0 + 100'000, 1000); },
            [&] { reader.maxWindowExtent(t0, t0 + 100'000); },
            [&] { reader.batteryHistory(t0, 100); },
            [&] { reader.latestNonEmptyWindowTitleMs(); },
            [&] { reader.latestNonEmptyBrowserTabMs(t0); },
            [&] { reader.latestTickMs({"Editor", "Mail"}, t0); },
        };
        for (const auto& query : queries) {
            try {
                query();
            } catch (const SignalsReaderError&) {
            }
        }
    } catch (const SignalsReaderError&) {
    }
}

TEST(SignalsReaderGarbage, TruncatedAndCorruptedFilesAreSurvived) {
    TempDir dir;
    {
        SignalsFixture fixture(dir / "source.sqlite");
        std::vector<FixtureTick> rows;
        for (int i = 0; i < 60; ++i)
            rows.push_back({.tsMs = t0 + i * 1500, .frontmostApp = i % 3 ? "Editor" : "Mail", .idleAnySec = i * 7.0,
                            .browserTitle = std::string(300, 'a' + i % 26), .batteryPct = 90 - i / 10,
                            .acPlugged = i % 20 < 10, .declaredTask = "write \xff\xfe invalid UTF-8"});
        fixture.ticks(rows);
        for (int i = 0; i < 20; ++i)
            fixture.window({.tsMs = t0, .ownerName = "Editor", .title = "w" + std::to_string(i), .width = 50.0 + i});
        fixture.event(t0, "task_declared", "{\"horizon_minutes\": 30}").estimateCache("write", 30);
        fixture.db().exec("UPDATE ticks SET idle_any_sec = 'lots' WHERE ts_ms = " + std::to_string(t0));
    }
    const std::string bytes = testing::readFile(dir / "source.sqlite");
    ASSERT_GT(bytes.size(), 8192u);
    const auto target = dir / "signals.sqlite";
    for (size_t length = 0; length < bytes.size(); length += length < 200 ? 1 : 509) {
        testing::writeFile(target, bytes.substr(0, length));
        everyQuerySurvives(target);
    }
    std::mt19937 random(20261122);
    for (int round = 0; round < 300; ++round) {
        std::string damaged = bytes;
        for (int flips = 1 + static_cast<int>(random() % 16); flips > 0; --flips)
            damaged[random() % damaged.size()] = static_cast<char>(random());
        testing::writeFile(target, damaged);
        everyQuerySurvives(target);
    }
}

// Every field of a row is derived from its time, so a row mixing two writes shows.
FixtureTick derivedTick(int64_t tsMs) {
    const std::string tag = std::to_string(tsMs);
    return FixtureTick{.tsMs = tsMs, .frontmostApp = "App" + tag, .idleAnySec = static_cast<double>(tsMs % 1000),
                       .browserApp = "Browser" + tag, .browserTitle = "Title " + tag,
                       .browserURL = "https://example.org/" + tag,
                       // Long enough to spill onto overflow pages.
                       .declaredTask = std::string(6000, static_cast<char>('a' + tsMs % 26)) + tag};
}

TEST(SignalsReaderConcurrency, AWriterProcessNeverShowsTheReaderAnErrorOrATornRow) {
    TempDir dir;
    const auto path = dir / "signals.sqlite";
    { SignalsFixture fixture(path); }
    constexpr int rowCount = 1500;

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The capture agent: one autocommitted row at a time, as it records.
        SQLiteDB db = SQLiteDB::open(path);
        db.exec("PRAGMA synchronous=NORMAL");
        for (int i = 1; i <= rowCount; ++i) {
            testing::insertTick(db, derivedTick(t0 + i * 1500));
            if (i % 100 == 0) db.exec("PRAGMA wal_checkpoint(PASSIVE)");
        }
        _exit(0);
    }

    Reader reader = Reader::open(path);
    int tornRows = 0, status = 0;
    int64_t lastSeen = 0;
    std::set<int64_t> distinctLatest;
    for (bool writerDone = false; !writerDone;) {
        writerDone = waitpid(child, &status, WNOHANG) == child;
        try {
            const auto row = reader.latestTick();
            if (!row) continue;
            distinctLatest.insert(row->tsMs);
            const FixtureTick expected = derivedTick(row->tsMs);
            if (row->frontmostApp != expected.frontmostApp || row->browserApp != expected.browserApp ||
                row->browserTitle != expected.browserTitle || row->browserURL != expected.browserURL ||
                row->idleAnySec != expected.idleAnySec || row->declaredTask != expected.declaredTask)
                ++tornRows;
            EXPECT_GE(row->tsMs, lastSeen) << "the newest row went backwards";
            lastSeen = row->tsMs;
            for (const auto& sample : reader.ticks(row->tsMs - 15'000, row->tsMs, 20))
                if (sample.frontmostApp != "App" + std::to_string(sample.tsMs)) ++tornRows;
        } catch (const SignalsReaderError& error) {
            ADD_FAILURE() << error.description();
        }
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(tornRows, 0);
    EXPECT_EQ(lastSeen, t0 + rowCount * 1500);
    // The reads overlapped the writes rather than only following them.
    EXPECT_GT(distinctLatest.size(), 10u);
}

}  // namespace
}  // namespace aimwise
