#pragma once
// Appending one whole line to a log that other processes append to as well.
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string_view>

namespace aimwise::LineAppend {

enum class Failure { none, openFailed, shortWrite };

struct Result {
    Failure failure = Failure::none;
    int error = 0;         // errno of a failed open or write
    int64_t expected = 0;  // bytes that had to go out, a leading newline included
    int64_t written = 0;   // what write() returned
    bool ok() const { return failure == Failure::none; }
};

// One open(O_APPEND), one write(), one close, so that whole lines of concurrent appenders never
// interleave. `line` ends in a newline. A file that does not end in one (a line cut short by a full
// disk or a killed writer) gets one first, in the same write, so that the cut line cannot swallow
// this one; the cut line stays behind as one undecodable line. A short write is a failure. Anything
// but a regular file is refused without blocking, as openFailed with EINVAL.
Result append(const std::filesystem::path& file, std::string_view line, mode_t mode = 0600);

}  // namespace aimwise::LineAppend
