#pragma once
// What the agent tests share: the built programs, an isolated home and data root, and
// signals.sqlite read back as rows.
#include <sqlite3.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temp_dir.h"

namespace aimwise::testing {

inline std::string capturePath() { return std::string(AIMWISE_BINARY_DIR) + "/bin/aimwise-capture"; }
inline std::string aimwisePath() { return std::string(AIMWISE_BINARY_DIR) + "/bin/aimwise"; }

// A home of its own, so that nothing reads or writes the real person's settings.
struct AgentSandbox {
    TempDir temp{"aimwise-agents"};
    std::filesystem::path home = temp / "home";
    std::filesystem::path root = temp / "root";

    AgentSandbox() {
        std::filesystem::create_directories(home);
        std::filesystem::create_directories(root);
        // As `aimwise init` leaves a root: the capture agent records only in a prepared one.
        writeFile(root / "manifest.json", "{}\n");
    }
    std::map<std::string, std::string> environment(const std::string& display = "") const {
        std::map<std::string, std::string> env{{"HOME", home.string()},
                                               {"XDG_DATA_HOME", (home / ".local/share").string()},
                                               {"XDG_STATE_HOME", (home / ".local/state").string()},
                                               {"XDG_CONFIG_HOME", (home / ".config").string()},
                                               {"AIMCAP_DATA_ROOT", root.string()},
                                               // No logind session to ask: the lock comes from the screen saver.
                                               {"PATH", "/nonexistent"}};
        if (!display.empty()) env["DISPLAY"] = display;
        return env;
    }
    std::filesystem::path signals() const { return root / "signals.sqlite"; }
};

// Rows of one query, every column as text; NULL as nothing.
using Row = std::vector<std::optional<std::string>>;
inline std::vector<Row> query(const std::filesystem::path& db, const std::string& sql) {
    std::vector<Row> rows;
    sqlite3* handle = nullptr;
    if (sqlite3_open_v2(("file:" + db.string() + "?mode=ro").c_str(), &handle, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI,
                        nullptr) != SQLITE_OK) {
        sqlite3_close(handle);
        return rows;
    }
    sqlite3_busy_timeout(handle, 2000);
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(handle, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK) {
        while (sqlite3_step(statement) == SQLITE_ROW) {
            Row row;
            for (int i = 0; i < sqlite3_column_count(statement); ++i) {
                const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, i));
                row.push_back(text ? std::optional<std::string>(text) : std::nullopt);
            }
            rows.push_back(std::move(row));
        }
    }
    sqlite3_finalize(statement);
    sqlite3_close(handle);
    return rows;
}

inline int64_t count(const std::filesystem::path& db, const std::string& table) {
    if (!std::filesystem::exists(db)) return 0;
    const auto rows = query(db, "SELECT COUNT(*) FROM " + table);
    return rows.empty() || !rows[0][0] ? 0 : std::stoll(*rows[0][0]);
}

// Polls `condition` every 50 ms for up to `timeoutMs`.
inline bool eventually(const std::function<bool()>& condition, int timeoutMs = 8000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return condition();
}

}  // namespace aimwise::testing
