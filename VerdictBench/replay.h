#pragma once
// `replay`: how often the classifier, asked again about moments a person labelled by hand, agrees
// with that person. Accuracy never stands alone: it comes with its interval, recall per class, how
// many points the model really saw screen text for, and optionally a paired second model.
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "AimwiseCore/classifier/classifier_backend.h"
#include "AimwiseCore/classifier/classifier_state.h"
#include "AimwiseCore/classifier/historical_window_content.h"
#include "AimwiseCore/classifier/labeled_points.h"
#include "AimwiseCore/events/event_log_event.h"
#include "CaptureShared/signals/signals_reader.h"

namespace aimwise::Replay {

inline constexpr const char* usageText = "usage: VerdictBench replay <n> [offset] [--paired-fm] [--settled]";

enum class Visibility {
    sighted,
    notAttempted,  // locked or away: there was nothing to read
    noRecordedWindowBounds,
    noSidecarFrameNearby,
    unsupportedEra,
    extractionFailed,
};

// A point made ready for judgment, with no model call.
struct Prepared {
    int64_t midpointMs = 0;
    ClassifierState state;
    std::optional<std::string> windowContent;
    Visibility visibility = Visibility::notAttempted;
};
struct NoTick {
    int64_t midpointMs = 0;
};

struct Sources {
    const SignalsReader& signals;
    const std::vector<EventLogEvent>* events;
    std::filesystem::path signalsPath;
    const FrameArchive& archive;
};

// The state as of the span's midpoint and the window content read back from the recording.
// Throws SignalsReaderError, and what the estimate extractor behind buildState throws.
std::variant<Prepared, NoTick> prepare(const LabeledPoints::LabeledPoint& point, const Sources& sources,
                                       LazyHTTPSession& session);

// The whole verb; returns the exit status or ends the process through cli::fail.
int run(const std::optional<std::string>& nArgument, const std::optional<std::string>& offsetArgument,
        bool fmPairedArmEnabled, bool preferBlind);

}  // namespace aimwise::Replay
