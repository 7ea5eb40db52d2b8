#include "AimwiseCore/classifier/labeled_points.h"

#include <sqlite3.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>

#include "AimwiseCore/classifier/classifier_state.h"

namespace aimwise::LabeledPoints {

namespace {

struct Close {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct Finalize {
    void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

Statement prepare(sqlite3* db, const std::string& sql) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &stmt, nullptr) != SQLITE_OK) {
        sqlite3_finalize(stmt);
        return nullptr;
    }
    return Statement(stmt);
}

bool hasColumn(sqlite3* db, const char* column) {
    const Statement s = prepare(db, "PRAGMA table_info(labels)");
    while (s && sqlite3_step(s.get()) == SQLITE_ROW) {
        const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(s.get(), 1));
        if (name && std::string_view(name) == column) return true;
    }
    return false;
}

bool hasSourceColumn(sqlite3* db) { return hasColumn(db, "source"); }
bool hasAnsweredBlindColumn(sqlite3* db) { return hasColumn(db, "answered_blind"); }

bool hasRemappedTable(sqlite3* db) {
    const Statement s = prepare(db, "SELECT 1 FROM sqlite_master WHERE type='table' AND name='labels_remapped'");
    return s && sqlite3_step(s.get()) == SQLITE_ROW;
}

std::optional<std::string> text(sqlite3_stmt* s, int column) {
    if (sqlite3_column_type(s, column) == SQLITE_NULL) return std::nullopt;
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(s, column));
    if (!bytes) return std::nullopt;
    return std::string(bytes, static_cast<size_t>(sqlite3_column_bytes(s, column)));
}

FetchedRow fetched(sqlite3_stmt* s) {
    FetchedRow row;
    row.id = sqlite3_column_int64(s, 0);
    row.rawT0 = sqlite3_column_int64(s, 1);
    row.effT0 = sqlite3_column_int64(s, 2);
    row.effT1 = sqlite3_column_int64(s, 3);
    row.declaredTask = text(s, 4);
    row.label = text(s, 5).value_or("");
    row.remapped = sqlite3_column_int64(s, 6) != 0;
    row.source = text(s, 7);
    row.notes = text(s, 8);
    if (sqlite3_column_type(s, 9) != SQLITE_NULL) row.answeredBlind = sqlite3_column_int64(s, 9) != 0;
    row.createdAt = text(s, 10).value_or("");
    return row;
}

}  // namespace

RampSampleReplaySelection::Row FetchedRow::selectionRow() const {
    return {id, rawT0, source, notes, answeredBlind, createdAt};
}

LabeledPoint FetchedRow::point() const { return {id, effT0, effT1, declaredTask, label, remapped}; }

std::optional<std::string> groundTruth(std::string_view label) {
    static const std::map<std::string_view, const char*> gtMap = {
        {"on_task", VerdictState::onTask},         {"on_task_overtime", VerdictState::notAligned},
        {"rabbit_hole", VerdictState::notAligned}, {"off_task", VerdictState::notAligned},
        {"not_aligned", VerdictState::notAligned}, {"switching_tasks", VerdictState::notAligned},
        {"break", VerdictState::idle},             {"not_using_computer", VerdictState::idle},
        {"no_task", VerdictState::noTask},
    };
    const auto found = gtMap.find(label);
    if (found == gtMap.end()) return std::nullopt;
    return found->second;
}

std::string query(bool overlay, bool hasSource, bool hasAnsweredBlind, bool preferBlind) {
    const std::string sourceExpression = hasSource ? "l.source" : "NULL AS source";
    const std::string blindExpression = hasAnsweredBlind ? "l.answered_blind" : "NULL AS answered_blind";
    const std::string columns = sourceExpression + ", l.notes, " + blindExpression;
    std::string filter;
    if (hasSource && !preferBlind)
        filter =
            "WHERE l.id = (SELECT x.id FROM labels x\n"
            " WHERE x.t0_ms = l.t0_ms AND x.source IS l.source\n"
            " ORDER BY x.created_at DESC, x.id DESC LIMIT 1)";
    if (overlay)
        return "SELECT l.id,\n"
               "       l.t0_ms,\n"
               "       COALESCE(r.t0_ms, l.t0_ms) AS eff_t0_ms,\n"
               "       COALESCE(r.t1_ms, l.t1_ms) AS eff_t1_ms,\n"
               "       l.declared_task,\n"
               "       l.label,\n"
               "       (r.orig_label_id IS NOT NULL) AS remapped,\n"
               "       " +
               columns +
               ",\n"
               "       l.created_at\n"
               "FROM labels l\n"
               "LEFT JOIN labels_remapped r ON r.orig_label_id = l.id\n" +
               filter + "\nORDER BY eff_t0_ms ASC";
    return "SELECT id, t0_ms, t0_ms AS eff_t0_ms, t1_ms AS eff_t1_ms, declared_task, label, 0 AS remapped,\n"
           "       " +
           columns + ", created_at\nFROM labels l\n" + filter + "\nORDER BY eff_t0_ms ASC";
}

namespace {

struct Fetch {
    std::vector<FetchedRow> rows;
    bool hasSource = false;
};

Fetch fetch(const std::filesystem::path& path, bool preferBlind) {
    sqlite3* raw = nullptr;
    const std::string uri = "file:" + path.string() + "?mode=ro";
    const int opened = sqlite3_open_v2(uri.c_str(), &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    const std::unique_ptr<sqlite3, Close> db(raw);
    if (opened != SQLITE_OK) throw ReadError(ReadError::Kind::openFailed, "could not open labels.sqlite at " + path.string());
    // A writer holding the file for a moment should not fail a read.
    sqlite3_busy_timeout(raw, 3000);
    Fetch result;
    result.hasSource = hasSourceColumn(raw);
    const Statement s =
        prepare(raw, query(hasRemappedTable(raw), result.hasSource, hasAnsweredBlindColumn(raw), preferBlind));
    if (!s) throw ReadError(ReadError::Kind::prepareFailed, "could not prepare labels query");
    while (sqlite3_step(s.get()) == SQLITE_ROW) result.rows.push_back(fetched(s.get()));
    return result;
}

}  // namespace

std::vector<FetchedRow> fetchRows(const std::filesystem::path& path, bool preferBlind) {
    return fetch(path, preferBlind).rows;
}

Result readLabeledPoints(const std::filesystem::path& path, int64_t limit, int64_t offset, bool preferBlind) {
    Fetch fetched = fetch(path, preferBlind);
    std::vector<const FetchedRow*> kept;
    Result result;
    if (preferBlind && fetched.hasSource) {
        std::vector<RampSampleReplaySelection::Row> rows;
        rows.reserve(fetched.rows.size());
        for (const FetchedRow& row : fetched.rows) rows.push_back(row.selectionRow());
        std::set<int64_t> chosen;
        for (const auto& row : RampSampleReplaySelection::selectForScoring(rows, true)) chosen.insert(row.id);
        for (const FetchedRow& row : fetched.rows)
            if (chosen.contains(row.id)) kept.push_back(&row);
        result.excludedRevisionCount = RampSampleReplaySelection::groupsWithExcludedRevision(rows);
    } else {
        for (const FetchedRow& row : fetched.rows) kept.push_back(&row);
    }
    const size_t skip = static_cast<size_t>(std::clamp<int64_t>(offset, 0, static_cast<int64_t>(kept.size())));
    const size_t take = static_cast<size_t>(std::clamp<int64_t>(limit, 0, static_cast<int64_t>(kept.size() - skip)));
    for (size_t i = skip; i < skip + take; ++i) {
        result.points.push_back(kept[i]->point());
        if (kept[i]->remapped) ++result.remappedCount;
    }
    return result;
}

}  // namespace aimwise::LabeledPoints
