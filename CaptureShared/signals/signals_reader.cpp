#include "CaptureShared/signals/signals_reader.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cmath>

#include "CaptureShared/common/saturating.h"
#include "CaptureShared/common/utf8.h"
#include "CaptureShared/signals/sqlite_statement.h"

namespace aimwise {

namespace {

constexpr const char* latestTickSQL =
    "SELECT ts_ms, frontmost_app, browser_app, browser_title, browser_url, idle_any_sec, declared_task "
    "FROM ticks ORDER BY ts_ms DESC LIMIT 1";
constexpr const char* latestTickAsOfSQL =
    "SELECT ts_ms, frontmost_app, browser_app, browser_title, browser_url, idle_any_sec, declared_task "
    "FROM ticks WHERE ts_ms <= ? ORDER BY ts_ms DESC LIMIT 1";
constexpr const char* recentAppsSQL =
    "SELECT frontmost_app, COUNT(*) c FROM ticks WHERE ts_ms > ? AND ts_ms <= ? AND frontmost_app IS NOT NULL "
    "GROUP BY frontmost_app ORDER BY c DESC LIMIT 6";
constexpr const char* contentWindowSQL =
    "SELECT title, x, y, width, height, layer FROM windows WHERE ts_ms = ? AND owner_name = ? "
    "ORDER BY rowid ASC";
constexpr const char* taskDeclaredSQL =
    "SELECT ts_ms FROM events WHERE type = 'task_declared' AND ts_ms <= ? ORDER BY ts_ms DESC LIMIT 1";
constexpr const char* cachedEstimateSQL = "SELECT estimated_minutes FROM estimate_cache WHERE declared_task = ?";
constexpr const char* presenceGapSQL =
    "SELECT ts_ms, frontmost_app, browser_app, browser_title, browser_url, idle_any_sec, declared_task "
    "FROM ticks WHERE ts_ms < ? ORDER BY ts_ms DESC LIMIT ?";
constexpr const char* frontmostBundleIdSQL = "SELECT frontmost_bundle_id FROM ticks WHERE ts_ms = ? LIMIT 1";
constexpr const char* ownerWindowSQL =
    "SELECT title, owner_pid, x IS NOT NULL AND y IS NOT NULL AND width IS NOT NULL AND height IS NOT NULL "
    "FROM windows WHERE ts_ms = ? AND owner_name = ? ORDER BY rowid ASC LIMIT 1";
constexpr const char* ticksSQL =
    "SELECT ts_ms, frontmost_app, idle_any_sec, browser_title, browser_url FROM ticks "
    "WHERE ts_ms >= ? AND ts_ms <= ? ORDER BY ts_ms ASC LIMIT ?";
constexpr const char* maxWindowExtentSQL =
    "SELECT MAX(x + width), MAX(y + height) FROM windows WHERE ts_ms BETWEEN ? AND ? "
    "AND x + width  BETWEEN -? AND ? AND y + height BETWEEN -? AND ?";
constexpr const char* batteryHistorySQL =
    "SELECT ts_ms, battery_pct, ac_plugged FROM ( SELECT ts_ms, battery_pct, ac_plugged, "
    "LAG(battery_pct) OVER (ORDER BY ts_ms) AS prev_pct, LAG(ac_plugged) OVER (ORDER BY ts_ms) AS prev_plugged "
    "FROM ticks WHERE ts_ms >= ? AND battery_pct IS NOT NULL ) "
    "WHERE prev_pct IS NULL OR prev_pct != battery_pct OR IFNULL(prev_plugged, -1) != IFNULL(ac_plugged, -1) "
    "ORDER BY ts_ms DESC LIMIT ?";
constexpr const char* sinceBoundPiece = "AND ts_ms >= ? ";
constexpr const char* newestOnePiece = "ORDER BY ts_ms DESC LIMIT 1";

// Keeps the window-extent bounds out of reach of absurd geometry from broken window lists.
constexpr double windowExtentBound = 8000.0;
// One `ticks` row stands for this much time when counting minutes in an app.
constexpr double secondsPerTick = 1.5;
constexpr double candidateMinSide = 60.0;

[[noreturn]] void throwQueryFailed(sqlite3* db) {
    const char* message = db ? sqlite3_errmsg(db) : nullptr;
    const char* file = db ? sqlite3_db_filename(db, "main") : nullptr;
    throw SignalsReaderError{SignalsReaderError::Kind::queryFailed, message ? message : "unknown sqlite error",
                             file ? std::filesystem::path(file) : std::filesystem::path()};
}

bool mentions(const std::string& message, const char* words) {
    std::string lowered = message;
    std::transform(lowered.begin(), lowered.end(), lowered.begin(), [](unsigned char c) { return std::tolower(c); });
    return lowered.find(words) != std::string::npos;
}

std::string describeReaderError(SignalsReaderError::Kind kind, const std::string& message,
                                const std::filesystem::path& path) {
    const std::string file = path.empty() ? std::string("the signals database") : path.string();
    const std::string said = (kind == SignalsReaderError::Kind::openFailed ? "could not open " : "could not read ") +
                             file + " (" + message + ")";
    std::error_code ignored;
    if (kind == SignalsReaderError::Kind::openFailed && !path.empty() && !std::filesystem::exists(path, ignored))
        return said + ": nothing has been recorded there yet — check that the disk holding the data root is mounted "
                      "and that aimwise-capture is running";
    if (mentions(message, "not a regular file"))
        return said + ": move it aside, and aimwise-capture starts a new signals.sqlite";
    if (mentions(message, "no such table"))
        return said + ": it holds no signals yet — aimwise-capture adds them with its next sample; if it is not "
                      "running, move the file aside and start it";
    if (mentions(message, "not a database") || mentions(message, "malformed"))
        return said + ": it is not a readable signals database — move it aside, and aimwise-capture starts a new one";
    if (mentions(message, "locked") || mentions(message, "busy"))
        return said + ": another program is holding it — try again in a moment";
    return said + " — check the file's permissions and the disk it is on";
}

void requirePrepared(const sqlite::Statement& statement, sqlite3* db) {
    if (!statement.ok()) throwQueryFailed(db);
}

// '%', '?' and '#' would otherwise be read as URI syntax.
std::string uriPath(const std::string& path) {
    std::string out;
    out.reserve(path.size());
    for (char c : path) {
        switch (c) {
            case '%': out += "%25"; break;
            case '?': out += "%3f"; break;
            case '#': out += "%23"; break;
            default: out += c;
        }
    }
    return out;
}

SignalsReader::TickRow tickRowFrom(const sqlite::Statement& s) {
    return SignalsReader::TickRow{s.int64(0), s.text(1), s.text(2), s.text(3), s.text(4), s.optionalReal(5), s.text(6)};
}

double truncatedToTenths(double value) { return std::trunc(value * 10.0) / 10.0; }

// White space in the sense of horizontal spacing: tab and the Unicode space separators.
bool isHorizontalSpace(char32_t c) {
    return c == U'\t' || c == U' ' || c == 0xA0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200A) || c == 0x202F ||
           c == 0x205F || c == 0x3000;
}

bool isBlank(const std::optional<std::string>& text) {
    if (!text) return true;
    const std::vector<char32_t> scalars = utf8::decode(*text);
    return std::all_of(scalars.begin(), scalars.end(), isHorizontalSpace);
}

std::optional<int64_t> newestTsMs(sqlite3* db, std::string sql, std::optional<int64_t> sinceMs) {
    if (sinceMs) sql += sinceBoundPiece;
    sql += newestOnePiece;
    sqlite::Statement s(db, sql);
    requirePrepared(s, db);
    if (sinceMs) s.bind(1, *sinceMs);
    if (s.step()) return s.int64(0);
    return std::nullopt;
}

}  // namespace

SignalsReaderError::SignalsReaderError(Kind kind, std::string message, std::filesystem::path path)
    : Error(describeReaderError(kind, message, path)), kind(kind), message(std::move(message)), path(std::move(path)) {}

void SignalsReader::Close::operator()(sqlite3* db) const { sqlite3_close_v2(db); }

SignalsReader SignalsReader::open(const std::filesystem::path& path) {
    struct stat info {};
    // A FIFO in the file's place would block the open, and a device would be read without end.
    if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode))
        throw SignalsReaderError{SignalsReaderError::Kind::openFailed, "not a regular file", path};
    const std::string uri = "file:" + uriPath(path.string()) + "?mode=ro";
    sqlite3* raw = nullptr;
    // No connection mutex: a reader is used by one thread at a time, and locking around every column
    // read was a fifth of the cost of walking a day of rows.
    if (sqlite3_open_v2(uri.c_str(), &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX, nullptr) !=
        SQLITE_OK) {
        std::string message = raw ? sqlite3_errmsg(raw) : "sqlite3_open_v2 failed";
        sqlite3_close_v2(raw);
        throw SignalsReaderError{SignalsReaderError::Kind::openFailed, std::move(message), path};
    }
    // The capture agent's checkpoints hold the lock for a moment; wait that out rather than fail.
    sqlite3_busy_timeout(raw, 1000);
    return SignalsReader(raw);
}

std::optional<SignalsReader::TickRow> SignalsReader::latestTick(std::optional<int64_t> asOfMs) const {
    sqlite::Statement s(db_.get(), asOfMs ? latestTickAsOfSQL : latestTickSQL);
    requirePrepared(s, db_.get());
    if (asOfMs) s.bind(1, *asOfMs);
    if (s.step()) return tickRowFrom(s);
    return std::nullopt;
}

std::vector<AppMinutes> SignalsReader::recentApps(int64_t referenceMs, int64_t windowMs) const {
    sqlite::Statement s(db_.get(), recentAppsSQL);
    requirePrepared(s, db_.get());
    s.bind(1, Saturating::subtract(referenceMs, windowMs));
    s.bind(2, referenceMs);
    std::vector<AppMinutes> apps;
    while (s.step()) {
        auto app = s.text(0);
        if (!app) continue;
        const double minutes = static_cast<double>(s.int64(1)) * secondsPerTick / 60.0;
        apps.push_back(AppMinutes{std::move(*app), truncatedToTenths(minutes)});
    }
    return apps;
}

std::optional<SignalsReader::WindowRow> SignalsReader::contentWindow(int64_t tsMs,
                                                                     const std::string& ownerName) const {
    if (ownerName.empty()) return std::nullopt;
    sqlite::Statement s(db_.get(), contentWindowSQL);
    requirePrepared(s, db_.get());
    s.bind(1, tsMs);
    s.bind(2, ownerName);
    std::vector<WindowRow> rows;
    while (s.step()) {
        if (s.isNull(1) || s.isNull(2) || s.isNull(3) || s.isNull(4)) continue;
        rows.push_back(WindowRow{s.text(0), s.real(1), s.real(2), s.real(3), s.real(4),
                                 static_cast<int>(s.isNull(5) ? 0 : s.int64(5))});
    }
    return focusedContentWindow(rows);
}

std::optional<SignalsReader::WindowRow> SignalsReader::focusedContentWindow(const std::vector<WindowRow>& among) {
    const WindowRow* firstCandidate = nullptr;
    for (const WindowRow& row : among) {
        if (row.layer != 0 || row.width < candidateMinSide || row.height < candidateMinSide) continue;
        if (!isBlank(row.title)) return row;
        if (!firstCandidate) firstCandidate = &row;
    }
    if (firstCandidate) return *firstCandidate;

    const WindowRow* largest = nullptr;
    for (const WindowRow& row : among)
        if (!largest || row.width * row.height > largest->width * largest->height) largest = &row;
    if (largest) return *largest;
    return std::nullopt;
}

std::optional<int64_t> SignalsReader::taskDeclaredTsMsFromSQLiteEvents(int64_t atOrBefore) const {
    sqlite::Statement s(db_.get(), taskDeclaredSQL);
    requirePrepared(s, db_.get());
    s.bind(1, atOrBefore);
    if (s.step()) return s.int64(0);
    return std::nullopt;
}

SignalsReader::CachedEstimate SignalsReader::cachedEstimateMinutes(const std::string& declaredText) const {
    sqlite::Statement s(db_.get(), cachedEstimateSQL);
    if (!s.ok()) {
        // The cache table appears only after the first estimate was stored.
        std::string message = db_ ? sqlite3_errmsg(db_.get()) : "";
        std::transform(message.begin(), message.end(), message.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (message.find("no such table") != std::string::npos) return CachedEstimate{};
        throwQueryFailed(db_.get());
    }
    s.bind(1, declaredText);
    if (s.step()) return CachedEstimate{true, s.optionalReal(0)};
    return CachedEstimate{};
}

SignalsReader::PresenceGapResult SignalsReader::presenceGap(int64_t beforeMs, int64_t withinMs, double idleAwaySec,
                                                            int64_t maxContinuityGapMs, int64_t limit) const {
    sqlite::Statement s(db_.get(), presenceGapSQL);
    requirePrepared(s, db_.get());
    s.bind(1, beforeMs);
    s.bind(2, limit);

    // The walk may cover a day of rows; only the row it returns is decoded whole.
    const auto isPresent = [idleAwaySec, &s] {
        const std::string_view app = s.textView(1);
        const bool locked = std::equal(app.begin(), app.end(), std::string_view("loginwindow").begin(),
                                       std::string_view("loginwindow").end(), [](unsigned char a, char b) {
                                           return std::tolower(a) == b;
                                       });
        return !locked && s.optionalReal(5).value_or(0.0) <= idleAwaySec;
    };

    int64_t runStartMs = beforeMs;
    std::optional<int64_t> previousMs;
    bool inAbsence = false;
    while (s.step()) {
        const int64_t tsMs = s.int64(0);
        const bool present = isPresent();
        if (!inAbsence && present) {
            if (previousMs && Saturating::subtract(*previousMs, tsMs) > maxContinuityGapMs) return PresenceGap{tickRowFrom(s), runStartMs};
            runStartMs = tsMs;
        } else {
            inAbsence = true;
            if (Saturating::subtract(runStartMs, tsMs) > withinMs) return GapExceedsWindow{runStartMs};
            if (present) return PresenceGap{tickRowFrom(s), runStartMs};
        }
        previousMs = tsMs;
    }
    if (inAbsence) return GapExceedsWindow{runStartMs};
    return ContinuouslyPresent{};
}

std::optional<std::string> SignalsReader::frontmostBundleId(int64_t tsMs) const {
    sqlite::Statement s(db_.get(), frontmostBundleIdSQL);
    requirePrepared(s, db_.get());
    s.bind(1, tsMs);
    if (s.step()) return s.text(0);
    return std::nullopt;
}

std::optional<SignalsReader::OwnerWindowRow> SignalsReader::ownerWindow(int64_t tsMs,
                                                                      const std::string& ownerName) const {
    sqlite::Statement s(db_.get(), ownerWindowSQL);
    requirePrepared(s, db_.get());
    s.bind(1, tsMs);
    s.bind(2, ownerName);
    if (!s.step()) return std::nullopt;
    return OwnerWindowRow{s.text(0), s.isNull(1) ? std::nullopt : std::optional(s.int64(1)), s.int64(2) != 0};
}

std::vector<ActivityTimeline::Sample> SignalsReader::ticks(int64_t fromMs, int64_t toMs, int64_t limit) const {
    sqlite::Statement s(db_.get(), ticksSQL);
    requirePrepared(s, db_.get());
    s.bind(1, fromMs);
    s.bind(2, toMs);
    s.bind(3, limit);
    std::vector<ActivityTimeline::Sample> samples;
    while (s.step()) samples.push_back({s.int64(0), s.text(1), s.optionalReal(2), s.text(3), s.text(4)});
    return samples;
}

SignalsReader::WindowExtent SignalsReader::maxWindowExtent(int64_t fromTsMs, int64_t toTsMs) const {
    sqlite::Statement s(db_.get(), maxWindowExtentSQL);
    requirePrepared(s, db_.get());
    s.bind(1, fromTsMs);
    s.bind(2, toTsMs);
    for (int i = 3; i <= 6; ++i) s.bind(i, windowExtentBound);
    if (s.step()) return WindowExtent{s.optionalReal(0), s.optionalReal(1)};
    return WindowExtent{};
}

std::vector<SignalsReader::BatteryHistoryRow> SignalsReader::batteryHistory(int64_t sinceMs, int64_t limit) const {
    sqlite::Statement s(db_.get(), batteryHistorySQL);
    requirePrepared(s, db_.get());
    s.bind(1, sinceMs);
    s.bind(2, limit);
    std::vector<BatteryHistoryRow> rows;
    while (s.step()) {
        BatteryHistoryRow row{s.int64(0), std::nullopt, std::nullopt};
        if (auto pct = s.optionalInt64(1)) row.batteryPct = static_cast<int>(*pct);
        if (auto plugged = s.optionalInt64(2)) row.acPlugged = *plugged != 0;
        rows.push_back(row);
    }
    return rows;
}

std::optional<int64_t> SignalsReader::latestNonEmptyWindowTitleMs(std::optional<int64_t> sinceMs) const {
    return newestTsMs(db_.get(), "SELECT ts_ms FROM windows WHERE title IS NOT NULL AND title != '' ", sinceMs);
}

std::optional<int64_t> SignalsReader::latestNonEmptyBrowserTabMs(std::optional<int64_t> sinceMs) const {
    return newestTsMs(db_.get(), "SELECT ts_ms FROM ticks WHERE browser_app IS NOT NULL AND browser_app != '' ",
                      sinceMs);
}

std::optional<SignalsReader::FrontmostAppTick> SignalsReader::latestTickMs(
    const std::vector<std::string>& frontmostAppIn, std::optional<int64_t> sinceMs) const {
    std::string sql = "SELECT ts_ms, frontmost_app FROM ticks WHERE frontmost_app IN (";
    for (size_t i = 0; i < frontmostAppIn.size(); ++i) sql += i == 0 ? "?" : ", ?";
    sql += ") ";
    if (sinceMs) sql += sinceBoundPiece;
    sql += newestOnePiece;
    sqlite::Statement s(db_.get(), sql);
    requirePrepared(s, db_.get());
    int index = 1;
    for (const std::string& name : frontmostAppIn) s.bind(index++, name);
    if (sinceMs) s.bind(index, *sinceMs);
    if (s.step()) {
        if (auto app = s.text(1)) return FrontmostAppTick{s.int64(0), std::move(*app)};
    }
    return std::nullopt;
}

}  // namespace aimwise
