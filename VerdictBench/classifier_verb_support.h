#pragma once
// What `judge`, `prompt` and `tick` share: their inputs from the data root.
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/classifier/classifier_service.h"
#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/models/http_session.h"
#include "CaptureShared/signals/signals_reader.h"

namespace aimwise::cli {

// The whole event log when the file exists and can be read; nothing otherwise, which is no error.
std::optional<std::vector<EventLogEvent>> readEventLogIfPresent(const std::filesystem::path& eventsPath);

// The state at `asOfMs` (now when absent). Throws what building it throws, or a Failure:
// "no tick data available at " and the timestamp text (or "now").
ClassifierState buildState(const SignalsReader& signals, const std::optional<std::vector<EventLogEvent>>& events,
                           const std::filesystem::path& signalsPath, std::optional<int64_t> asOfMs,
                           const std::optional<std::string>& asOfArgument, LazyHTTPSession& session);

// Titles as every record and terminal shows them: cleaned of identifiers. The capture agent stores
// them cleaned already; rows from before it did still hold them as they were.
ClassifierState withTitlesCleaned(ClassifierState state);

// The front window's content for a live judgment, or why it was withheld.
struct LiveWindowContent {
    std::optional<ContentWithheldReason> withheld;
    // Present when a capture came back.
    std::optional<std::string> content;
    RedactionReport redactions;
    std::string description;
    int64_t ocrChars = 0;
    std::optional<int64_t> screenshotAtMs;
    // "accessibility", "ocr" or "none", for the describe log.
    std::string textSource = "none";
};
// Never fails: whatever goes wrong is said on standard error, and the judgment runs without content.
LiveWindowContent captureLiveWindowContent(const SignalsReader& signals, HTTPSession& session);

// Each privacy log line of the outcome on standard error.
void logPrivacy(const ClassifierService::Outcome& outcome);

}  // namespace aimwise::cli
