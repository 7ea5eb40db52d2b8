#include "CaptureShared/video/frame_timestamps.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <system_error>

namespace aimwise::FrameTimestamps {

namespace {

std::vector<std::string_view> fields(std::string_view text) {
    std::vector<std::string_view> out;
    size_t start = 0;
    while (true) {
        const size_t comma = text.find(',', start);
        out.push_back(text.substr(start, comma == std::string_view::npos ? std::string_view::npos : comma - start));
        if (comma == std::string_view::npos) return out;
        start = comma + 1;
    }
}

template <typename Number>
bool parse(std::string_view text, Number& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

// A file name the sidecar may point at: inside its own directory, nothing more.
bool isPlainName(std::string_view name) {
    return name != "." && name != ".." && name.find('/') == std::string_view::npos &&
           name.find('\0') == std::string_view::npos;
}

std::optional<Row> decode(std::string_view text, bool indexesFrames) {
    if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
    const auto f = fields(text);
    Row row;
    if (f.size() < 2 || !parse(f[0], row.realMs) || !isPlainName(f[1])) return std::nullopt;
    row.file = std::string(f[1]);
    if (!indexesFrames || row.file.empty()) return row;
    CaptureArea& a = row.area;
    if (f.size() != 7 || !parse(f[2], row.frameIndex) || row.frameIndex < 0 || !parse(f[3], a.x) ||
        !parse(f[4], a.y) || !parse(f[5], a.width) || !parse(f[6], a.height) || a.width <= 0 || a.height <= 0)
        return std::nullopt;
    return row;
}

}  // namespace

std::string line(const Row& row) {
    if (row.file.empty()) return std::to_string(row.realMs) + ",,,,,,\n";
    return std::to_string(row.realMs) + "," + row.file + "," + std::to_string(row.frameIndex) + "," +
           std::to_string(row.area.x) + "," + std::to_string(row.area.y) + "," + std::to_string(row.area.width) +
           "," + std::to_string(row.area.height) + "\n";
}

Sidecar readWindow(const std::filesystem::path& path, int64_t fromMs, int64_t toMs) {
    Sidecar sidecar;
    std::ifstream in(path, std::ios::binary);
    std::string text;
    if (!std::getline(in, text)) return sidecar;
    if (!text.empty() && text.back() == '\r') text.pop_back();
    const auto columns = fields(text);
    sidecar.indexesFrames = std::find(columns.begin(), columns.end(), "frame_index") != columns.end();
    while (std::getline(in, text)) {
        if (in.eof()) break;  // cut by a crash before its newline: its last number may be cut too
        if (auto row = decode(text, sidecar.indexesFrames); row && row->realMs >= fromMs && row->realMs <= toMs)
            sidecar.rows.push_back(std::move(*row));
    }
    std::stable_sort(sidecar.rows.begin(), sidecar.rows.end(),
                     [](const Row& a, const Row& b) { return a.realMs < b.realMs; });
    return sidecar;
}

Writer::Writer(const std::filesystem::path& path)
    : fd_(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600)) {
    struct stat info {};
    if (!fd_.valid() || ::fstat(fd_.get(), &info) != 0)
        throw std::system_error(errno, std::generic_category(), "could not open " + path.string());
    const std::string first = std::string(header) + "\n";
    if (info.st_size == 0 && !writeFully(fd_.get(), first.data(), first.size()))
        throw std::system_error(errno, std::generic_category(), "could not write " + path.string());
}

void Writer::append(const Row& row) {
    const std::string text = line(row);
    if (!writeFully(fd_.get(), text.data(), text.size()))
        throw std::system_error(errno, std::generic_category(), "could not append to the frame sidecar");
}

}  // namespace aimwise::FrameTimestamps
