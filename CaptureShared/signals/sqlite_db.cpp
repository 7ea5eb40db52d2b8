#include "CaptureShared/signals/sqlite_db.h"

#include <sys/stat.h>

#include <cstdio>

#include "CaptureShared/signals/sqlite_statement.h"

namespace aimwise {

namespace {

std::string messageOf(sqlite3* db) {
    const char* message = db ? sqlite3_errmsg(db) : nullptr;
    return message ? message : "unknown sqlite error";
}

void writeToStandardError(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stderr); }

}  // namespace

SQLiteError::SQLiteError(Kind kind, std::string message, const std::filesystem::path& path)
    : Error("could not open " + (path.empty() ? std::string("the database") : path.string()) + " for writing (" +
            message + ") — check that its folder is writable and its disk has room; nothing was recorded"),
      kind(kind),
      message(std::move(message)) {}

void SQLiteDB::Close::operator()(sqlite3* db) const { sqlite3_close_v2(db); }

SQLiteDB SQLiteDB::open(const std::filesystem::path& path) {
    struct stat info {};
    // A FIFO in the file's place would block the open.
    if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode))
        throw SQLiteError{SQLiteError::Kind::openFailed, "not a regular file", path};
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (rc != SQLITE_OK) {
        std::string message = raw ? messageOf(raw) : sqlite3_errstr(rc);
        sqlite3_close_v2(raw);
        throw SQLiteError{SQLiteError::Kind::openFailed, std::move(message), path};
    }
    SQLiteDB db(raw);
    db.exec("PRAGMA journal_mode=WAL;");
    return db;
}

void SQLiteDB::exec(const std::string& sql) {
    char* error = nullptr;
    if (sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        const std::string message = error ? error : messageOf(db_.get());
        writeToStandardError("SQLiteDB.exec failed: " + message + "\nSQL: " + sql + "\n");
    }
    sqlite3_free(error);
}

void SQLiteDB::insert(const std::string& sql, const std::vector<SQLParam>& params) {
    sqlite::Statement statement(db_.get(), sql);
    if (!statement.ok()) {
        writeToStandardError("SQLiteDB.insert prepare failed: " + messageOf(db_.get()) + "\n");
        return;
    }
    for (size_t i = 0; i < params.size(); ++i) {
        const int index = static_cast<int>(i) + 1;
        std::visit(
            [&](const auto& value) {
                using T = std::decay_t<decltype(value)>;
                if constexpr (std::is_same_v<T, std::monostate>) statement.bindNull(index);
                else if constexpr (std::is_same_v<T, bool>) statement.bind(index, int64_t{value ? 1 : 0});
                else statement.bind(index, value);
            },
            params[i].value());
    }
    if (sqlite3_step(statement.get()) != SQLITE_DONE)
        writeToStandardError("SQLiteDB.insert step failed: " + messageOf(db_.get()) + "\n");
}

std::vector<std::string> SQLiteDB::columnNames(const std::string& table) {
    std::vector<std::string> names;
    sqlite::Statement statement(db_.get(), "PRAGMA table_info(" + table + ")");
    if (!statement.ok()) return names;
    while (statement.step())
        if (auto name = statement.text(1)) names.push_back(std::move(*name));
    return names;
}

}  // namespace aimwise
