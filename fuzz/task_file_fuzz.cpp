// The declared task as the capture agent reads it from the end of the event log. The agent starts
// reading a third of the way in, maybe at a torn line; the log answered read by read as it grows
// must then answer as the same log read afresh, wherever it ends in a newline. An input of odd
// length follows a first line long enough that its lines straddle the reader's window (scanning
// that line is slow, hence not always).
#include <optional>
#include <utility>

#include "AimwiseCore/events/event_log.h"
#include "fuzz/fuzz_support.h"

using namespace aimwise;
using fuzzing::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const std::string_view data = fuzzing::text(bytes, size), head = data.substr(0, size / 3);
    static const std::string longLine = "{\"pad\":\"" + std::string(EventLog::windowBytes - 111, '.') + "\"}\n";
    const std::string_view first = size % 2 ? std::string_view(longLine) : std::string_view();
    const auto log = fuzzing::scratch() / "events.jsonl";
    const auto start = [&](size_t length) {
        EventLog::resetForTesting();
        fuzzing::writeFile(log, first);
        fuzzing::writeFile(log, data.substr(0, length), true);
    };

    start(head.size());
    std::vector<std::pair<size_t, std::optional<std::string>>> answers;
    fuzzing::grow(log, data.substr(head.size()), [&](size_t grown) {
        auto answer = EventLog::read(log);
        const size_t length = head.size() + grown;
        if (length == 0 || data[length - 1] == '\n') answers.emplace_back(length, std::move(answer));
    });
    for (const auto& [length, answer] : answers) {
        start(length);
        require(EventLog::read(log) == answer, "a log read as it grew answers as the log read whole");
    }
    EventLog::resetForTesting();  // so that the cache left behind is not taken for a leak
    return 0;
}
