#include "AimwiseCore/events/event_log_writer.h"

#include <unistd.h>

#include <cstdlib>

#include "AimwiseCore/events/file_io.h"

namespace aimwise {

namespace {

std::string describeAppend(EventLogWriterError::Kind kind, int error, int64_t expected, int64_t actual) {
    using Kind = EventLogWriterError::Kind;
    switch (kind) {
        case Kind::openFailed: return "could not open file for append: errno " + std::to_string(error);
        case Kind::shortWrite:
            return "short write: expected " + std::to_string(expected) + " bytes, wrote " + std::to_string(actual);
        case Kind::encodingFailed: return "could not encode row as JSON";
    }
    return "";
}

}  // namespace

EventLogWriterError::EventLogWriterError(Kind kind, int error, int64_t expected, int64_t actual)
    : Error(describeAppend(kind, error, expected, actual)),
      kind(kind),
      error(error),
      expected(expected),
      actual(actual) {}

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
    events_io::createDirectories(to.parent_path(), 0700);
    line.push_back('\n');
    const auto result = events_io::appendOnce(to, line, 0600);
    switch (result.failure) {
        case events_io::AppendFailure::none: return;
        case events_io::AppendFailure::openFailed:
            throw EventLogWriterError{EventLogWriterError::Kind::openFailed, result.error};
        case events_io::AppendFailure::shortWrite:
            throw EventLogWriterError{EventLogWriterError::Kind::shortWrite, result.error,
                                      static_cast<int64_t>(line.size()), result.written};
    }
}

void append(const std::vector<EventLogEvent>& events, const std::filesystem::path& to,
            const std::string& processName, const std::string& buildVersion) {
    for (const auto& event : events) append(event, to, processName, buildVersion);
}

}  // namespace EventLogWriter

}  // namespace aimwise
