// Hand labels: the writer and its refusals, which answer of a moment is scored, and labels.sqlite
// files of every age read for replay.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "AimwiseCore/classifier/labeled_points.h"
#include "AimwiseCore/classifier/labels_writer.h"
#include "AimwiseCore/classifier/reason_label_writer.h"
#include "tests/support/temp_dir.h"

namespace aimwise {
namespace {

namespace fs = std::filesystem;
using Row = RampSampleReplaySelection::Row;

// Runs SQL on its own connection and returns every row, NULL as "NULL"; an error as its message.
std::vector<std::string> sql(const fs::path& db, const std::string& text) {
    sqlite3* handle = nullptr;
    sqlite3_open(db.c_str(), &handle);
    std::vector<std::string> out;
    auto collect = [](void* into, int n, char** values, char**) {
        std::string row;
        for (int i = 0; i < n; ++i) row += (i ? "|" : "") + std::string(values[i] ? values[i] : "NULL");
        static_cast<std::vector<std::string>*>(into)->push_back(row);
        return 0;
    };
    char* error = nullptr;
    if (sqlite3_exec(handle, text.c_str(), collect, &out, &error) != SQLITE_OK) out = {std::string("error: ") + error};
    sqlite3_free(error);
    sqlite3_close(handle);
    return out;
}

LabelsWriter::Row answer(int64_t t0, const std::string& label, std::optional<bool> blind = true) {
    return {.t0Ms = t0, .t1Ms = t0 + 1000, .declaredTask = "write", .label = label, .sourceHour = "2026-07-01T09",
            .createdAt = "2026-07-01T10:00:00.000Z", .source = "in_app_ramp", .answeredBlind = blind};
}

const char* const oldSchema =
    "CREATE TABLE labels (id INTEGER PRIMARY KEY AUTOINCREMENT, t0_ms INTEGER NOT NULL, t1_ms INTEGER NOT NULL, "
    "declared_task TEXT, label TEXT NOT NULL, notes TEXT, source_hour TEXT NOT NULL, created_at TEXT NOT NULL);";

TEST(LabelsWriter, WritesEveryColumnInItsBoundOrderAndRevisionsAreNewRows) {
    testing::TempDir dir;
    LabelsWriter writer(dir / "labels.sqlite");
    auto first = answer(1000, "on_task");
    first.userNote = "drafting";
    EXPECT_EQ(writer.insert(first), 1);
    auto revision = answer(1000, "rabbit_hole", false);
    revision.notes = RampLabelSubmission::revisedAfterRevealNote;
    EXPECT_EQ(writer.insert(revision), 2);
    EXPECT_EQ(sql(dir / "labels.sqlite", "SELECT * FROM labels"),
              (std::vector<std::string>{
                  "1|1000|2000|write|on_task|NULL|2026-07-01T09|2026-07-01T10:00:00.000Z|in_app_ramp|1|drafting",
                  "2|1000|2000|write|rabbit_hole|revised AFTER reveal — anchored on the classifier's "
                  "verdict|2026-07-01T09|2026-07-01T10:00:00.000Z|in_app_ramp|0|NULL"}));
    // The CHECK clause refuses what gets past the writer.
    EXPECT_EQ(sql(dir / "labels.sqlite", "INSERT INTO labels (t0_ms, t1_ms, label, source_hour, created_at) "
                                         "VALUES (1, 1, 'focused', 'h', 'c')"),
              std::vector<std::string>{"error: CHECK constraint failed: label IN ('on_task','on_task_overtime',"
                                       "'rabbit_hole','off_task','not_aligned','no_task','break','not_using_computer',"
                                       "'switching_tasks','ambiguous')"});
}

TEST(LabelsWriter, RefusesAnotherWordBeforeTheFileIsTouched) {
    testing::TempDir dir;
    LabelsWriter writer(dir / "labels.sqlite");
    for (const char* word : {"focused", "ON_TASK", ""}) {
        try {
            writer.insert(answer(1, word));
            ADD_FAILURE() << word;
        } catch (const LabelsWriterError& error) {
            EXPECT_EQ(error.description(), "label '" + std::string(word) + "' is not one of the accepted labels");
        }
    }
    EXPECT_FALSE(fs::exists(dir / "labels.sqlite"));
}

TEST(LabelsWriter, AnOldFileGainsTheThreeColumnsAndItsRowsKeepNull) {
    testing::TempDir dir;
    const fs::path db = dir / "labels.sqlite";
    sql(db, std::string(oldSchema) + "INSERT INTO labels VALUES (7, 5, 6, NULL, 'break', NULL, 'h', 'c');");
    LabelsWriter(db).insert(answer(9, "no_task"));
    EXPECT_EQ(sql(db, "SELECT id, source, answered_blind, user_note FROM labels"),
              (std::vector<std::string>{"7|NULL|NULL|NULL", "8|in_app_ramp|1|NULL"}));
}

TEST(LabelsWriter, UnopenableAndLockedFilesFailInTheirOwnWords) {
    testing::TempDir dir;
    fs::create_directories(dir / "labels.sqlite");
    try {
        LabelsWriter(dir / "labels.sqlite").insert(answer(1, "on_task"));
        ADD_FAILURE();
    } catch (const LabelsWriterError& error) {
        EXPECT_EQ(error.description(), "could not open labels.sqlite: unable to open database file");
    }
    const fs::path db = dir / "other.sqlite";
    LabelsWriter writer(db, 20);
    writer.insert(answer(1, "on_task"));
    sqlite3* holder = nullptr;
    sqlite3_open(db.c_str(), &holder);
    sqlite3_exec(holder, "BEGIN EXCLUSIVE; INSERT INTO labels (t0_ms, t1_ms, label, source_hour, created_at) VALUES "
                         "(2, 2, 'break', 'h', 'c');",
                 nullptr, nullptr, nullptr);
    try {
        writer.insert(answer(3, "on_task"));
        ADD_FAILURE();
    } catch (const LabelsWriterError& error) {
        EXPECT_EQ(error.description(), "could not write label row: database is locked");
    }
    sqlite3_close(holder);
}

TEST(ReasonLabelWriter, OneSortedLinePerJudgement) {
    testing::TempDir dir;
    const fs::path log = dir / ReasonLabelWriter::fileName;
    ReasonLabelWriter::append({5, "ON_TASK", "You are writing.",
                               ReasonLabelWriter::ReasonWasWrong{ReasonLabelWriter::Rule::topicNotMoment}, "c"},
                              log);
    ReasonLabelWriter::append({6, "IDLE", "Away.", ReasonLabelWriter::ReasonWasRight{}, "d"}, log);
    EXPECT_EQ(testing::readFile(log),
              R"({"created_at":"c","judgement":"reason_was_wrong","moment_ms":5,"reason":"You are writing.","rule":"topic_not_moment","source":"in_app_ramp","state":"ON_TASK","v":1})"
              "\n"
              R"({"created_at":"d","judgement":"reason_was_right","moment_ms":6,"reason":"Away.","source":"in_app_ramp","state":"IDLE","v":1})"
              "\n");
}

// --- Which answer of a moment is scored -----------------------------------------------------

std::vector<int64_t> chosenIds(const std::vector<Row>& rows, bool preferBlind) {
    std::vector<int64_t> ids;
    for (const Row& row : RampSampleReplaySelection::selectForScoring(rows, preferBlind)) ids.push_back(row.id);
    std::sort(ids.begin(), ids.end());
    return ids;
}

TEST(RampSampleReplaySelection, BlindAnswersWinUnlessSettledIsAsked) {
    const std::string revised = std::string("x ") + RampLabelSubmission::revisedAfterRevealNote;
    const std::vector<Row> rows = {
        // A blind answer and its later revision.
        {1, 100, "in_app_ramp", std::nullopt, true, "2026-01-01"},
        {2, 100, "in_app_ramp", revised, false, "2026-01-02"},
        // Only a revision: it still scores.
        {3, 200, "in_app_ramp", revised, false, "2026-01-01"},
        // Legacy rows without the flag: the reveal note decides, for the ramp only.
        {4, 300, "in_app_ramp", std::nullopt, std::nullopt, "2026-01-01"},
        {5, 300, "in_app_ramp", revised, std::nullopt, "2026-01-02"},
        {6, 400, "in_app", std::nullopt, std::nullopt, "2026-01-01"},
        {7, 400, "in_app", revised, std::nullopt, "2026-01-02"},
        // Equal times: the greater id; an absent source is a group of its own.
        {8, 500, std::nullopt, std::nullopt, true, "2026-01-01"},
        {9, 500, std::nullopt, std::nullopt, true, "2026-01-01"},
        {10, 500, "", std::nullopt, true, "2026-01-01"},
    };
    EXPECT_EQ(chosenIds(rows, true), (std::vector<int64_t>{1, 3, 4, 7, 9, 10}));
    EXPECT_EQ(chosenIds(rows, false), (std::vector<int64_t>{2, 3, 5, 7, 9, 10}));
    EXPECT_EQ(RampSampleReplaySelection::groupsWithExcludedRevision(rows), 2);
}

// --- Reading labels.sqlite --------------------------------------------------------------------

std::vector<int64_t> pointIds(const LabeledPoints::Result& result) {
    std::vector<int64_t> ids;
    for (const auto& point : result.points) ids.push_back(point.id);
    return ids;
}

TEST(LabeledPoints, AFileWithoutTheNewColumnsScoresEveryRowWithNoSelection) {
    testing::TempDir dir;
    const fs::path db = dir / "labels.sqlite";
    sql(db, std::string(oldSchema) +
                "INSERT INTO labels VALUES (1, 100, 300, 'a', 'on_task', NULL, 'h', '2'),"
                "(2, 100, 300, NULL, 'off_task', 'revised AFTER reveal — anchored on the classifier''s verdict', 'h', '3'),"
                "(3, 50, 70, NULL, 'focused', NULL, 'h', '1');");
    for (const bool preferBlind : {true, false}) {
        const auto result = LabeledPoints::readLabeledPoints(db, 10, 0, preferBlind);
        EXPECT_EQ(pointIds(result), (std::vector<int64_t>{3, 1, 2}));
        EXPECT_EQ(result.excludedRevisionCount, 0);
        EXPECT_EQ(result.remappedCount, 0);
        EXPECT_EQ(result.points[0], (LabeledPoints::LabeledPoint{3, 50, 70, std::nullopt, "focused", false}));
    }
    EXPECT_EQ(pointIds(LabeledPoints::readLabeledPoints(db, 1, 1, true)), std::vector<int64_t>{1});
    EXPECT_TRUE(LabeledPoints::readLabeledPoints(db, 5, 9, true).points.empty());
}

TEST(LabeledPoints, CorrectedTimesAreOverlaidAndTheBlindAnswerChosen) {
    testing::TempDir dir;
    const fs::path db = dir / "labels.sqlite";
    LabelsWriter writer(db);
    writer.insert(answer(100, "on_task"));                 // 1
    auto later = answer(100, "off_task", false);
    later.createdAt = "2026-07-01T11:00:00.000Z";
    writer.insert(later);                                  // 2, a revision
    writer.insert(answer(500, "break"));                   // 3, moved before the others
    sql(db, "CREATE TABLE labels_remapped (orig_label_id INTEGER, t0_ms INTEGER, t1_ms INTEGER);"
            "INSERT INTO labels_remapped VALUES (3, 10, 20);");

    auto blind = LabeledPoints::readLabeledPoints(db, 10, 0, true);
    EXPECT_EQ(pointIds(blind), (std::vector<int64_t>{3, 1}));
    EXPECT_EQ(blind.points[0].t0Ms, 10);
    EXPECT_TRUE(blind.points[0].remapped);
    EXPECT_EQ(blind.remappedCount, 1);
    EXPECT_EQ(blind.excludedRevisionCount, 1);
    EXPECT_EQ(pointIds(LabeledPoints::readLabeledPoints(db, 10, 0, false)), (std::vector<int64_t>{3, 2}));
    EXPECT_EQ(sql(db, "SELECT t0_ms FROM labels WHERE id = 3"), std::vector<std::string>{"500"});
}

TEST(LabeledPoints, MissingFilesAndTablesFailInReplaysWords) {
    testing::TempDir dir;
    const auto failure = [](const fs::path& path) {
        try {
            LabeledPoints::readLabeledPoints(path, 1, 0, true);
        } catch (const LabeledPoints::ReadError& error) {
            return error.description();
        }
        return std::string("no error");
    };
    EXPECT_EQ(failure(dir / "absent.sqlite"), "could not open labels.sqlite at " + (dir / "absent.sqlite").string());
    EXPECT_FALSE(fs::exists(dir / "absent.sqlite"));
    sql(dir / "empty.sqlite", "CREATE TABLE other (x);");
    EXPECT_EQ(failure(dir / "empty.sqlite"), "could not prepare labels query");
}

}  // namespace
}  // namespace aimwise
