#include "CaptureShared/signals/signals_reader.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "CaptureShared/signals/schema.h"
#include "tests/support/signals_fixtures.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using testing::FixtureTick;
using testing::FixtureWindow;
using testing::SignalsFixture;
using testing::TempDir;
using Reader = SignalsReader;

constexpr int64_t t0 = 1'763'000'000'000;

FixtureTick appTick(int64_t tsMs, std::string app, std::optional<double> idle = 1.0) {
    return FixtureTick{.tsMs = tsMs, .frontmostApp = std::move(app), .idleAnySec = idle};
}

// ---------------------------------------------------------------------------------------------
// latestTick, ticks, frontmostBundleId

TEST(SignalsReaderTicks, LatestTickIsTheNewestRowAtOrBeforeTheBound) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    Reader reader = Reader::open(fixture.path());
    EXPECT_EQ(reader.latestTick(), std::nullopt);

    fixture.tick({.tsMs = t0, .frontmostApp = "Mail", .idleAnySec = 2.5, .browserApp = "Safari",
                  .browserTitle = "Inbox", .browserURL = "https://mail.example", .declaredTask = "write"});
    fixture.tick({.tsMs = t0 + 1500});
    EXPECT_EQ(reader.latestTick(), (Reader::TickRow{t0 + 1500, {}, {}, {}, {}, {}, {}}));
    EXPECT_EQ(reader.latestTick(t0 + 1499),
              (Reader::TickRow{t0, "Mail", "Safari", "Inbox", "https://mail.example", 2.5, "write"}));
    EXPECT_EQ(reader.latestTick(t0 + 1500)->tsMs, t0 + 1500);
    EXPECT_EQ(reader.latestTick(t0 - 1), std::nullopt);
}

TEST(SignalsReaderTicks, TicksAreAnInclusiveAscendingRangeCutAtTheLimit) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    for (int i = 0; i < 10; ++i)
        fixture.tick({.tsMs = t0 + i * 1000, .frontmostApp = "A" + std::to_string(i), .idleAnySec = i * 1.0,
                      .browserTitle = "t", .browserURL = "u"});
    Reader reader = Reader::open(fixture.path());

    const auto samples = reader.ticks(t0 + 2000, t0 + 5000, 100);
    ASSERT_EQ(samples.size(), 4u);
    EXPECT_EQ(samples.front(), (ActivityTimeline::Sample{t0 + 2000, "A2", 2.0, "t", "u"}));
    EXPECT_EQ(samples.back().tsMs, t0 + 5000);
    EXPECT_EQ(reader.ticks(t0, t0 + 9000, 3).back().tsMs, t0 + 2000);
}

TEST(SignalsReaderTicks, FrontmostBundleIdOfOneInstant) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    fixture.tick({.tsMs = t0, .frontmostApp = "Mail", .frontmostBundleId = "org.example.mail"});
    fixture.tick({.tsMs = t0 + 1});
    Reader reader = Reader::open(fixture.path());
    EXPECT_EQ(reader.frontmostBundleId(t0), "org.example.mail");
    EXPECT_EQ(reader.frontmostBundleId(t0 + 1), std::nullopt);  // NULL column
    EXPECT_EQ(reader.frontmostBundleId(t0 + 2), std::nullopt);  // no row
}

// ---------------------------------------------------------------------------------------------
// recentApps

TEST(SignalsReaderRecentApps, CountsBecomeMinutesTruncatedToTenths) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    std::vector<FixtureTick> rows;
    int64_t ts = t0;
    for (int i = 0; i < 41; ++i) rows.push_back(appTick(++ts, "Editor"));
    for (int i = 0; i < 40; ++i) rows.push_back(appTick(++ts, "Browser"));
    for (int i = 0; i < 44; ++i) rows.push_back(appTick(++ts, "Terminal"));
    fixture.ticks(rows);
    Reader reader = Reader::open(fixture.path());

    // 41 ticks are 1.025 minutes, which truncates to 1.0; 44 are 1.1.
    EXPECT_EQ(reader.recentApps(ts, 1'000'000),
              (std::vector<AppMinutes>{{"Terminal", 1.1}, {"Editor", 1.0}, {"Browser", 1.0}}));
}

TEST(SignalsReaderRecentApps, WindowExcludesItsStartIncludesItsEndAndSkipsNullApps) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    std::vector<FixtureTick> rows;
    for (int i = 0; i < 4; ++i) rows.push_back(appTick(t0 - 600'000 - i, "Before"));  // at or before start
    rows.push_back(appTick(t0 + 1, "After"));                                          // past the reference
    for (int i = 0; i < 4; ++i) rows.push_back(appTick(t0 - i, "Inside"));
    rows.push_back({.tsMs = t0 - 10});  // NULL app
    fixture.ticks(rows);
    Reader reader = Reader::open(fixture.path());
    EXPECT_EQ(reader.recentApps(t0, 600'000), (std::vector<AppMinutes>{{"Inside", 0.1}}));
}

TEST(SignalsReaderRecentApps, KeepsTheSixBusiestApps) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    std::vector<FixtureTick> rows;
    int64_t ts = t0;
    for (int app = 1; app <= 8; ++app)
        for (int i = 0; i < app * 4; ++i) rows.push_back(appTick(++ts, "App" + std::to_string(app)));
    fixture.ticks(rows);
    const auto apps = Reader::open(fixture.path()).recentApps(ts, 1'000'000);
    ASSERT_EQ(apps.size(), 6u);
    EXPECT_EQ(apps.front(), (AppMinutes{"App8", 0.8}));
    EXPECT_EQ(apps.back(), (AppMinutes{"App3", 0.3}));
}

// ---------------------------------------------------------------------------------------------
// contentWindow and focusedContentWindow

Reader::WindowRow win(std::optional<std::string> title, double w, double h, int layer = 0) {
    return Reader::WindowRow{std::move(title), 0, 0, w, h, layer};
}

TEST(FocusedContentWindow, PrefersTheFirstTitledCandidate) {
    EXPECT_EQ(Reader::focusedContentWindow({win("   ", 800, 600), win("Doc", 800, 600), win("Other", 900, 900)}),
              win("Doc", 800, 600));
    // Tabs and no-break spaces are blank too; an absent title is blank.
    EXPECT_EQ(Reader::focusedContentWindow({win("\t\u00a0", 800, 600), win(std::nullopt, 800, 600), win("x", 60, 60)}),
              win("x", 60, 60));
}

TEST(FocusedContentWindow, WithOnlyBlankCandidatesTheFirstWins) {
    EXPECT_EQ(Reader::focusedContentWindow({win("  ", 100, 100), win("", 900, 900)}), win("  ", 100, 100));
}

TEST(FocusedContentWindow, SmallOrLayeredWindowsAreNoCandidates) {
    // The titled windows are too narrow, too short or not on layer 0, so the blank one wins.
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

TEST(SignalsReaderContentWindow, ReadsOneOwnersRowsOfOneInstantInRowOrder) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    fixture.window({.tsMs = t0, .ownerName = "Editor", .title = "", .width = 900, .height = 900});
    fixture.window({.tsMs = t0, .ownerName = "Editor", .title = "no geometry", .width = std::nullopt});
    fixture.window({.tsMs = t0, .ownerName = "Editor", .title = "main.cpp", .layer = std::nullopt, .x = 10});
    fixture.window({.tsMs = t0, .ownerName = "Other", .title = "other app"});
    fixture.window({.tsMs = t0 + 1, .ownerName = "Editor", .title = "later"});
    Reader reader = Reader::open(fixture.path());

    EXPECT_EQ(reader.contentWindow(t0, "Editor"), (Reader::WindowRow{"main.cpp", 10, 0, 800, 600, 0}));
    EXPECT_EQ(reader.contentWindow(t0, "Nobody"), std::nullopt);
}

TEST(SignalsReaderContentWindow, AnEmptyOwnerNameAsksNothing) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    fixture.window({.tsMs = t0, .ownerName = "", .title = "unowned"});
    EXPECT_EQ(Reader::open(fixture.path()).contentWindow(t0, ""), std::nullopt);
}

// ---------------------------------------------------------------------------------------------
// events, estimate cache, window extent

TEST(SignalsReaderEvents, TaskDeclaredIsTheNewestDeclarationAtOrBefore) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    fixture.event(t0, "task_declared").event(t0 + 10, "app_switch").event(t0 + 20, "task_declared", "{}");
    Reader reader = Reader::open(fixture.path());
    EXPECT_EQ(reader.taskDeclaredTsMsFromSQLiteEvents(t0 + 19), t0);
    EXPECT_EQ(reader.taskDeclaredTsMsFromSQLiteEvents(t0 + 20), t0 + 20);
    EXPECT_EQ(reader.taskDeclaredTsMsFromSQLiteEvents(t0 - 1), std::nullopt);
}

TEST(SignalsReaderEstimateCache, AMissingTableIsNotFoundRatherThanAnError) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    Reader reader = Reader::open(fixture.path());
    EXPECT_EQ(reader.cachedEstimateMinutes("write report"), (Reader::CachedEstimate{false, std::nullopt}));

    fixture.estimateCache("write report", 45.0).estimateCache("tidy up", std::nullopt);
    Reader after = Reader::open(fixture.path());
    EXPECT_EQ(after.cachedEstimateMinutes("write report"), (Reader::CachedEstimate{true, 45.0}));
    EXPECT_EQ(after.cachedEstimateMinutes("tidy up"), (Reader::CachedEstimate{true, std::nullopt}));
    EXPECT_EQ(after.cachedEstimateMinutes("never seen"), (Reader::CachedEstimate{false, std::nullopt}));
}

TEST(SignalsReaderEstimateCache, OtherPrepareFailuresStillRaise) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    fixture.db().exec("CREATE TABLE estimate_cache (declared_task TEXT)");
    try {
        Reader::open(fixture.path()).cachedEstimateMinutes("x");
        FAIL() << "expected SignalsReaderError";
    } catch (const SignalsReaderError& error) {
        EXPECT_EQ(error.description(), "queryFailed(\"no such column: estimated_minutes\")");
    }
}

TEST(SignalsReaderWindows, MaxExtentIgnoresGeometryBeyondEightThousand) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    Reader reader = Reader::open(fixture.path());
    EXPECT_EQ(reader.maxWindowExtent(t0, t0 + 10), (Reader::WindowExtent{}));

    fixture.window({.tsMs = t0, .ownerName = "A", .x = 100, .y = 50, .width = 1400, .height = 850});
    fixture.window({.tsMs = t0 + 5, .ownerName = "B", .x = 7000, .y = 0, .width = 1000, .height = 700});
    fixture.window({.tsMs = t0 + 5, .ownerName = "C", .x = 7000, .y = 0, .width = 1001, .height = 9000});
    fixture.window({.tsMs = t0 + 11, .ownerName = "D", .x = 0, .y = 0, .width = 2000, .height = 2000});
    EXPECT_EQ(reader.maxWindowExtent(t0, t0 + 10), (Reader::WindowExtent{8000.0, 900.0}));
}

TEST(SignalsReaderWindows, LatestNonEmptyTitleAndBrowserTab) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    fixture.window({.tsMs = t0, .ownerName = "A", .title = "titled"});
    fixture.window({.tsMs = t0 + 5, .ownerName = "A", .title = ""});
    fixture.window({.tsMs = t0 + 6, .ownerName = "A", .title = std::nullopt});
    fixture.tick({.tsMs = t0, .browserApp = "Browser"}).tick({.tsMs = t0 + 5, .browserApp = ""}).tick({.tsMs = t0 + 6});
    Reader reader = Reader::open(fixture.path());
    EXPECT_EQ(reader.latestNonEmptyWindowTitleMs(), t0);
    EXPECT_EQ(reader.latestNonEmptyWindowTitleMs(t0), t0);
    EXPECT_EQ(reader.latestNonEmptyWindowTitleMs(t0 + 1), std::nullopt);
    EXPECT_EQ(reader.latestNonEmptyBrowserTabMs(), t0);
    EXPECT_EQ(reader.latestNonEmptyBrowserTabMs(t0 + 1), std::nullopt);
}

TEST(SignalsReaderTicks, LatestTickMsAmongNamedApps) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    fixture.ticks({appTick(t0, "Zoom"), appTick(t0 + 1, "Mail"), appTick(t0 + 2, "Meet"), appTick(t0 + 3, "Mail")});
    Reader reader = Reader::open(fixture.path());
    EXPECT_EQ(reader.latestTickMs({"Zoom", "Meet"}), (Reader::FrontmostAppTick{t0 + 2, "Meet"}));
    EXPECT_EQ(reader.latestTickMs({"Zoom"}), (Reader::FrontmostAppTick{t0, "Zoom"}));
    EXPECT_EQ(reader.latestTickMs({"Zoom"}, t0 + 1), std::nullopt);
    EXPECT_EQ(reader.latestTickMs({}), std::nullopt);
}

// ---------------------------------------------------------------------------------------------
// batteryHistory

TEST(SignalsReaderBattery, KeepsOnlyRowsWhereLevelOrChargerChangedNewestFirst) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    fixture.ticks({
        {.tsMs = t0 + 0, .batteryPct = 80, .acPlugged = false},
        {.tsMs = t0 + 1, .batteryPct = 80, .acPlugged = false},                  // unchanged
        {.tsMs = t0 + 2, .batteryPct = 79, .acPlugged = false},                  // level
        {.tsMs = t0 + 3},                                                        // no reading: not a row
        {.tsMs = t0 + 4, .batteryPct = 79, .acPlugged = true},                   // charger
        {.tsMs = t0 + 5, .batteryPct = 79, .acPlugged = std::nullopt},           // NULL differs from 1
        {.tsMs = t0 + 6, .batteryPct = 79, .acPlugged = std::nullopt},           // NULL equals NULL
    });
    Reader reader = Reader::open(fixture.path());
    using Row = Reader::BatteryHistoryRow;
    EXPECT_EQ(reader.batteryHistory(t0, 100),
              (std::vector<Row>{{t0 + 5, 79, std::nullopt}, {t0 + 4, 79, true}, {t0 + 2, 79, false},
                                {t0 + 0, 80, false}}));
    EXPECT_EQ(reader.batteryHistory(t0, 2).size(), 2u);
    // The first row since the bound has nothing before it to compare with, so it is kept.
    EXPECT_EQ(reader.batteryHistory(t0 + 1, 100).back(), (Row{t0 + 1, 80, false}));
}

// ---------------------------------------------------------------------------------------------
// presenceGap

// presenceGap as the classifier calls it, over `rows` alone.
Reader::PresenceGapResult walk(const std::vector<FixtureTick>& rows, int64_t beforeMs, int64_t limit = 1000) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    fixture.ticks(rows);
    return Reader::open(fixture.path()).presenceGap(beforeMs, 14'400'000, 300.0, 180'000, limit);
}

constexpr int64_t minute = 60'000;

TEST(SignalsReaderPresenceGap, NoRowsOrOnlyPresentRowsAreContinuousPresence) {
    EXPECT_EQ(walk({}, t0), Reader::PresenceGapResult{Reader::ContinuouslyPresent{}});
    EXPECT_EQ(walk({appTick(t0 - 2 * minute, "A"), appTick(t0 - minute, "A", std::nullopt),
                                   appTick(t0 - 1, "A", 300.0)},
                                  t0),
              Reader::PresenceGapResult{Reader::ContinuouslyPresent{}});
}

TEST(SignalsReaderPresenceGap, AnAbsenceBetweenTwoPresentRunsIsAGap) {
    const std::vector<FixtureTick> rows = {
        appTick(t0 - 30 * minute, "Editor"),          // present before the absence
        appTick(t0 - 20 * minute, "Editor", 900.0),   // idle: away
        appTick(t0 - 10 * minute, "LoginWindow"),     // locked: away, whatever the case
        appTick(t0 - 2 * minute, "Editor"),           // the present run starts here
        appTick(t0 - 1 * minute, "Editor"),
    };
    const auto result = walk(rows, t0);
    ASSERT_TRUE(std::holds_alternative<Reader::PresenceGap>(result));
    const auto& gap = std::get<Reader::PresenceGap>(result);
    EXPECT_EQ(gap.beforeAbsence.tsMs, t0 - 30 * minute);
    EXPECT_EQ(gap.beforeAbsence.frontmostApp, "Editor");
    EXPECT_EQ(gap.runStartMs, t0 - 2 * minute);
}

TEST(SignalsReaderPresenceGap, AHoleInThePresentRunIsAGapOnlyBeyondTheContinuityLimit) {
    const auto result = walk(
        {appTick(t0 - 7 * minute - 1, "A"), appTick(t0 - 4 * minute, "A"), appTick(t0 - minute, "A")}, t0);
    // 180000 ms between rows is still continuous; one more millisecond is not.
    ASSERT_TRUE(std::holds_alternative<Reader::PresenceGap>(result));
    EXPECT_EQ(std::get<Reader::PresenceGap>(result).beforeAbsence.tsMs, t0 - 7 * minute - 1);
    EXPECT_EQ(std::get<Reader::PresenceGap>(result).runStartMs, t0 - 4 * minute);

    EXPECT_EQ(walk({appTick(t0 - 4 * minute, "A"), appTick(t0 - minute, "A")}, t0),
              Reader::PresenceGapResult{Reader::ContinuouslyPresent{}});
}

TEST(SignalsReaderPresenceGap, TheFirstRowIsNotMeasuredAgainstTheBound) {
    EXPECT_EQ(walk({appTick(t0 - 60 * minute, "A")}, t0),
              Reader::PresenceGapResult{Reader::ContinuouslyPresent{}});
}

TEST(SignalsReaderPresenceGap, AnAbsenceReachingPastTheWindowExceedsIt) {
    // Away for five hours: the walk gives up at the four-hour window.
    std::vector<FixtureTick> rows = {appTick(t0 - 6 * 60 * minute, "A")};
    for (int m = 5 * 60; m >= 2; m -= 2) rows.push_back(appTick(t0 - m * minute, "A", 1000.0));
    rows.push_back(appTick(t0 - minute, "A"));
    EXPECT_EQ(walk(rows, t0), Reader::PresenceGapResult{Reader::GapExceedsWindow{t0 - minute}});
}

TEST(SignalsReaderPresenceGap, RowsRunningOutInsideAnAbsenceExceedTheWindow) {
    EXPECT_EQ(walk({appTick(t0 - 10 * minute, "A", 400.0), appTick(t0 - minute, "A")}, t0),
              Reader::PresenceGapResult{Reader::GapExceedsWindow{t0 - minute}});
    // The limit ends the walk the same way.
    EXPECT_EQ(walk({appTick(t0 - 20 * minute, "A"), appTick(t0 - 10 * minute, "A", 400.0),
                                   appTick(t0 - minute, "A")},
                                  t0, 2),
              Reader::PresenceGapResult{Reader::GapExceedsWindow{t0 - minute}});
}

TEST(SignalsReaderPresenceGap, HolesInsideAnAbsenceAreNotContinuityBreaks) {
    const auto result = walk(
        {appTick(t0 - 90 * minute, "A"), appTick(t0 - 60 * minute, "A", 999.0), appTick(t0 - 2 * minute, "A", 999.0),
         appTick(t0 - minute, "A")},
        t0);
    ASSERT_TRUE(std::holds_alternative<Reader::PresenceGap>(result));
    EXPECT_EQ(std::get<Reader::PresenceGap>(result).beforeAbsence.tsMs, t0 - 90 * minute);
}

TEST(SignalsReaderPresenceGap, RowsAtOrAfterTheBoundAreNotWalked) {
    EXPECT_EQ(walk({appTick(t0 - minute, "A"), appTick(t0, "A", 999.0)}, t0),
              Reader::PresenceGapResult{Reader::ContinuouslyPresent{}});
}

// ---------------------------------------------------------------------------------------------
// Opening, errors and garbage

void expectReaderError(const std::function<void()>& action, SignalsReaderError::Kind kind,
                       const std::string& description) {
    try {
        action();
        ADD_FAILURE() << "expected SignalsReaderError " << description;
    } catch (const SignalsReaderError& error) {
        EXPECT_EQ(error.kind, kind);
        EXPECT_EQ(error.description(), description);
    }
}

TEST(SignalsReaderOpen, AMissingFileRaisesOpenFailed) {
    TempDir dir;
    expectReaderError([&] { Reader::open(dir / "absent.sqlite"); }, SignalsReaderError::Kind::openFailed,
                      "openFailed(\"unable to open database file\")");
    EXPECT_FALSE(std::filesystem::exists(dir / "absent.sqlite"));
}

TEST(SignalsReaderOpen, PathsWithURICharactersOpenTheRightFile) {
    TempDir dir;
    const auto path = dir / "odd ?name#with%41.sqlite";
    SignalsFixture(path).tick({.tsMs = 42});
    EXPECT_EQ(Reader::open(path).latestTick()->tsMs, 42);
}

TEST(SignalsReaderErrors, ANonDatabaseFileFailsEveryQueryWithQueryFailed) {
    TempDir dir;
    testing::writeFile(dir / "signals.sqlite", std::string(8192, 'x'));
    Reader reader = Reader::open(dir / "signals.sqlite");
    const std::string notADatabase = "queryFailed(\"file is not a database\")";
    expectReaderError([&] { reader.latestTick(); }, SignalsReaderError::Kind::queryFailed, notADatabase);
    expectReaderError([&] { reader.recentApps(0, 1); }, SignalsReaderError::Kind::queryFailed, notADatabase);
    expectReaderError([&] { reader.cachedEstimateMinutes("x"); }, SignalsReaderError::Kind::queryFailed,
                      notADatabase);
}

TEST(SignalsReaderErrors, AnEmptyDatabaseNamesTheMissingTable) {
    TempDir dir;
    { SQLiteDB::open(dir / "signals.sqlite").exec("CREATE TABLE unrelated (x)"); }
    Reader reader = Reader::open(dir / "signals.sqlite");
    expectReaderError([&] { reader.latestTick(); }, SignalsReaderError::Kind::queryFailed,
                      "queryFailed(\"no such table: ticks\")");
    expectReaderError([&] { reader.contentWindow(1, "A"); }, SignalsReaderError::Kind::queryFailed,
                      "queryFailed(\"no such table: windows\")");
}

TEST(SignalsReaderErrors, ALockedDatabaseIsAQueryFailureNotACrash) {
    TempDir dir;
    const auto path = dir / "signals.sqlite";
    {
        SignalsFixture fixture(path);
        fixture.tick({.tsMs = 1});
        fixture.db().exec("PRAGMA journal_mode=DELETE");
    }
    sqlite3* holder = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &holder), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE; INSERT INTO ticks (ts_ms) VALUES (2);", nullptr, nullptr, nullptr),
              SQLITE_OK);

    Reader reader = Reader::open(path);
    expectReaderError([&] { reader.latestTick(); }, SignalsReaderError::Kind::queryFailed,
                      "queryFailed(\"database is locked\")");

    sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(holder);
    EXPECT_EQ(reader.latestTick()->tsMs, 2);
}

TEST(SignalsReaderErrors, AMovedFromReaderReportsAnUnknownError) {
    TempDir dir;
    SignalsFixture fixture(dir / "signals.sqlite");
    Reader reader = Reader::open(fixture.path());
    Reader taken = std::move(reader);
    expectReaderError([&] { reader.latestTick(); }, SignalsReaderError::Kind::queryFailed,  // NOLINT(bugprone-use-after-move)
                      "queryFailed(\"unknown sqlite error\")");
    EXPECT_EQ(taken.latestTick(), std::nullopt);
}

// Runs every query; a corrupt file may raise SignalsReaderError but nothing else may happen.
void everyQuerySurvives(const std::filesystem::path& path) {
    try {
        Reader reader = Reader::open(path);
        const auto attempt = [](const auto& query) {
            try {
                query();
            } catch (const SignalsReaderError&) {
            }
        };
        attempt([&] { reader.latestTick(); });
        attempt([&] { reader.latestTick(t0 + 50'000); });
        attempt([&] { reader.recentApps(t0 + 100'000, 600'000); });
        attempt([&] { reader.contentWindow(t0, "Editor"); });
        attempt([&] { reader.taskDeclaredTsMsFromSQLiteEvents(t0 + 100'000); });
        attempt([&] { reader.cachedEstimateMinutes("write"); });
        attempt([&] { reader.presenceGap(t0 + 100'000, 14'400'000, 300.0, 180'000, 1000); });
        attempt([&] { reader.frontmostBundleId(t0); });
        attempt([&] { reader.ticks(t0, t0 + 100'000, 1000); });
        attempt([&] { reader.maxWindowExtent(t0, t0 + 100'000); });
        attempt([&] { reader.batteryHistory(t0, 100); });
        attempt([&] { reader.latestNonEmptyWindowTitleMs(); });
        attempt([&] { reader.latestNonEmptyBrowserTabMs(t0); });
        attempt([&] { reader.latestTickMs({"Editor", "Mail"}, t0); });
    } catch (const SignalsReaderError&) {
    }
}

std::string garbageSourceDatabase(const TempDir& dir) {
    const auto path = dir / "source.sqlite";
    {
        SignalsFixture fixture(path);
        std::vector<FixtureTick> rows;
        for (int i = 0; i < 60; ++i)
            rows.push_back({.tsMs = t0 + i * 1500, .frontmostApp = i % 3 ? "Editor" : "Mail",
                            .idleAnySec = i * 7.0, .browserTitle = std::string(300, 'a' + i % 26),
                            .batteryPct = 90 - i / 10, .acPlugged = i % 20 < 10,
                            .declaredTask = "write \xff\xfe invalid UTF-8"});
        fixture.ticks(rows);
        for (int i = 0; i < 20; ++i)
            fixture.window({.tsMs = t0, .ownerName = "Editor", .title = "w" + std::to_string(i), .width = 50.0 + i});
        fixture.event(t0, "task_declared", "{\"horizon_minutes\": 30}").estimateCache("write", 30);
        fixture.db().exec("UPDATE ticks SET idle_any_sec = 'lots' WHERE ts_ms = " + std::to_string(t0));
    }
    return testing::readFile(path);
}

TEST(SignalsReaderGarbage, EveryTruncationOfTheFileIsSurvived) {
    TempDir dir;
    const std::string bytes = garbageSourceDatabase(dir);
    ASSERT_GT(bytes.size(), 8192u);
    const auto target = dir / "signals.sqlite";
    for (size_t length = 0; length < bytes.size(); length += length < 200 ? 1 : 509) {
        testing::writeFile(target, bytes.substr(0, length));
        everyQuerySurvives(target);
    }
}

TEST(SignalsReaderGarbage, RandomlyCorruptedPagesAreSurvived) {
    TempDir dir;
    const std::string bytes = garbageSourceDatabase(dir);
    const auto target = dir / "signals.sqlite";
    std::mt19937 random(20261122);
    for (int round = 0; round < 300; ++round) {
        std::string damaged = bytes;
        const int flips = 1 + static_cast<int>(random() % 16);
        for (int i = 0; i < flips; ++i) damaged[random() % damaged.size()] = static_cast<char>(random());
        testing::writeFile(target, damaged);
        everyQuerySurvives(target);
    }
}

// ---------------------------------------------------------------------------------------------
// A capture agent writing in another process while the reader reads

// Every field of a row is derived from its time, so a row mixing two writes shows.
FixtureTick derivedTick(int64_t tsMs) {
    const std::string tag = std::to_string(tsMs);
    return FixtureTick{.tsMs = tsMs, .frontmostApp = "App" + tag, .idleAnySec = static_cast<double>(tsMs % 1000),
                       .browserApp = "Browser" + tag, .browserTitle = "Title " + tag,
                       .browserURL = "https://example.org/" + tag,
                       // Long enough to spill onto overflow pages.
                       .declaredTask = std::string(6000, static_cast<char>('a' + tsMs % 26)) + tag};
}

bool isWhole(const Reader::TickRow& row) {
    const FixtureTick expected = derivedTick(row.tsMs);
    return row.frontmostApp == expected.frontmostApp && row.browserApp == expected.browserApp &&
           row.browserTitle == expected.browserTitle && row.browserURL == expected.browserURL &&
           row.idleAnySec == expected.idleAnySec && row.declaredTask == expected.declaredTask;
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
    int reads = 0, tornRows = 0, errors = 0;
    int64_t lastSeen = 0;
    std::set<int64_t> distinctLatest;
    int status = 0;
    for (;;) {
        const bool writerDone = waitpid(child, &status, WNOHANG) == child;
        try {
            if (auto row = reader.latestTick()) {
                ++reads;
                distinctLatest.insert(row->tsMs);
                if (!isWhole(*row)) ++tornRows;
                EXPECT_GE(row->tsMs, lastSeen) << "the newest row went backwards";
                lastSeen = row->tsMs;
                for (const auto& sample : reader.ticks(row->tsMs - 15'000, row->tsMs, 20))
                    if (sample.frontmostApp != "App" + std::to_string(sample.tsMs)) ++tornRows;
                for (const auto& app : reader.recentApps(row->tsMs, 15'000))
                    if (app.approxMinutes != 0.0) ++tornRows;  // one row per app: 1.5 s each
            }
        } catch (const SignalsReaderError& error) {
            ++errors;
            ADD_FAILURE() << error.description();
        }
        if (writerDone) break;
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(errors, 0);
    EXPECT_EQ(tornRows, 0);
    EXPECT_EQ(lastSeen, t0 + rowCount * 1500);
    // The reads overlapped the writes rather than only following them.
    EXPECT_GT(distinctLatest.size(), 10u) << reads << " reads";
}

}  // namespace
}  // namespace aimwise
