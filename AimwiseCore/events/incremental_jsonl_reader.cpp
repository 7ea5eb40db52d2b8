#include "AimwiseCore/events/incremental_jsonl_reader.h"

#include <sys/stat.h>

#include <cerrno>
#include <system_error>

namespace aimwise {

namespace incremental_detail {

std::pair<std::string, events_io::FileAttributes> readWhole(const std::filesystem::path& path) {
    const auto fail = [&](const char* what) {
        throw std::filesystem::filesystem_error(what, path, std::error_code(errno, std::generic_category()));
    };
    const auto fd = events_io::openForReading(path);
    if (!fd) fail("could not open");
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0) fail("could not read the attributes of");
    const auto attributes = events_io::attributesOf(info);
    std::string data;
    if (!events_io::readAt(fd.get(), 0, attributes.size, data)) fail("could not read");
    return {std::move(data), attributes};
}

std::optional<std::string> readRange(const std::filesystem::path& path, int64_t from, int64_t to) {
    const auto fd = events_io::openForReading(path);
    if (!fd) return std::nullopt;
    std::string data;
    if (!events_io::readAt(fd.get(), from, to - from, data)) return std::nullopt;
    return data;
}

}  // namespace incremental_detail

namespace IncrementalJSONLReaders {

IncrementalJSONLReader<EventLogEvent> events(const std::filesystem::path& at) {
    return IncrementalJSONLReader<EventLogEvent>(at, EventLogEvent::decode, 200);
}

IncrementalJSONLReader<ClassifierTick> classifierTicks(const std::filesystem::path& at) {
    return IncrementalJSONLReader<ClassifierTick>(at, ClassifierTick::decode, 500);
}

}  // namespace IncrementalJSONLReaders

}  // namespace aimwise
