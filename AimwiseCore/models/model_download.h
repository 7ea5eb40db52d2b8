#pragma once
// One model file fetched over HTTP into a partial file, hashed while it streams. A partial file from
// an interrupted attempt is continued where it stopped. Only bytes that were asked for are written:
// a reply that is not the file (an error page, a web page, the wrong length) is refused before
// anything reaches the disk.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "CaptureShared/common/error.h"

namespace aimwise {

class ModelDownloadError : public Error {
public:
    enum class Kind {
        refusedReply,    // an HTTP error, a web page, or a reply that does not continue the partial file
        wrongSize,       // the server's length is not the catalogue's
        digestMismatch,  // every byte came, and they are not the catalogue's file
        redirectLoop,
        interrupted,     // the connection failed or ended early; the partial file is kept for a resume
        diskFull,
        writeFailed,
    };
    ModelDownloadError(Kind kind, std::string description) : Error(std::move(description)), kind_(kind) {}
    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

namespace ModelDownload {

struct Request {
    std::string url;
    // Bytes so far. Kept after an interruption; removed when what arrived cannot be the file.
    std::filesystem::path partialPath;
    int64_t expectedSizeBytes = 0;
    std::string expectedSha256;
    // How messages name the file, e.g. its file name.
    std::string displayName;
    int maxRedirects = 8;
    double connectTimeoutSec = 30;
    // A transfer slower than 1 KiB/s for this long has stalled.
    double stallTimeoutSec = 60;
};

struct Progress {
    int64_t doneBytes = 0;
    int64_t totalBytes = 0;
    // Bytes that were already in the partial file when this attempt started.
    int64_t resumedFromBytes = 0;
};

struct Result {
    std::string sha256;
    int64_t sizeBytes = 0;
    int64_t resumedFromBytes = 0;
};

// Throws ModelDownloadError. On success the partial file holds exactly the expected bytes.
Result fetch(const Request& request, const std::function<void(const Progress&)>& onProgress);

// Free bytes for an unprivileged writer in the file system holding `directory`; nothing when unknown.
std::optional<int64_t> freeBytes(const std::filesystem::path& directory);

// "8.1 GB", "512 MB", "37 kB": decimal units, as download sizes are usually given.
std::string humanBytes(int64_t bytes);

}  // namespace ModelDownload
}  // namespace aimwise
