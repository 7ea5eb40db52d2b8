#pragma once
// Re-reads a growing JSON-lines file cheaply: an unchanged file costs one stat, a grown one only its
// new bytes. A watermark remembers the file's identity and how far its complete lines were consumed.
// One owner per reader: it is not safe for concurrent use.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "AimwiseCore/events/classifier_tick.h"
#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/events/file_io.h"

namespace aimwise {

struct Watermark {
    uint64_t inode = 0;
    int64_t size = 0;
    double mtime = 0;
    int64_t completeUpTo = 0;  // just past the last newline consumed
    bool operator==(const Watermark&) const = default;
};

template <typename Row>
struct IncrementalReadResult {
    enum class Kind { reset, appended };
    Kind kind;
    std::vector<Row> rows;  // reset: replace all that the caller holds; appended: follow it

    static IncrementalReadResult reset(std::vector<Row> rows) { return {Kind::reset, std::move(rows)}; }
    static IncrementalReadResult appended(std::vector<Row> rows) { return {Kind::appended, std::move(rows)}; }
};

namespace incremental_detail {
// The whole file as one descriptor saw it, at most `attributes.size` bytes. Throws
// std::filesystem::filesystem_error.
std::pair<std::string, events_io::FileAttributes> readWhole(const std::filesystem::path& path);
// Bytes [from, to), or nothing on any failure to open or read.
std::optional<std::string> readRange(const std::filesystem::path& path, int64_t from, int64_t to);
}  // namespace incremental_detail

template <typename Row>
class IncrementalJSONLReader {
public:
    using DecodeLine = std::function<std::optional<Row>(std::string_view)>;

    IncrementalJSONLReader(std::filesystem::path url, DecodeLine decodeLine, int approximateBytesPerLine)
        : url_(std::move(url)), decodeLine_(std::move(decodeLine)),
          approximateBytesPerLine_(approximateBytesPerLine > 0 ? approximateBytesPerLine : 1) {}

    // Throws std::filesystem::filesystem_error when the attributes or the full read fail; the
    // watermark then stays as it was. A missing file is such an error.
    IncrementalReadResult<Row> read() {
        const auto now = events_io::attributes(url_);
        if (watermark_ && watermark_->inode == now.inode && watermark_->size == now.size &&
            watermark_->mtime == now.mtime)
            return IncrementalReadResult<Row>::appended({});
        if (watermark_ && watermark_->inode == now.inode && now.size >= watermark_->size) {
            if (auto appended = readAppended(watermark_->completeUpTo, now.size)) {
                watermark_ = Watermark{now.inode, now.size, now.mtime, watermark_->completeUpTo + appended->second};
                return IncrementalReadResult<Row>::appended(std::move(appended->first));
            }
        }
        auto [data, seen] = incremental_detail::readWhole(url_);
        auto [rows, consumed] = decodeLines(data, false);
        watermark_ = Watermark{seen.inode, seen.size, seen.mtime, consumed};
        return IncrementalReadResult<Row>::reset(std::move(rows));
    }

    // Every line, a last one without its newline included; the watermark is not touched.
    std::vector<Row> readFull() {
        auto [data, seen] = incremental_detail::readWhole(url_);
        return decodeLines(data, true).first;
    }

    const std::filesystem::path& url() const { return url_; }
    const std::optional<Watermark>& watermark() const { return watermark_; }
    void clearWatermark() { watermark_.reset(); }
    int64_t decodeCallCount() const { return decodeCallCount_; }
    int64_t appendedRangeReadCount() const { return appendedRangeReadCount_; }

private:
    // Rows and bytes consumed; nothing when the range could not be read.
    std::optional<std::pair<std::vector<Row>, int64_t>> readAppended(int64_t from, int64_t to) {
        if (to <= from) return std::pair<std::vector<Row>, int64_t>{};
        ++appendedRangeReadCount_;
        auto bytes = incremental_detail::readRange(url_, from, to);
        if (!bytes) return std::nullopt;
        return decodeLines(*bytes, false);
    }

    // A trailing fragment stays unconsumed unless `includeTail`: it may be a line still being
    // written, and decoding it now would count a good record as bad.
    std::pair<std::vector<Row>, int64_t> decodeLines(std::string_view data, bool includeTail) {
        std::vector<Row> rows;
        rows.reserve(data.size() / static_cast<size_t>(approximateBytesPerLine_));
        size_t start = 0;
        while (start < data.size()) {
            size_t end = data.find('\n', start);
            if (end == std::string_view::npos) {
                if (!includeTail) break;
                end = data.size();
            }
            if (end > start) {
                ++decodeCallCount_;
                if (auto row = decodeLine_(data.substr(start, end - start))) rows.push_back(std::move(*row));
            }
            start = end + 1;
        }
        return {std::move(rows), static_cast<int64_t>(std::min(start, data.size()))};
    }

    std::filesystem::path url_;
    DecodeLine decodeLine_;
    int approximateBytesPerLine_;
    std::optional<Watermark> watermark_;
    int64_t decodeCallCount_ = 0;
    int64_t appendedRangeReadCount_ = 0;
};

namespace IncrementalJSONLReaders {
IncrementalJSONLReader<EventLogEvent> events(const std::filesystem::path& at);
IncrementalJSONLReader<ClassifierTick> classifierTicks(const std::filesystem::path& at);
}  // namespace IncrementalJSONLReaders

}  // namespace aimwise
