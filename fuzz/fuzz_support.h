#pragma once
// What the fuzz targets share: the input as text or as parts, a scratch directory, files written as
// the agents write them, and a log grown a few bytes at a time so readers meet torn last lines.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/events/event_log_reader.h"

namespace aimwise::fuzzing {

namespace fs = std::filesystem;

inline void require(bool holds, const char* promise) {
    if (holds) return;
    std::fprintf(stderr, "broken: %s\n", promise);
    std::abort();
}

inline std::string_view text(const uint8_t* data, size_t size) { return {reinterpret_cast<const char*>(data), size}; }

// An input that stands for several files holds them separated by lines "=====", so seeds stay
// readable. Missing parts are empty.
inline std::vector<std::string_view> parts(std::string_view input, size_t count) {
    static constexpr std::string_view mark = "\n=====\n";
    std::vector<std::string_view> out;
    for (size_t at; out.size() + 1 < count && (at = input.find(mark)) != std::string_view::npos;) {
        out.push_back(input.substr(0, at));
        input.remove_prefix(at + mark.size());
    }
    out.push_back(input);
    out.resize(count);
    return out;
}

// This process's own directory, in memory when the machine has /dev/shm; removed at exit.
inline const fs::path& scratch() {
    struct Directory {
        fs::path path;
        Directory() {
            std::string pattern = (fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path()) /
                                  "aimwise-fuzz-XXXXXX";
            require(::mkdtemp(pattern.data()) != nullptr, "a scratch directory can be made");
            path = pattern;
        }
        ~Directory() {
            std::error_code ignored;
            fs::remove_all(path, ignored);
        }
    };
    static const Directory directory;
    return directory.path;
}

inline void writeFile(const fs::path& at, std::string_view bytes, bool append = false) {
    const int fd = ::open(at.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (append ? O_APPEND : O_TRUNC), 0600);
    require(fd >= 0 && ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
            "a scratch file can be written");
    ::close(fd);
}

// Appends `data` to `file` in steps, calling `read(prefixLength)` after each: every prefix for a
// short input, otherwise about 64 even steps, and always just before and just after each newline.
template <typename Read>
void grow(const fs::path& file, std::string_view data, Read&& read) {
    const size_t stride = data.size() / 64 + 1;
    size_t done = 0;
    const auto cutAt = [&](size_t end) {
        if (end <= done) return;
        writeFile(file, data.substr(done, end - done), true);
        done = end;
        read(done);
    };
    read(0);
    for (size_t at = 0; at < data.size(); ++at)
        if (data[at] == '\n' || (at + 1) % stride == 0) {
            cutAt(at);
            cutAt(at + 1);
        }
    cutAt(data.size());
}

// Grows `log` to `data`, reading it with `reader` after each step as a caller that holds the rows
// would; `after(result)` sees every read. Returns the rows held at the end.
template <typename Reader, typename After>
auto readGrowing(const fs::path& log, std::string_view data, Reader& reader, After&& after) {
    decltype(reader.read().rows) rows;
    grow(log, data, [&](size_t) {
        auto result = reader.read();
        if (result.kind == decltype(result)::Kind::reset) rows.clear();
        rows.insert(rows.end(), result.rows.begin(), result.rows.end());
        after(std::move(result));
    });
    return rows;
}

// What a correct reader of complete lines yields: each line before the last newline, decoded.
template <typename Row, typename Decode>
std::vector<Row> completeRows(std::string_view data, Decode&& decode) {
    std::vector<Row> rows;
    forEachLine(data.substr(0, data.rfind('\n') + 1), [&](std::string_view line) {
        if (auto row = decode(line)) rows.push_back(std::move(*row));
    });
    return rows;
}

}  // namespace aimwise::fuzzing
