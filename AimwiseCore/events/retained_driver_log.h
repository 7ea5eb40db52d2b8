#pragma once
// The coach driver's in-memory copy of the event log and the classifier log, refreshed
// incrementally. After a failed read the rows held stay, so the coach goes on with what it last knew.
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "AimwiseCore/events/classifier_tick.h"
#include "AimwiseCore/events/delta_fold.h"
#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/events/incremental_jsonl_reader.h"

namespace aimwise {

using LogLine = std::function<void(const std::string&)>;

struct SkippedLineCounter {
    int64_t count = 0;
};

template <typename Row>
struct Feed {
    std::string name;  // the file's last path component, for log lines
    std::shared_ptr<SkippedLineCounter> skippedLines;
    IncrementalJSONLReader<Row> reader;
    DeltaFold<Row> fold;
    std::vector<Row> sorted;
    bool hasRead = false;
    bool invalidatedByFailure = false;

    // Decoding failures count into `skippedLines`.
    Feed(const std::filesystem::path& url, std::function<std::optional<Row>(std::string_view)> decode,
         int approximateBytesPerLine, std::function<bool(const Row&, const Row&)> isOrderedBefore);

    // Rethrows a failed read after clearing the watermark.
    void refresh(const LogLine& log);
    void dropEverything(const LogLine& log);
    void invalidate();
};

class RetainedDriverLog {
public:
    struct Ready {
        std::vector<EventLogEvent> events;
        std::vector<ClassifierTick> ticks;
    };
    struct EventsUnreadable {
        std::exception_ptr error;
    };
    struct TicksUnreadable {
        std::exception_ptr error;
    };
    using Outcome = std::variant<Ready, EventsUnreadable, TicksUnreadable>;

    RetainedDriverLog(const std::filesystem::path& eventsURL, const std::filesystem::path& ticksURL, LogLine log);

    // A missing event log is unreadable; a missing classifier log is a normal state with no ticks.
    Outcome refresh();
    void invalidate();

    const Feed<EventLogEvent>& events() const { return events_; }
    const Feed<ClassifierTick>& ticks() const { return ticks_; }

private:
    Feed<EventLogEvent> events_;
    Feed<ClassifierTick> ticks_;
    std::filesystem::path ticksURL_;
    LogLine log_;
};

}  // namespace aimwise
