#include "CaptureShared/signals/schema.h"

#include <algorithm>
#include <string>

#include "CaptureShared/signals/sqlite_db.h"

namespace aimwise::Schema {

const char* const createTicks = R"(CREATE TABLE IF NOT EXISTS ticks (
  ts_ms INTEGER PRIMARY KEY,
  frontmost_app TEXT,
  frontmost_bundle_id TEXT,
  idle_key_sec REAL,
  idle_mouse_sec REAL,
  idle_any_sec REAL,
  mouse_x REAL,
  mouse_y REAL,
  browser_app TEXT,
  browser_title TEXT,
  browser_url TEXT,
  now_playing_title TEXT,
  now_playing_artist TEXT,
  now_playing_state TEXT,
  screen_locked INTEGER,
  screensaver_active INTEGER,
  clamshell_closed INTEGER,
  battery_pct INTEGER,
  ac_plugged INTEGER,
  declared_task TEXT
);)";

const char* const createWindows = R"(CREATE TABLE IF NOT EXISTS windows (
  ts_ms INTEGER,
  owner_name TEXT,
  owner_pid INTEGER,
  title TEXT,
  layer INTEGER,
  x REAL, y REAL, width REAL, height REAL,
  is_fullscreen INTEGER
);
CREATE INDEX IF NOT EXISTS idx_windows_ts ON windows(ts_ms);)";

const char* const createEvents = R"(CREATE TABLE IF NOT EXISTS events (
  ts_ms INTEGER,
  type TEXT NOT NULL,
  detail TEXT
);
CREATE INDEX IF NOT EXISTS idx_events_ts ON events(ts_ms);)";

void createAll(SQLiteDB& db) {
    db.exec(createTicks);
    db.exec(createWindows);
    db.exec(createEvents);
    ensureBatteryTelemetryColumns(db);
}

void ensureBatteryTelemetryColumns(SQLiteDB& db) {
    const std::vector<std::string> existing = db.columnNames("ticks");
    for (const Column& column : batteryTelemetryColumns) {
        if (std::find(existing.begin(), existing.end(), column.name) != existing.end()) continue;
        db.exec("ALTER TABLE ticks ADD COLUMN " + std::string(column.name) + " " + std::string(column.type));
    }
}

}  // namespace aimwise::Schema
