#include "AimwiseCore/classifier/historical_window_content.h"

#include <algorithm>

#include "AimwiseCore/classifier/window_content.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/signals/signals_reader.h"
#include "platform/vision_text_recognizer.h"

namespace aimwise {

namespace {

// Until the recording is readable here, no instant has a frame.
class UnrecordedArchive final : public FrameArchive {
public:
    Frame frameNear(int, int64_t, int64_t, const ScreenRect&) const override { return NoFrameNear{}; }
    bool hasFrameNear(int, int64_t, int64_t) const override { return false; }
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

    const FrameArchive::Frame frame = archive.frameNear(
        display, tsMs, config.searchLimitMs, ScreenRect{window->x, window->y, window->width, window->height});
    if (std::holds_alternative<FrameArchive::NoFrameNear>(frame))
        return Blind{Failure::noSidecarFrameNearby, "no recorded frame within the search limit"};
    if (std::holds_alternative<FrameArchive::PredatesSidecar>(frame))
        return Blind{Failure::unsupportedEra, "the moment predates the frame-index sidecar columns"};
    if (const auto* failed = std::get_if<FrameArchive::Failed>(&frame))
        return Blind{Failure::extractionFailed, failed->reason};
    const auto& image = std::get<FrameArchive::Image>(frame);

    const double remainingSec =
        std::max(0.0, config.timeoutSec - static_cast<double>(clock.monotonicMs() - startedMs) / 1000.0);
    try {
        // The same private, self-removing file as a live screenshot; the helper reads images from files.
        const auto file = WindowContentReader::Screenshot::reserve(image.frameAtMs);
        writeFileAtomically(file.path(), image.png);
        const auto result = VisionTextRecognizer::recognizeText(file.path(), remainingSec);
        if (const auto* failed = std::get_if<VisionTextRecognizer::Failed>(&result))
            return Blind{Failure::extractionFailed, failed->reason};
        const std::string& text = std::get<VisionTextRecognizer::Read>(result).text;
        if (trimWhitespaceAndNewlines(text).empty())
            return Blind{Failure::extractionFailed, "no text was recognised on the frame"};
        return Sighted{text, image.frameAtMs};
    } catch (const WindowContentReader::CaptureError& error) {
        return Blind{Failure::extractionFailed, error.description()};
    } catch (const std::exception& error) {
        return Blind{Failure::extractionFailed, error.what()};
    }
}

}  // namespace HistoricalWindowContent
}  // namespace aimwise
