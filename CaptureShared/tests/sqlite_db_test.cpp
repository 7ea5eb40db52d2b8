#include "CaptureShared/signals/sqlite_db.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "CaptureShared/signals/schema.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

// Independent eyes on the file: a raw connection that is not the code under test.
std::vector<std::vector<std::string>> rawQuery(const std::filesystem::path& path, const std::string& sql) {
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    sqlite3_stmt* stmt = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    std::vector<std::vector<std::string>> rows;
    while (stmt && sqlite3_step(stmt) == SQLITE_ROW) {
        std::vector<std::string> row;
        for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
            const auto* text = sqlite3_column_text(stmt, i);
            row.push_back(text ? reinterpret_cast<const char*>(text) : "NULL");
        }
        rows.push_back(row);
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return rows;
}

const std::vector<std::string> ticksColumnsInDDL = {
    "ts_ms",          "frontmost_app",      "frontmost_bundle_id", "idle_key_sec",      "idle_mouse_sec",
    "idle_any_sec",   "mouse_x",            "mouse_y",             "browser_app",       "browser_title",
    "browser_url",    "now_playing_title",  "now_playing_artist",  "now_playing_state", "screen_locked",
    "screensaver_active", "clamshell_closed", "battery_pct",       "ac_plugged",        "declared_task"};

const std::vector<std::string> telemetryColumns = {
    "battery_voltage_mv", "battery_instant_amperage_ma", "battery_update_time_s",
    "battery_accumulated_system_load", "battery_system_load_accumulator_count", "battery_system_power_in_mw",
    "battery_full_charge_capacity_mah"};

TEST(SQLiteDBOpen, CreatesTheFileInWALModeOrRaisesTheLibrarysMessage) {
    testing::TempDir dir;
    const auto path = dir / "signals.sqlite";
    { SQLiteDB db = SQLiteDB::open(path); }
    EXPECT_EQ(rawQuery(path, "PRAGMA journal_mode"), (std::vector<std::vector<std::string>>{{"wal"}}));
    try {
        SQLiteDB::open(dir / "no-such-dir" / "signals.sqlite");
        FAIL() << "expected SQLiteError";
    } catch (const SQLiteError& error) {
        EXPECT_EQ(error.kind, SQLiteError::Kind::openFailed);
        EXPECT_EQ(error.message, "unable to open database file");
        EXPECT_EQ(error.description(), "could not open " + (dir / "no-such-dir" / "signals.sqlite").string() +
                                           " for writing (unable to open database file) — check that its folder "
                                           "is writable and its disk has room; nothing was recorded");
    }
}

TEST(Schema, CreateAllBuildsTheThreeTablesWithTelemetryColumnsLast) {
    testing::TempDir dir;
    SQLiteDB db = SQLiteDB::open(dir / "signals.sqlite");
    Schema::createAll(db);

    std::vector<std::string> expected = ticksColumnsInDDL;
    expected.insert(expected.end(), telemetryColumns.begin(), telemetryColumns.end());
    EXPECT_EQ(db.columnNames("ticks"), expected);
    EXPECT_EQ(db.columnNames("windows"), (std::vector<std::string>{"ts_ms", "owner_name", "owner_pid", "title", "layer",
                                                                   "x", "y", "width", "height", "is_fullscreen"}));
    EXPECT_EQ(db.columnNames("events"), (std::vector<std::string>{"ts_ms", "type", "detail"}));
    EXPECT_EQ(rawQuery(dir / "signals.sqlite", "SELECT name FROM sqlite_master WHERE type = 'index' ORDER BY name"),
              (std::vector<std::vector<std::string>>{{"idx_events_ts"}, {"idx_windows_ts"}}));
    EXPECT_EQ(rawQuery(dir / "signals.sqlite", "SELECT type FROM pragma_table_info('ticks') WHERE pk = 1"),
              (std::vector<std::vector<std::string>>{{"INTEGER"}}));
}

TEST(Schema, AnOlderFileGainsOnlyTheMissingTelemetryColumnsOnce) {
    testing::TempDir dir;
    SQLiteDB db = SQLiteDB::open(dir / "signals.sqlite");
    db.exec(Schema::createTicks);
    db.exec("ALTER TABLE ticks ADD COLUMN battery_voltage_mv INTEGER");
    db.insert("INSERT INTO ticks (ts_ms, frontmost_app) VALUES (?, ?)", {int64_t{5}, "Mail"});

    Schema::ensureBatteryTelemetryColumns(db);
    // From then on every start finds nothing to do and says nothing.
    CaptureStderr();
    Schema::createAll(db);
    EXPECT_EQ(GetCapturedStderr(), "");

    std::vector<std::string> expected = ticksColumnsInDDL;
    expected.insert(expected.end(), telemetryColumns.begin(), telemetryColumns.end());
    EXPECT_EQ(db.columnNames("ticks"), expected);
    EXPECT_EQ(rawQuery(dir / "signals.sqlite", "SELECT ts_ms, frontmost_app FROM ticks"),
              (std::vector<std::vector<std::string>>{{"5", "Mail"}}));
}

TEST(SQLiteDBInsert, BindsEachParameterByItsType) {
    testing::TempDir dir;
    const auto path = dir / "t.sqlite";
    SQLiteDB db = SQLiteDB::open(path);
    db.exec("CREATE TABLE t (a, b, c, d, e, f, g)");
    const std::optional<double> absent;
    db.insert("INSERT INTO t VALUES (?, ?, ?, ?, ?, ?, ?)",
              {std::nullopt, 7, int64_t{9007199254740993}, 2.5, true, false, std::string("text, with \"quotes\"")});
    db.insert("INSERT INTO t VALUES (?, ?, ?, ?, ?, ?, ?)",
              {absent, std::optional<int>(3), 0, -1.0, "x", std::optional<bool>(true), std::optional<std::string>()});

    EXPECT_EQ(rawQuery(path, "SELECT typeof(a), typeof(b), typeof(c), typeof(d), typeof(e), typeof(f), typeof(g) "
                             "FROM t ORDER BY rowid"),
              (std::vector<std::vector<std::string>>{
                  {"null", "integer", "integer", "real", "integer", "integer", "text"},
                  {"null", "integer", "integer", "real", "text", "integer", "null"}}));
    EXPECT_EQ(rawQuery(path, "SELECT b, c, d, e, f, g FROM t ORDER BY rowid LIMIT 1"),
              (std::vector<std::vector<std::string>>{
                  {"7", "9007199254740993", "2.5", "1", "0", "text, with \"quotes\""}}));
}

TEST(SQLiteDBFailures, AreWrittenToStandardErrorAndNeverRaised) {
    testing::TempDir dir;
    SQLiteDB db = SQLiteDB::open(dir / "signals.sqlite");
    Schema::createAll(db);

    CaptureStderr();
    db.exec("CREATE TABLE oops (");
    EXPECT_EQ(GetCapturedStderr(), "SQLiteDB.exec failed: incomplete input\nSQL: CREATE TABLE oops (\n");

    CaptureStderr();
    db.insert("INSERT INTO nope VALUES (?)", {1});
    EXPECT_EQ(GetCapturedStderr(), "SQLiteDB.insert prepare failed: no such table: nope\n");

    CaptureStderr();
    db.insert("INSERT INTO events (ts_ms, type) VALUES (?, ?)", {1, std::nullopt});
    EXPECT_EQ(GetCapturedStderr(), "SQLiteDB.insert step failed: NOT NULL constraint failed: events.type\n");

    CaptureStderr();
    db.insert("INSERT INTO ticks (ts_ms) VALUES (?)", {1});
    db.insert("INSERT INTO ticks (ts_ms) VALUES (?)", {1});
    EXPECT_EQ(GetCapturedStderr(), "SQLiteDB.insert step failed: UNIQUE constraint failed: ticks.ts_ms\n");

    EXPECT_TRUE(db.columnNames("no_such_table").empty());
}

}  // namespace
}  // namespace aimwise
