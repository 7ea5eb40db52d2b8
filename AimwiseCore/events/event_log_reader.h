#pragma once
// Whole-file readers of the event log and the classifier log. A line that does not decode is
// skipped in silence; the retained feeds are the ones that count such lines.
#include <filesystem>
#include <string_view>
#include <vector>

#include "AimwiseCore/events/classifier_tick.h"
#include "AimwiseCore/events/event_log_event.h"

namespace aimwise {

// `read` takes the newest lines within ReadLimit::log, and only from a regular file.
namespace EventLogReader {
// Throws std::filesystem::filesystem_error when the file cannot be read.
std::vector<EventLogEvent> read(const std::filesystem::path& contentsOf);
// Sorted by tsMs, stably: equal times keep their file order.
std::vector<EventLogEvent> parse(std::string_view data);
}  // namespace EventLogReader

namespace ClassifierLogReader {
std::vector<ClassifierTick> read(const std::filesystem::path& contentsOf);
// Sorted by the text of `at` (byte order, not parsed time), stably.
std::vector<ClassifierTick> parse(std::string_view data);
}  // namespace ClassifierLogReader

// Calls `visit` with each non-empty line, the last one included even without its newline.
template <typename Visit>
void forEachLine(std::string_view data, Visit&& visit) {
    size_t start = 0;
    while (start < data.size()) {
        size_t end = data.find('\n', start);
        if (end == std::string_view::npos) end = data.size();
        if (end > start) visit(data.substr(start, end - start));
        start = end + 1;
    }
}

}  // namespace aimwise
