#include "agents/capture/recording_retention.h"

#include <sys/statvfs.h>

#include <chrono>
#include <ctime>
#include <fstream>
#include <set>

#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/video/video_encryption_format.h"

namespace aimwise::RecordingRetention {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view prefix = "rec-", suffix = ".ts.sealed";
constexpr int64_t dayMs = 86'400'000;

int64_t lastWrittenMs(const fs::path& file, std::error_code& error) {
    const auto written = fs::last_write_time(file, error);
    const auto system = std::chrono::file_clock::to_sys(written);
    return std::chrono::duration_cast<std::chrono::milliseconds>(system.time_since_epoch()).count();
}

// Keeps the header and every row whose file is still there; pause rows go once they are too old.
void trimSidecar(const fs::path& sidecar, const std::set<std::string>& deleted, int64_t cutoffMs) {
    std::ifstream in(sidecar, std::ios::binary);
    std::string line, kept;
    if (!std::getline(in, line)) return;
    kept = line + "\n";
    bool changed = false;
    while (std::getline(in, line)) {
        const size_t comma = line.find(',');
        const std::string file = comma == std::string::npos ? "" : line.substr(comma + 1, line.find(',', comma + 1) - comma - 1);
        int64_t realMs = 0;
        try {
            realMs = std::stoll(line.substr(0, comma));
        } catch (const std::exception&) {
            realMs = -1;
        }
        const bool drop = realMs < 0 || deleted.contains(file) || (file.empty() && realMs < cutoffMs);
        if (drop) changed = true;
        else kept += line + "\n";
    }
    if (changed) writeFileAtomically(sidecar, kept);
}

}  // namespace

std::string fileName(int64_t startMs, int attempt) {
    const std::time_t seconds = startMs / 1000;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
    return std::string(prefix) + stamp + (attempt > 1 ? "-" + std::to_string(attempt) : "") + std::string(suffix);
}

bool isRecorderName(std::string_view name) {
    if (!name.starts_with(prefix) || !name.ends_with(suffix)) return false;
    name = name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
    if (name.size() < 16 || name[8] != 'T' || name[15] != 'Z') return false;
    for (size_t i = 0; i < name.size(); ++i) {
        const bool digit = name[i] >= '0' && name[i] <= '9';
        if (i == 8 || i == 15) continue;
        if (i == 16 ? name[i] != '-' || name.size() == 17 : !digit) return false;
    }
    return true;
}

Sweep sweep(const fs::path& videoDir, int64_t nowMs, int keepDays) {
    Sweep result;
    const int64_t cutoffMs = nowMs - keepDays * dayMs;
    std::error_code error;
    for (fs::directory_iterator display(videoDir, error), end; !error && display != end; display.increment(error)) {
        if (!display->path().filename().string().starts_with("display-") || !display->is_directory(error)) continue;
        std::set<std::string> deleted;
        std::error_code listing;
        for (fs::directory_iterator it(display->path(), listing); !listing && it != end; it.increment(listing)) {
            const fs::path file = it->path();
            std::error_code fileError;
            if (!isRecorderName(file.filename().string()) || !it->is_regular_file(fileError) ||
                lastWrittenMs(file, fileError) >= cutoffMs || fileError || !VideoEncryptionFormat::isEncrypted(file))
                continue;
            const uintmax_t size = it->file_size(fileError);
            if (fs::remove(file, fileError)) {
                ++result.filesDeleted;
                result.bytesFreed += fileError ? 0 : size;
                deleted.insert(file.filename().string());
            } else if (fileError) {
                result.failures.push_back(file.string() + ": " + fileError.message());
            }
        }
        try {
            const fs::path sidecar = display->path() / "frame_timestamps.csv";
            if (!deleted.empty() && fs::exists(sidecar)) trimSidecar(sidecar, deleted, cutoffMs);
        } catch (const fs::filesystem_error& failure) {
            result.failures.push_back(failure.what());
        }
    }
    return result;
}

std::optional<uint64_t> freeBytes(const fs::path& path) {
    struct statvfs info {};
    if (::statvfs(path.c_str(), &info) != 0) return std::nullopt;
    return static_cast<uint64_t>(info.f_bavail) * info.f_frsize;
}

}  // namespace aimwise::RecordingRetention
