#include "tests/support/signals_fixtures.h"

#include "CaptureShared/signals/schema.h"

namespace aimwise::testing {

namespace {

// The estimate extractor's table, which it creates on its first write.
constexpr const char* createEstimateCache =
    "CREATE TABLE IF NOT EXISTS estimate_cache (\n    declared_task TEXT PRIMARY KEY, estimated_minutes REAL, reason TEXT, "
    "parsed_at_ms INTEGER)";

}  // namespace

void insertTick(SQLiteDB& db, const FixtureTick& row) {
    db.insert(
        "INSERT INTO ticks (ts_ms, frontmost_app, frontmost_bundle_id, idle_any_sec, browser_app, browser_title, "
        "browser_url, battery_pct, ac_plugged, declared_task) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
        {row.tsMs, row.frontmostApp, row.frontmostBundleId, row.idleAnySec, row.browserApp, row.browserTitle,
         row.browserURL, row.batteryPct, row.acPlugged, row.declaredTask});
}

namespace {

SQLiteDB openCreatingParent(const std::filesystem::path& path) {
    if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path());
    return SQLiteDB::open(path);
}

}  // namespace

SignalsFixture::SignalsFixture(std::filesystem::path path) : path_(std::move(path)), db_(openCreatingParent(path_)) {
    Schema::createAll(db_);
}

SignalsFixture& SignalsFixture::tick(const FixtureTick& row) {
    insertTick(db_, row);
    return *this;
}

SignalsFixture& SignalsFixture::ticks(const std::vector<FixtureTick>& rows) {
    db_.exec("BEGIN");
    for (const FixtureTick& row : rows) insertTick(db_, row);
    db_.exec("COMMIT");
    return *this;
}

SignalsFixture& SignalsFixture::window(const FixtureWindow& row) {
    db_.insert("INSERT INTO windows (ts_ms, owner_name, title, layer, x, y, width, height) "
               "VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
               {row.tsMs, row.ownerName, row.title, row.layer, row.x, row.y, row.width, row.height});
    return *this;
}

SignalsFixture& SignalsFixture::event(int64_t tsMs, const std::string& type, std::optional<std::string> detail) {
    db_.insert("INSERT INTO events (ts_ms, type, detail) VALUES (?, ?, ?)", {tsMs, type, detail});
    return *this;
}

SignalsFixture& SignalsFixture::estimateCache(const std::string& declaredTask, std::optional<double> minutes) {
    db_.exec(createEstimateCache);
    db_.insert("INSERT OR REPLACE INTO estimate_cache (declared_task, estimated_minutes) VALUES (?, ?)",
               {declaredTask, minutes});
    return *this;
}

}  // namespace aimwise::testing
