// The classifier log as its readers meet it: whole, and grown with torn last lines.
#include <algorithm>

#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/events/incremental_jsonl_reader.h"
#include "AimwiseCore/events/retained_driver_log.h"
#include "fuzz/fuzz_support.h"

using namespace aimwise;
using fuzzing::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const std::string_view data = fuzzing::text(bytes, size);
    const auto byAt = [](const ClassifierTick& a, const ClassifierTick& b) { return a.at < b.at; };

    const auto whole = ClassifierLogReader::parse(data);
    require(std::is_sorted(whole.begin(), whole.end(), byAt), "the reader sorts verdicts by time text");
    for (const auto& tick : whole) {
        require(ClassifierTick::decode(tick.encoded()) == tick, "a verdict reads back as written");
        if (const auto frame = tick.frameInstant()) (void)frame->disclosure(tick.atMs());
    }

    const auto events = fuzzing::scratch() / "events.jsonl", log = fuzzing::scratch() / "checker-log.jsonl";
    fuzzing::writeFile(events, "");
    fuzzing::writeFile(log, "");
    auto reader = IncrementalJSONLReaders::classifierTicks(log);
    RetainedDriverLog driver(events, log, [](const std::string&) {});
    const auto rows = fuzzing::readGrowing(log, data, reader, [&](auto) {
        require(std::holds_alternative<RetainedDriverLog::Ready>(driver.refresh()), "readable logs are ready");
    });

    auto complete = fuzzing::completeRows<ClassifierTick>(data, ClassifierTick::decode);
    require(rows == complete, "a growing log yields each complete line once, in order");
    std::stable_sort(complete.begin(), complete.end(), byAt);
    require(std::get<RetainedDriverLog::Ready>(driver.refresh()).ticks == complete, "the driver holds every complete line");
    auto full = reader.readFull();
    std::stable_sort(full.begin(), full.end(), byAt);
    require(full == whole, "a full read takes the last line too");
    DateParseMemo::shared().clear();  // so that remembered times are not taken for a leak
    return 0;
}
