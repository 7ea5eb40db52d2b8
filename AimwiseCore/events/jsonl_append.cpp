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
    events_io::appendLine(to, line);
}

}  // namespace aimwise::JSONLAppend
