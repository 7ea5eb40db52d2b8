#include "AimwiseCore/events/jsonl_append.h"

#include <algorithm>

#include "AimwiseCore/events/file_io.h"

namespace aimwise::JSONLAppend {

void append(const JSONValue::Object& row, const std::filesystem::path& to) {
    events_io::createDirectories(to.parent_path(), 0700);
    std::string line;
    try {
        line = JSONValue(row).serialized();
    } catch (const JSONValueError&) {
        throw AppendError{AppendError::Kind::encodingFailed};
    }
    std::replace(line.begin(), line.end(), '\n', ' ');
    line.push_back('\n');
    const auto result = events_io::appendOnce(to, line, 0600);
    if (result.failure == events_io::AppendFailure::openFailed)
        throw AppendError{AppendError::Kind::openFailed, result.error};
    if (result.failure == events_io::AppendFailure::shortWrite)
        throw AppendError{AppendError::Kind::shortWrite, result.error, static_cast<int64_t>(line.size()), result.written};
}

}  // namespace aimwise::JSONLAppend
