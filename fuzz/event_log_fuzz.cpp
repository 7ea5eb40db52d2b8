// The event log as its readers meet it: whole, grown with torn last lines, and folded into what the
// coach and its driver keep.
#include <algorithm>

#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/events/incremental_jsonl_reader.h"
#include "AimwiseCore/events/retained_coach_events.h"
#include "AimwiseCore/events/retained_driver_log.h"
#include "fuzz/fuzz_support.h"

using namespace aimwise;
using fuzzing::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const std::string_view data = fuzzing::text(bytes, size);
    const auto byTime = [](const EventLogEvent& a, const EventLogEvent& b) { return a.tsMs < b.tsMs; };

    const auto whole = EventLogReader::parse(data);
    require(std::is_sorted(whole.begin(), whole.end(), byTime), "the reader sorts events by time");
    for (const auto& event : whole) require(EventLogEvent::decode(event.encoded()) == event, "an event reads back as written");
    forEachLine(data, [](std::string_view line) {
        if (const auto value = JSONValue::tryParse(line))
            require(JSONValue::tryParse(value->serialized()) == value, "JSON text reads back as written");
    });

    const auto log = fuzzing::scratch() / "events.jsonl";
    fuzzing::writeFile(log, "");
    auto reader = IncrementalJSONLReaders::events(log);
    RetainedCoachEvents coach;
    RetainedDriverLog driver(log, fuzzing::scratch() / "absent.jsonl", [](const std::string&) {});
    const auto rows = fuzzing::readGrowing(log, data, reader, [&](IncrementalReadResult<EventLogEvent> result) {
        coach.apply(std::move(result));
        require(std::holds_alternative<RetainedDriverLog::Ready>(driver.refresh()), "a readable log is ready");
    });

    auto complete = fuzzing::completeRows<EventLogEvent>(data, EventLogEvent::decode);
    require(rows == complete, "a growing log yields each complete line once, in order");
    require(coach.events() == RetainedCoachEvents::retained(complete), "the coach keeps what a whole read keeps");
    std::stable_sort(complete.begin(), complete.end(), byTime);
    require(std::get<RetainedDriverLog::Ready>(driver.refresh()).events == complete, "the driver holds every complete line");
    auto full = reader.readFull();
    std::stable_sort(full.begin(), full.end(), byTime);
    require(full == whole, "a full read takes the last line too");
    return 0;
}
