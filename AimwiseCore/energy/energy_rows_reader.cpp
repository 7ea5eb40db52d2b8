#include "AimwiseCore/energy/energy_rows_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

namespace aimwise::EnergyRowsReader {

namespace {

namespace fs = std::filesystem;

constexpr int64_t chunkBytes = 1 << 20;
constexpr size_t maxLineBytes = 64 << 10;

struct Source {
    const char* fileName;
    std::optional<EnergyKind> defaultKind;
};

// The coach's file holds two kinds, so its rows must say which.
constexpr Source sources[] = {{"classifier-tick-energy.jsonl", EnergyKind::judged},
                              {skipEnergyFileName, EnergyKind::skipped},
                              {coachEnergyFileName, std::nullopt},
                              {dreamEnergyFileName, EnergyKind::pass}};

class Visitor {
  public:
    Visitor(Result& result, std::optional<EnergyKind> defaultKind, int64_t sinceMs, int64_t untilMs,
            const std::function<void(const EnergyRow&)>& visit)
        : result_(result), defaultKind_(defaultKind), sinceMs_(sinceMs), untilMs_(untilMs), visit_(visit) {}

    // False once the rows are well past the period.
    bool line(std::string_view text) {
        while (!text.empty() && (text.back() == '\r' || text.back() == ' ')) text.remove_suffix(1);
        if (text.empty()) return true;
        std::optional<EnergyRow> row = EnergyLog::decode(text, defaultKind_);
        if (!row) {
            ++result_.unreadableLines;
            return true;
        }
        if (row->atMs < sinceMs_ - disorderMarginMs) {
            if (++olderInARow_ >= stopAfterOlderRows) return false;
        } else {
            olderInARow_ = 0;
        }
        if (row->atMs >= sinceMs_ && row->atMs <= untilMs_) visit_(*row);
        return true;
    }

    void unreadable() { ++result_.unreadableLines; }

  private:
    Result& result_;
    std::optional<EnergyKind> defaultKind_;
    int64_t sinceMs_;
    int64_t untilMs_;
    const std::function<void(const EnergyRow&)>& visit_;
    int olderInARow_ = 0;
};

// Chunks from the end; a line cut by a chunk's start waits for the chunk before it.
std::optional<std::string> readBackwards(int fd, int64_t size, Visitor& visitor) {
    std::string carry, chunk;
    bool overlong = false;
    int64_t position = size;
    while (position > 0) {
        const int64_t length = std::min(chunkBytes, position);
        position -= length;
        chunk.resize(static_cast<size_t>(length));
        int64_t got = 0;
        while (got < length) {
            const ssize_t n =
                ::pread(fd, chunk.data() + got, static_cast<size_t>(length - got), position + got);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return std::string(std::strerror(errno));
            if (n == 0) break;
            got += n;
        }
        chunk.resize(static_cast<size_t>(got));
        chunk += carry;
        std::string_view data(chunk);
        size_t end = data.size();
        while (true) {
            const void* found = end == 0 ? nullptr : ::memrchr(data.data(), '\n', end);
            if (!found) break;
            const size_t newline = static_cast<size_t>(static_cast<const char*>(found) - data.data());
            if (overlong) {
                visitor.unreadable();
                overlong = false;
            } else if (!visitor.line(data.substr(newline + 1, end - newline - 1))) {
                return std::nullopt;
            }
            end = newline;
        }
        // No row is this long: the rest of such a line is dropped as it comes, not collected.
        overlong = overlong || end > maxLineBytes;
        carry.assign(overlong ? std::string_view() : data.substr(0, end));
    }
    if (overlong)
        visitor.unreadable();
    else
        visitor.line(carry);
    return std::nullopt;
}

}  // namespace

Result read(const fs::path& dataRoot, int64_t sinceMs, int64_t untilMs,
            const std::function<void(const EnergyRow&)>& visit) {
    Result result;
    for (const Source& source : sources) {
        const fs::path path = dataRoot / source.fileName;
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0) {
            if (errno != ENOENT && errno != ENOTDIR)
                result.unreadableFiles.push_back(std::string(source.fileName) + ": " + std::strerror(errno));
            continue;
        }
        struct stat info {};
        std::optional<std::string> failure;
        if (::fstat(fd, &info) != 0) {
            failure = std::strerror(errno);
        } else if (!S_ISREG(info.st_mode)) {
            failure = "not a regular file";
        } else {
            Visitor visitor(result, source.defaultKind, sinceMs, untilMs, visit);
            failure = readBackwards(fd, info.st_size, visitor);
        }
        ::close(fd);
        if (failure) result.unreadableFiles.push_back(std::string(source.fileName) + ": " + *failure);
    }
    return result;
}

}  // namespace aimwise::EnergyRowsReader
