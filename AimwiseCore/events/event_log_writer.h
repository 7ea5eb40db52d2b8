#pragma once
// Appends events to io-layer/events.jsonl. Any process may append at any time: each line goes out in
// one write() on a descriptor opened for append, so lines from different writers never interleave.
#include <cstdint>
#include <filesystem>
#include <string>
#include <variant>
#include <vector>

#include "AimwiseCore/events/event_log_event.h"
#include "CaptureShared/common/error.h"

namespace aimwise {

struct EventLogWriterError : Error {
    // dataRootEmpty: the log's folder would have been made in a root holding none of the system's
    // files, such as an unmounted disk's mount point.
    enum class Kind { openFailed, shortWrite, encodingFailed, dataRootEmpty };
    explicit EventLogWriterError(Kind kind, int error = 0, int64_t expected = 0, int64_t actual = 0);
    static EventLogWriterError dataRootEmpty(const std::filesystem::path& root);
    Kind kind;
    int error = 0;         // openFailed: errno
    int64_t expected = 0;  // shortWrite
    int64_t actual = 0;    // shortWrite
};

namespace EventLogWriter {

inline constexpr const char* defaultProcessName = "AimwiseCoach";
// AIMCAP_BUILD_VERSION, else "dev"; read once per process.
const std::string& defaultBuildVersion();

// `detail` with `_producer` set to {process, version, pid}; a detail that is not an object is
// replaced by an empty object first.
JSONValue withProducerStamp(const JSONValue& detail, const std::string& processName,
                            const std::string& buildVersion, int64_t pid);

// Throws EventLogWriterError; the parent directory is created at 0700 (its failure is rethrown as
// std::filesystem::filesystem_error), the file at 0600. A line starts on a line of its own even
// after a line that an earlier writer left cut short.
void append(const EventLogEvent& event, const std::filesystem::path& to,
            const std::string& processName = defaultProcessName,
            const std::string& buildVersion = defaultBuildVersion());
// Each event on its own open and close; stops at the first failure, leaving earlier lines written.
void append(const std::vector<EventLogEvent>& events, const std::filesystem::path& to,
            const std::string& processName = defaultProcessName,
            const std::string& buildVersion = defaultBuildVersion());

}  // namespace EventLogWriter

}  // namespace aimwise
