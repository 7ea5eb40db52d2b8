#include "AimwiseCore/classifier/historical_window_content.h"

#include <algorithm>
#include <cmath>

#include "AimwiseCore/classifier/window_content.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/environment.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/ramp/frame_locator.h"
#include "CaptureShared/video/historical_frame.h"
#include "CaptureShared/signals/signals_reader.h"
#include "platform/key_store.h"
#include "platform/vision_text_recognizer.h"

namespace aimwise {

namespace {

// The sealed recording under `<dataRoot>/video`, keys from this platform's key store. The key store
// is opened on the first frame asked for, so a data root without recordings never creates one.
class RecordedArchive final : public FrameArchive {
public:
    explicit RecordedArchive(std::filesystem::path videoRoot) : videoRoot_(std::move(videoRoot)) {}

    Frame frameNear(int display, int64_t tsMs, int64_t searchLimitMs, const ScreenRect& crop) const override {
        const auto located = locate(display, tsMs, searchLimitMs);
        if (std::holds_alternative<FrameLocator::MomentTooOld>(located)) return PredatesSidecar{};
        if (!std::holds_alternative<FrameLocator::Located>(located)) return NoFrameNear{};
        if (!keys_) keys_ = defaultVideoArchiveKeyStore();
        HistoricalFrame::Request request{.atMs = tsMs, .display = display, .toleranceMs = searchLimitMs};
        if (crop.width > 0 && crop.height > 0)
            request.crop = HistoricalFrame::PixelRect{int(std::floor(crop.x)), int(std::floor(crop.y)),
                                                      int(std::ceil(crop.width)), int(std::ceil(crop.height))};
        const auto result = HistoricalFrame::nearest(videoRoot_, request, keys_->lookup(), processEnvironment());
        if (const auto* image = std::get_if<HistoricalFrame::Image>(&result))
            return Image{image->png, image->sourceRealMs};
        if (std::holds_alternative<HistoricalFrame::NoFrameNear>(result)) return NoFrameNear{};
        if (std::holds_alternative<HistoricalFrame::UnsupportedEra>(result)) return PredatesSidecar{};
        return Failed{std::get<HistoricalFrame::ExtractionFailed>(result).reason};
    }

    // Reads only the sidecar: nothing is decrypted or decoded.
    bool hasFrameNear(int display, int64_t tsMs, int64_t toleranceMs) const override {
        return std::holds_alternative<FrameLocator::Located>(locate(display, tsMs, toleranceMs));
    }

private:
    // A display that never recorded has no frame near anything, whatever the era.
    FrameLocator::LocateResult locate(int display, int64_t tsMs, int64_t toleranceMs) const {
        const auto sidecar = videoRoot_ / ("display-" + std::to_string(display)) / "frame_timestamps.csv";
        std::error_code error;
        if (!std::filesystem::is_regular_file(sidecar, error)) return FrameLocator::NoFrameNear{};
        return FrameLocator::sidecarWindow(sidecar, tsMs, tsMs, toleranceMs).locate(tsMs, toleranceMs);
    }

    std::filesystem::path videoRoot_;
    mutable std::unique_ptr<VideoArchiveKeyStore> keys_;
};

}  // namespace

std::unique_ptr<FrameArchive> FrameArchive::forDataRoot(const std::filesystem::path& dataRoot) {
    return std::make_unique<RecordedArchive>(dataRoot / "video");
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
