#pragma once
// What the front window showed at a past instant, read again from the screen recording: the frame
// nearest the instant, cut to the window's recorded bounds, through the same text recognition as a
// live judgment. Replay uses it so that a scored point sees what the classifier would have seen.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <variant>

#include "CaptureShared/common/clock.h"
#include "platform/screen_rect.h"

namespace aimwise {

class SignalsReader;

// The recorded screen of each display, frame by frame.
class FrameArchive {
public:
    struct Image {
        std::string png;
        int64_t frameAtMs = 0;  // when the frame was recorded
    };
    struct NoFrameNear {};
    // Older than the sidecar columns that tie frames to times: no frame can be found for it.
    struct PredatesSidecar {};
    // The archive, its key or the decoder failed, or the rectangle lies outside the recording.
    struct Failed {
        std::string reason;
    };
    using Frame = std::variant<Image, NoFrameNear, PredatesSidecar, Failed>;

    virtual ~FrameArchive() = default;
    // The frame nearest `tsMs`, at most `searchLimitMs` away, cut to `crop` in screen points.
    virtual Frame frameNear(int display, int64_t tsMs, int64_t searchLimitMs, const ScreenRect& crop) const = 0;
    // Only whether there is one: no decoding.
    virtual bool hasFrameNear(int display, int64_t tsMs, int64_t toleranceMs) const = 0;

    // The recording kept in the data root.
    static std::unique_ptr<FrameArchive> forDataRoot(const std::filesystem::path& dataRoot);
};

namespace HistoricalWindowContent {

// The display whose recording holds the front window.
inline constexpr int primaryDisplay = 1;

enum class Failure { noRecordedWindowBounds, noSidecarFrameNearby, unsupportedEra, extractionFailed };

struct Config {
    int64_t searchLimitMs = 1'800'000;
    double timeoutSec = 60.0;
};

struct Sighted {
    std::string ocrText;
    int64_t frameAtMs = 0;
};
struct Blind {
    Failure failure;
    std::string detail;
};
using Outcome = std::variant<Sighted, Blind>;

// Throws SignalsReaderError; every other problem is a Blind outcome.
Outcome reconstructDetailed(const SignalsReader& signals, int64_t tsMs, const std::string& ownerName, int display,
                            const Config& config, const FrameArchive& archive, const Clock& clock = Clock::system());

}  // namespace HistoricalWindowContent
}  // namespace aimwise
