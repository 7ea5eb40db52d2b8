#pragma once
// The capture agents' handle on a SQLite file. Writers must keep recording whatever
// happens, so only opening raises; every later failure is logged and passed over.
#include <concepts>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "CaptureShared/common/error.h"

struct sqlite3;

namespace aimwise {

// Described for a person: the file, SQLite's words, and what to do about it.
struct SQLiteError : Error {
    enum class Kind { openFailed };
    SQLiteError(Kind kind, std::string message, const std::filesystem::path& path = {});
    Kind kind = Kind::openFailed;
    std::string message;  // SQLite's own words
};

// One positional parameter of `SQLiteDB::insert`: absent, integer, float, boolean or text.
class SQLParam {
public:
    using Value = std::variant<std::monostate, int64_t, double, bool, std::string>;

    SQLParam(std::nullopt_t) {}
    SQLParam(bool value) : value_(value) {}
    template <std::integral T>
        requires(!std::same_as<T, bool>)
    SQLParam(T value) : value_(static_cast<int64_t>(value)) {}
    template <std::floating_point T>
    SQLParam(T value) : value_(static_cast<double>(value)) {}
    SQLParam(std::string value) : value_(std::move(value)) {}
    SQLParam(const char* value) : value_(std::string(value)) {}
    template <class T>
    SQLParam(const std::optional<T>& value) {
        if (value) *this = SQLParam(*value);
    }

    const Value& value() const { return value_; }

private:
    Value value_;
};

class SQLiteDB {
public:
    // Opens read-write, creating the file, and switches it to WAL. Throws SQLiteError.
    static SQLiteDB open(const std::filesystem::path& path);

    SQLiteDB(SQLiteDB&&) noexcept = default;
    SQLiteDB& operator=(SQLiteDB&&) noexcept = default;
    ~SQLiteDB() = default;

    // Runs one or more statements; a failure goes to standard error with the SQL.
    void exec(const std::string& sql);
    // Prepare, bind by position, step once, finalise; failures go to standard error.
    void insert(const std::string& sql, const std::vector<SQLParam>& params);
    // Column names of `table` in declaration order; empty when it does not exist.
    std::vector<std::string> columnNames(const std::string& table);

private:
    struct Close {
        void operator()(sqlite3* db) const;
    };
    explicit SQLiteDB(sqlite3* db) : db_(db) {}
    std::unique_ptr<sqlite3, Close> db_;
};

}  // namespace aimwise
