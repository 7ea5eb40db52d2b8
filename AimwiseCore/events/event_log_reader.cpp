#include "AimwiseCore/events/event_log_reader.h"

#include <algorithm>

#include "CaptureShared/common/atomic_file.h"

namespace aimwise {

namespace EventLogReader {

std::vector<EventLogEvent> read(const std::filesystem::path& contentsOf) {
    return parse(readFileTail(contentsOf, ReadLimit::log));
}

std::vector<EventLogEvent> parse(std::string_view data) {
    std::vector<EventLogEvent> events;
    events.reserve(data.size() / 200);
    forEachLine(data, [&](std::string_view line) {
        if (auto event = EventLogEvent::decode(line)) events.push_back(std::move(*event));
    });
    std::stable_sort(events.begin(), events.end(),
                     [](const EventLogEvent& a, const EventLogEvent& b) { return a.tsMs < b.tsMs; });
    return events;
}

}  // namespace EventLogReader

namespace ClassifierLogReader {

std::vector<ClassifierTick> read(const std::filesystem::path& contentsOf) {
    return parse(readFileTail(contentsOf, ReadLimit::log));
}

std::vector<ClassifierTick> parse(std::string_view data) {
    std::vector<ClassifierTick> ticks;
    ticks.reserve(data.size() / 500);
    forEachLine(data, [&](std::string_view line) {
        if (auto tick = ClassifierTick::decode(line)) ticks.push_back(std::move(*tick));
    });
    std::stable_sort(ticks.begin(), ticks.end(),
                     [](const ClassifierTick& a, const ClassifierTick& b) { return a.at < b.at; });
    return ticks;
}

}  // namespace ClassifierLogReader

}  // namespace aimwise
