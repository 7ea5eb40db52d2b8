#include "agents/capture/signals_writer.h"

#include <sys/stat.h>

#include "AimwiseCore/events/json_value.h"
#include "CaptureShared/signals/schema.h"
#include "CaptureShared/signals/signals_reader.h"

namespace aimwise {

namespace {

// Wide enough for every ticks column, battery telemetry included.
const char* const insertTick =
    "INSERT OR REPLACE INTO ticks (ts_ms, frontmost_app, frontmost_bundle_id, idle_key_sec, idle_mouse_sec, "
    "idle_any_sec, mouse_x, mouse_y, browser_app, browser_title, browser_url, screen_locked, screensaver_active, "
    "battery_pct, ac_plugged, declared_task, battery_voltage_mv, battery_instant_amperage_ma, "
    "battery_full_charge_capacity_mah) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, NULL, ?, ?, ?, ?, ?, ?, ?, ?)";

constexpr size_t windowColumns = 10;
// One statement per instant for all its windows, well inside SQLite's parameter limit.
constexpr size_t windowsPerStatement = 64;

std::string insertWindows(size_t count) {
    std::string sql =
        "INSERT INTO windows (ts_ms, owner_name, owner_pid, title, layer, x, y, width, height, is_fullscreen) VALUES ";
    for (size_t i = 0; i < count; ++i) sql += i ? ", (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)" : "(?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
    return sql;
}

std::optional<std::string> nonEmpty(const std::string& text) {
    return text.empty() ? std::nullopt : std::optional(text);
}

}  // namespace

SignalsWriter::SignalsWriter(std::filesystem::path path) : path_(std::move(path)), db_(SQLiteDB::open(path_)) {
    Schema::createAll(db_);
    // WAL keeps the file consistent through a power cut; syncing every instant would only keep
    // the last second or two, at a disk write each time.
    db_.exec("PRAGMA synchronous=NORMAL;");
    // Rows only ever go on the end of the tables; a small page cache does and keeps the agent small.
    db_.exec("PRAGMA cache_size=-512;");
    struct stat info{};
    if (stat(path_.c_str(), &info) == 0) {
        device_ = info.st_dev;
        inode_ = info.st_ino;
    }
    try {
        if (const auto latest = SignalsReader::open(path_).latestTick()) lastDeclaredTask_ = latest->declaredTask;
    } catch (const SignalsReaderError&) {
        // A file we cannot read back still takes writes; the first change is then announced.
    }
}

bool SignalsWriter::stillAtPath() const {
    struct stat info{};
    return stat(path_.c_str(), &info) == 0 && info.st_dev == device_ && info.st_ino == inode_;
}

void SignalsWriter::write(const TickRecord& r) {
    db_.exec("BEGIN");
    db_.insert(insertTick,
               {r.tsMs, r.frontmostApp, r.frontmostBundleId, r.idleKeySec, r.idleMouseSec, r.idleAnySec, r.mouseX,
                r.mouseY, r.browserApp, r.browserTitle, r.screenLocked, r.screensaverActive, r.power.batteryPct,
                r.power.acPlugged, r.declaredTask, r.power.voltageMv, r.power.instantAmperageMa,
                r.power.fullChargeCapacityMah});
    for (size_t start = 0; start < r.windows.size(); start += windowsPerStatement) {
        const size_t count = std::min(windowsPerStatement, r.windows.size() - start);
        std::vector<SQLParam> params;
        params.reserve(count * windowColumns);
        for (size_t i = start; i < start + count; ++i) {
            const DesktopWindow& w = r.windows[i];
            const auto place = [&](double value) {
                return w.geometryKnown ? SQLParam(value) : SQLParam(std::optional<double>());
            };
            for (SQLParam p : {SQLParam(r.tsMs), SQLParam(nonEmpty(w.ownerName)), SQLParam(w.pid),
                               SQLParam(w.title), SQLParam(w.layer), place(w.x), place(w.y),
                               place(w.width), place(w.height), SQLParam(w.fullscreen)})
                params.push_back(std::move(p));
        }
        db_.insert(insertWindows(count), params);
    }
    if (r.declaredTask != lastDeclaredTask_) {
        const bool declared = r.declaredTask.has_value();
        JSONValue::Object detail;
        if (declared) detail["declared_task"] = *r.declaredTask;
        db_.insert("INSERT INTO events (ts_ms, type, detail) VALUES (?, ?, ?)",
                   {r.tsMs, declared ? "task_declared" : "task_cleared", JSONValue(detail).serialized()});
        lastDeclaredTask_ = r.declaredTask;
    }
    db_.exec("COMMIT");
}

}  // namespace aimwise
