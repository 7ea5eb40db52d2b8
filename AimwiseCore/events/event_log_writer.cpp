#include "AimwiseCore/events/event_log_writer.h"

#include <unistd.h>

#include <cstdlib>

#include "AimwiseCore/events/file_io.h"
#include "CaptureShared/dataroot/data_root_presence.h"

namespace aimwise {

namespace {

std::string describeAppend(EventLogWriterError::Kind kind, int error, int64_t expected, int64_t actual,
                           const std::filesystem::path& root) {
    using Kind = EventLogWriterError::Kind;
    switch (kind) {
        case Kind::dataRootEmpty: return DataRootPresence::emptyRootSentence(root);
        case Kind::openFailed: return "could not open file for append: errno " + std::to_string(error);
        case Kind::shortWrite:
            return "short write: expected " + std::to_string(expected) + " bytes, wrote " + std::to_string(actual);
        case Kind::encodingFailed: return "could not encode row as JSON";
    }
    return "";
}

}  // namespace

EventLogWriterError::EventLogWriterError(Kind kind, int error, int64_t expected, int64_t actual)
    : Error(describeAppend(kind, error, expected, actual, {})),
      kind(kind),
      error(error),
      expected(expected),
      actual(actual) {}

EventLogWriterError EventLogWriterError::dataRootEmpty(const std::filesystem::path& root) {
    EventLogWriterError error{Kind::dataRootEmpty};
    error.setDescription(describeAppend(Kind::dataRootEmpty, 0, 0, 0, root));
    return error;
}

namespace EventLogWriter {

const std::string& defaultBuildVersion() {
    static const std::string version = [] {
        const char* value = std::getenv("AIMCAP_BUILD_VERSION");
        return std::string(value ? value : "dev");
    }();
    return version;
}

JSONValue withProducerStamp(const JSONValue& detail, const std::string& processName,
                            const std::string& buildVersion, int64_t pid) {
    JSONValue::Object stamped = detail.objectValue().value_or(JSONValue::Object{});
    stamped["_producer"] = JSONValue::Object{
        {"process", processName}, {"version", buildVersion}, {"pid", static_cast<double>(pid)}};
    return stamped;
}

void append(const EventLogEvent& event, const std::filesystem::path& to, const std::string& processName,
            const std::string& buildVersion) {
    const EventLogEvent stamped{event.tsMs, event.kind, event.type,
                                withProducerStamp(event.detail, processName, buildVersion, ::getpid()), event.source};
    std::string line;
    try {
        line = stamped.encoded();
    } catch (const JSONValueError&) {
        throw EventLogWriterError{EventLogWriterError::Kind::encodingFailed};
    }
    // The log lives in <data root>/io-layer. Its folder is made only in a root that holds some of
    // this system's files, never in an unmounted disk's empty mount point.
    std::error_code ignored;
    if (!std::filesystem::exists(to.parent_path(), ignored) &&
        !DataRootPresence::holdsSystemFiles(to.parent_path().parent_path()))
        throw EventLogWriterError::dataRootEmpty(to.parent_path().parent_path());
    events_io::createDirectories(to.parent_path(), 0700);
    line.push_back('\n');
    events_io::appendLine(to, line);
}

void append(const std::vector<EventLogEvent>& events, const std::filesystem::path& to,
            const std::string& processName, const std::string& buildVersion) {
    for (const auto& event : events) append(event, to, processName, buildVersion);
}

}  // namespace EventLogWriter

}  // namespace aimwise
