#pragma once
// Private to the .cpp files of this folder: the only place besides them that sees sqlite3.h.
#include <sqlite3.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace aimwise::sqlite {

// A prepared statement finalised with its owner. `prepare` leaves it empty on failure.
class Statement {
public:
    Statement(sqlite3* db, const std::string& sql) {
        if (db) ok_ = sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &stmt_, nullptr) == SQLITE_OK;
    }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool ok() const { return ok_ && stmt_; }
    sqlite3_stmt* get() const { return stmt_; }

    void bind(int index, int64_t value) { sqlite3_bind_int64(stmt_, index, value); }
    void bind(int index, double value) { sqlite3_bind_double(stmt_, index, value); }
    void bind(int index, const std::string& value) {
        sqlite3_bind_text(stmt_, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
    }
    void bindNull(int index) { sqlite3_bind_null(stmt_, index); }

    // True while there is a row; an error ends the rows just as their end does.
    bool step() { return sqlite3_step(stmt_) == SQLITE_ROW; }

    bool isNull(int column) const { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }
    int64_t int64(int column) const { return sqlite3_column_int64(stmt_, column); }
    double real(int column) const { return sqlite3_column_double(stmt_, column); }
    std::optional<std::string> text(int column) const {
        if (isNull(column)) return std::nullopt;
        const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
        if (!bytes) return std::nullopt;  // out of memory while converting
        return std::string(bytes, static_cast<size_t>(sqlite3_column_bytes(stmt_, column)));
    }
    // Valid until the next step; empty for NULL.
    std::string_view textView(int column) const {
        const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
        return bytes ? std::string_view(bytes, static_cast<size_t>(sqlite3_column_bytes(stmt_, column)))
                     : std::string_view();
    }
    std::optional<double> optionalReal(int column) const {
        if (isNull(column)) return std::nullopt;
        return real(column);
    }
    std::optional<int64_t> optionalInt64(int column) const {
        if (isNull(column)) return std::nullopt;
        return int64(column);
    }

private:
    sqlite3_stmt* stmt_ = nullptr;
    bool ok_ = false;
};

}  // namespace aimwise::sqlite
