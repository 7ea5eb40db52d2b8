#pragma once
// The capture agent's side of signals.sqlite: one transaction per sampling instant, and an
// `events` row whenever the declared task changes.
#include <filesystem>
#include <optional>
#include <string>

#include "CaptureShared/signals/sqlite_db.h"
#include "agents/capture/tick_record.h"

namespace aimwise {

class SignalsWriter {
public:
    // Creates the file and its tables when needed. Throws SQLiteError.
    explicit SignalsWriter(std::filesystem::path path);

    const std::filesystem::path& path() const { return path_; }
    // False once the file was removed or replaced, say with the data root that held it.
    bool stillAtPath() const;
    void write(const TickRecord& record);

private:
    std::filesystem::path path_;
    SQLiteDB db_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    // What the newest row says, so that a restart does not announce an old declaration again.
    std::optional<std::string> lastDeclaredTask_;
};

}  // namespace aimwise
