#include "AimwiseCore/classifier/historical_window_content.h"

#include <algorithm>

#include "AimwiseCore/classifier/window_content.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/signals/signals_reader.h"
#include "platform/vision_text_recognizer.h"

namespace aimwise {

namespace {

// Until the recording is readable here, no instant has a frame.
class UnrecordedArchive final : public FrameArchive {
public:
    Lookup nearest(int, int64_t, int64_t) const override { return NoFrameNear{}; }
    void writeCrop(int, const Located&, const ScreenRect&, const std::filesystem::path&, double) const override {
        throw FrameArchiveError("no recording is readable in this data root");
    }
};

}  // namespace

std::unique_ptr<FrameArchive> FrameArchive::forDataRoot(const std::filesystem::path&) {
    return std::make_unique<UnrecordedArchive>();
}

namespace HistoricalWindowContent {

Outcome reconstructDetailed(const SignalsReader& signals, int64_t tsMs, const std::string& ownerName, int display,
                            const Config& config, const FrameArchive& archive, const Clock& clock) {
    const int64_t startedMs = clock.monotonicMs();
    const auto window = signals.contentWindow(tsMs, ownerName);
    if (!window || window->width <= 0 || window->height <= 0)
        return Blind{Failure::noRecordedWindowBounds, "no window of " + ownerName + " was recorded at that tick"};

    const FrameArchive::Lookup lookup = archive.nearest(display, tsMs, config.searchLimitMs);
    if (std::holds_alternative<FrameArchive::NoFrameNear>(lookup))
        return Blind{Failure::noSidecarFrameNearby, "no recorded frame within the search limit"};
    if (std::holds_alternative<FrameArchive::PredatesSidecar>(lookup))
        return Blind{Failure::unsupportedEra, "the moment predates the frame-index sidecar columns"};
    const auto& frame = std::get<FrameArchive::Located>(lookup);

    const auto remainingSec = [&] {
        return std::max(0.0, config.timeoutSec - static_cast<double>(clock.monotonicMs() - startedMs) / 1000.0);
    };
    try {
        // The same private, self-removing file as a live screenshot.
        const auto image = WindowContentReader::Screenshot::reserve(frame.frameAtMs);
        archive.writeCrop(display, frame, ScreenRect{window->x, window->y, window->width, window->height},
                          image.path(), remainingSec());
        const auto result = VisionTextRecognizer::recognizeText(image.path(), remainingSec());
        if (const auto* failed = std::get_if<VisionTextRecognizer::Failed>(&result))
            return Blind{Failure::extractionFailed, failed->reason};
        const std::string& text = std::get<VisionTextRecognizer::Read>(result).text;
        if (trimWhitespaceAndNewlines(text).empty())
            return Blind{Failure::extractionFailed, "no text was recognised on the frame"};
        return Sighted{text, frame.frameAtMs};
    } catch (const WindowContentReader::CaptureError& error) {
        return Blind{Failure::extractionFailed, error.description()};
    } catch (const FrameArchiveError& error) {
        return Blind{Failure::extractionFailed, error.description()};
    }
}

}  // namespace HistoricalWindowContent
}  // namespace aimwise
