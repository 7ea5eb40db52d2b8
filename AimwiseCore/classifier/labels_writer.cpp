#include "AimwiseCore/classifier/labels_writer.h"

#include <sqlite3.h>

#include <algorithm>
#include <vector>

#include <fmt/format.h>

#include "AimwiseCore/coach/projection_date_parsing.h"
#include "CaptureShared/common/iso_date.h"
#include "CaptureShared/common/local_time.h"

namespace aimwise {

namespace {

std::string prefix(LabelsWriterError::Kind kind) {
    using Kind = LabelsWriterError::Kind;
    switch (kind) {
        case Kind::openFailed: return "could not open labels.sqlite: ";
        case Kind::prepareFailed: return "could not prepare insert: ";
        case Kind::stepFailed: return "could not write label row: ";
        case Kind::unacceptedLabel: return "label ";
    }
    return {};
}

std::string databaseMessage(sqlite3* db) { return db ? sqlite3_errmsg(db) : "out of memory"; }

class Statement {
public:
    Statement(sqlite3* db, const char* sql) { result_ = sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr); }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    bool ok() const { return result_ == SQLITE_OK && stmt_; }
    sqlite3_stmt* get() const { return stmt_; }

private:
    sqlite3_stmt* stmt_ = nullptr;
    int result_ = SQLITE_ERROR;
};

void bindText(sqlite3_stmt* stmt, int index, const std::optional<std::string>& text) {
    if (text)
        sqlite3_bind_text(stmt, index, text->data(), static_cast<int>(text->size()), SQLITE_TRANSIENT);
    else
        sqlite3_bind_null(stmt, index);
}

std::vector<std::string> columnNames(sqlite3* db) {
    std::vector<std::string> names;
    Statement s(db, "PRAGMA table_info(labels)");
    while (s.ok() && sqlite3_step(s.get()) == SQLITE_ROW)
        if (const auto* name = sqlite3_column_text(s.get(), 1)) names.emplace_back(reinterpret_cast<const char*>(name));
    return names;
}

}  // namespace

LabelsWriterError::LabelsWriterError(Kind kind, std::string detail)
    : Error(kind == Kind::unacceptedLabel ? prefix(kind) + "'" + detail + "' is not one of the accepted labels"
                                          : prefix(kind) + detail),
      kind_(kind) {}

const char* const LabelsWriter::createTableSQL =
    "CREATE TABLE IF NOT EXISTS labels (\n"
    "  id            INTEGER PRIMARY KEY AUTOINCREMENT,\n"
    "  t0_ms         INTEGER NOT NULL,\n"
    "  t1_ms         INTEGER NOT NULL,\n"
    "  declared_task TEXT,\n"
    "  label         TEXT NOT NULL\n"
    "                CHECK (label IN ('on_task','on_task_overtime','rabbit_hole','off_task','not_aligned',"
    "'no_task','break','not_using_computer','switching_tasks','ambiguous')),\n"
    "  notes         TEXT,\n"
    "  source_hour   TEXT NOT NULL,\n"
    "  created_at    TEXT NOT NULL\n"
    ")";

const char* const LabelsWriter::createIndexSQL = "CREATE INDEX IF NOT EXISTS idx_labels_t0 ON labels(t0_ms)";

const char* const LabelsWriter::insertSQL =
    "INSERT INTO labels\n"
    "  (t0_ms, t1_ms, declared_task, label, notes, source_hour, created_at, source,\n"
    "   answered_blind, user_note)\n"
    "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";

bool LabelsWriter::isAccepted(std::string_view label) {
    return std::find(acceptedLabels.begin(), acceptedLabels.end(), label) != acceptedLabels.end();
}

void LabelsWriter::Close::operator()(sqlite3* db) const { sqlite3_close_v2(db); }

LabelsWriter::LabelsWriter(std::filesystem::path path, int busyTimeoutMs)
    : path_(std::move(path)), busyTimeoutMs_(busyTimeoutMs) {}
LabelsWriter::~LabelsWriter() = default;
LabelsWriter::LabelsWriter(LabelsWriter&&) noexcept = default;
LabelsWriter& LabelsWriter::operator=(LabelsWriter&&) noexcept = default;

void LabelsWriter::openIfNeeded() {
    if (db_) return;
    sqlite3* raw = nullptr;
    const int opened = sqlite3_open_v2(path_.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    std::unique_ptr<sqlite3, Close> db(raw);
    if (opened != SQLITE_OK) throw LabelsWriterError(LabelsWriterError::Kind::openFailed, databaseMessage(raw));
    sqlite3_busy_timeout(raw, busyTimeoutMs_);
    auto exec = [&](const std::string& sql) {
        if (sqlite3_exec(raw, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
            throw LabelsWriterError(LabelsWriterError::Kind::openFailed, databaseMessage(raw));
    };
    // A reader beside a live writer needs WAL; a file that refuses it (a read-only copy) still takes rows.
    sqlite3_exec(raw, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
    exec(createTableSQL);
    exec(createIndexSQL);
    const std::vector<std::string> existing = columnNames(raw);
    for (const auto& [name, type] : addedColumns)
        if (std::find(existing.begin(), existing.end(), name) == existing.end())
            exec(fmt::format("ALTER TABLE labels ADD COLUMN {} {}", name, type));
    db_ = std::move(db);
}

int64_t LabelsWriter::insert(const Row& row) {
    if (!isAccepted(row.label)) throw LabelsWriterError(LabelsWriterError::Kind::unacceptedLabel, row.label);
    openIfNeeded();
    Statement s(db_.get(), insertSQL);
    if (!s.ok()) throw LabelsWriterError(LabelsWriterError::Kind::prepareFailed, databaseMessage(db_.get()));
    sqlite3_stmt* stmt = s.get();
    sqlite3_bind_int64(stmt, 1, row.t0Ms);
    sqlite3_bind_int64(stmt, 2, row.t1Ms);
    bindText(stmt, 3, row.declaredTask);
    bindText(stmt, 4, row.label);
    bindText(stmt, 5, row.notes);
    bindText(stmt, 6, row.sourceHour);
    bindText(stmt, 7, row.createdAt);
    bindText(stmt, 8, row.source);
    if (row.answeredBlind)
        sqlite3_bind_int(stmt, 9, *row.answeredBlind ? 1 : 0);
    else
        sqlite3_bind_null(stmt, 9);
    bindText(stmt, 10, row.userNote);
    if (sqlite3_step(stmt) != SQLITE_DONE)
        throw LabelsWriterError(LabelsWriterError::Kind::stepFailed, databaseMessage(db_.get()));
    return sqlite3_last_insert_rowid(db_.get());
}

namespace LabelTimes {

std::string createdAt(int64_t nowMs) {
    const std::string seconds = ISODate::format(nowMs);  // "...:07Z"
    const int64_t millis = ((nowMs % 1000) + 1000) % 1000;
    return fmt::format("{}.{:03}Z", seconds.substr(0, seconds.size() - 1), millis);
}

std::string sourceHour(int64_t momentMs) { return LocalTime::format(momentMs).substr(0, 13); }

}  // namespace LabelTimes

}  // namespace aimwise
