#include "AimwiseCore/events/retained_driver_log.h"

namespace aimwise {

namespace {

template <typename Row>
std::function<std::optional<Row>(std::string_view)> counting(
    std::function<std::optional<Row>(std::string_view)> decode, std::shared_ptr<SkippedLineCounter> counter) {
    return [decode = std::move(decode), counter = std::move(counter)](std::string_view line) {
        auto row = decode(line);
        if (!row) ++counter->count;
        return row;
    };
}

}  // namespace

template <typename Row>
Feed<Row>::Feed(const std::filesystem::path& url, std::function<std::optional<Row>(std::string_view)> decode,
                int approximateBytesPerLine, std::function<bool(const Row&, const Row&)> isOrderedBefore)
    : name(url.filename().string()), skippedLines(std::make_shared<SkippedLineCounter>()),
      reader(url, counting(std::move(decode), skippedLines), approximateBytesPerLine),
      fold(std::move(isOrderedBefore)) {}

template <typename Row>
void Feed<Row>::refresh(const LogLine& log) {
    skippedLines->count = 0;
    IncrementalReadResult<Row> result;
    try {
        result = reader.read();
    } catch (...) {
        reader.clearWatermark();
        invalidatedByFailure = true;
        throw;
    }
    if (result.kind == IncrementalReadResult<Row>::Kind::appended) {
        if (!result.rows.empty()) {
            fold.apply(std::move(result));
            sorted = fold.sorted();
        }
    } else {
        if (hasRead) {
            const char* cause = invalidatedByFailure ? "after a failed read" : "the file was rotated, truncated or replaced";
            log(name + ": re-read in full -- " + cause + "; was holding " + std::to_string(fold.committed.size()) +
                " records, now " + std::to_string(result.rows.size()));
        }
        fold.apply(std::move(result));
        sorted = fold.sorted();
        hasRead = true;
        invalidatedByFailure = false;
    }
    if (skippedLines->count > 0)
        log(name + ": skipped " + std::to_string(skippedLines->count) +
            " complete line(s) that did not decode (same as the full reader; counted here so it is not silent)");
}

template <typename Row>
void Feed<Row>::dropEverything(const LogLine& log) {
    reader.clearWatermark();
    invalidatedByFailure = false;
    if (!fold.committed.empty())
        log(name + ": the file is gone -- dropped " + std::to_string(fold.committed.size()) + " retained records");
    fold.committed.clear();
    sorted.clear();
}

template <typename Row>
void Feed<Row>::invalidate() {
    reader.clearWatermark();
    fold.committed.clear();
    sorted.clear();
    hasRead = false;
    invalidatedByFailure = false;
}

template struct Feed<EventLogEvent>;
template struct Feed<ClassifierTick>;

RetainedDriverLog::RetainedDriverLog(const std::filesystem::path& eventsURL, const std::filesystem::path& ticksURL,
                                     LogLine log)
    : events_(eventsURL, EventLogEvent::decode, 200,
              [](const EventLogEvent& a, const EventLogEvent& b) { return a.tsMs < b.tsMs; }),
      ticks_(ticksURL, ClassifierTick::decode, 500,
             [](const ClassifierTick& a, const ClassifierTick& b) { return a.at < b.at; }),
      ticksURL_(ticksURL), log_(std::move(log)) {}

RetainedDriverLog::Outcome RetainedDriverLog::refresh() {
    try {
        events_.refresh(log_);
    } catch (...) {
        return EventsUnreadable{std::current_exception()};
    }
    try {
        ticks_.refresh(log_);
    } catch (...) {
        std::error_code ignored;
        if (std::filesystem::exists(ticksURL_, ignored)) return TicksUnreadable{std::current_exception()};
        ticks_.dropEverything(log_);
        return Ready{events_.sorted, {}};
    }
    return Ready{events_.sorted, ticks_.sorted};
}

void RetainedDriverLog::invalidate() {
    events_.invalidate();
    ticks_.invalidate();
}

}  // namespace aimwise
