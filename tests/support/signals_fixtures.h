#pragma once
// signals.sqlite files built in the test through the capture agents' own Schema and SQLiteDB.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "CaptureShared/signals/signals_reader.h"
#include "CaptureShared/signals/sqlite_db.h"

namespace aimwise::testing {

// What a verb passes on when the data root holds no signals.sqlite.
inline std::string missingSignals(const std::filesystem::path& path) {
    return SignalsReaderError{SignalsReaderError::Kind::openFailed, "unable to open database file", path}.description();
}

struct FixtureTick {
    int64_t tsMs = 0;
    std::optional<std::string> frontmostApp{};
    std::optional<std::string> frontmostBundleId{};
    std::optional<double> idleAnySec{};
    std::optional<std::string> browserApp{};
    std::optional<std::string> browserTitle{};
    std::optional<std::string> browserURL{};
    std::optional<int> batteryPct{};
    std::optional<bool> acPlugged{};
    std::optional<std::string> declaredTask{};
};

struct FixtureWindow {
    int64_t tsMs = 0;
    std::string ownerName{};
    std::optional<std::string> title{};
    std::optional<int> layer = 0;
    std::optional<double> x = 0, y = 0, width = 800, height = 600;
};

class SignalsFixture {
public:
    // Creates the file, and its directory, with every table of the schema.
    explicit SignalsFixture(std::filesystem::path path);

    SignalsFixture& tick(const FixtureTick& row);
    // Many rows in one transaction.
    SignalsFixture& ticks(const std::vector<FixtureTick>& rows);
    SignalsFixture& window(const FixtureWindow& row);
    SignalsFixture& event(int64_t tsMs, const std::string& type, std::optional<std::string> detail = std::nullopt);
    SignalsFixture& estimateCache(const std::string& declaredTask, std::optional<double> minutes);

    SQLiteDB& db() { return db_; }
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
    SQLiteDB db_;
};

void insertTick(SQLiteDB& db, const FixtureTick& row);

}  // namespace aimwise::testing
