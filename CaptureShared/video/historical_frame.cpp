#include "CaptureShared/video/historical_frame.h"

#include <algorithm>
#include <exception>
#include <thread>

#include "CaptureShared/ramp/frame_locator.h"
#include "CaptureShared/video/ffmpeg_child.h"
#include "CaptureShared/video/video_container_bridge.h"

namespace aimwise::HistoricalFrame {

namespace {

uint32_t bigEndian(const std::string& bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<uint8_t>(bytes[at + i]);
    return value;
}

}  // namespace

Result nearest(const std::filesystem::path& videoRoot, const Request& request, const VideoArchiveKeyLookup& keys,
               const Environment& environment) {
    const auto sidecar = videoRoot / ("display-" + std::to_string(request.display)) / "frame_timestamps.csv";
    const auto found = FrameLocator::sidecarWindow(sidecar, request.atMs, request.atMs, request.toleranceMs)
                           .locate(request.atMs, request.toleranceMs);
    if (std::holds_alternative<FrameLocator::NoFrameNear>(found)) return NoFrameNear{};
    if (std::holds_alternative<FrameLocator::MomentTooOld>(found)) return UnsupportedEra{};
    const auto& frame = std::get<FrameLocator::Located>(found);

    const auto& area = frame.area;
    PixelRect shown{area.x, area.y, area.width, area.height};
    if (request.crop) {
        const PixelRect& c = *request.crop;
        const int left = std::max(c.x, area.x), top = std::max(c.y, area.y);
        const int right = std::min(c.x + c.width, area.x + area.width), bottom = std::min(c.y + c.height, area.y + area.height);
        if (right <= left || bottom <= top)
            return ExtractionFailed{"the requested part of the screen lies outside the recorded area"};
        shown = {left, top, right - left, bottom - top};
    }
    std::string filter = "select=eq(n\\," + std::to_string(frame.frameIndex) + ")";
    if (shown != PixelRect{area.x, area.y, area.width, area.height})
        filter += ",crop=" + std::to_string(shown.width) + ":" + std::to_string(shown.height) + ":" +
                  std::to_string(shown.x - area.x) + ":" + std::to_string(shown.y - area.y);

    Image image{.sourceRealMs = frame.sourceRealMs, .screenArea = shown};
    try {
        FfmpegChild decoder(VideoContainerBridge::ffmpegPath(environment),
                            {"-hide_banner", "-nostats", "-loglevel", "error", "-i", "pipe:0", "-an", "-vf", filter,
                             "-frames:v", "1", "-f", "image2pipe", "-c:v", "png", "pipe:1"},
                            true);
        std::exception_ptr pumpError;
        std::thread pump([&] {
            try {
                VideoContainerBridge::pumpPlaintext(frame.file, keys, decoder.input());
            } catch (...) {
                pumpError = std::current_exception();
            }
            decoder.closeInput();
        });
        char buffer[65536];
        ptrdiff_t count;
        while ((count = readFully(decoder.output(), buffer, sizeof buffer)) > 0) image.png.append(buffer, count);
        pump.join();
        const bool exited = decoder.wait();
        if (pumpError) std::rethrow_exception(pumpError);
        if (!exited || image.png.size() < 24 || image.png.compare(1, 3, "PNG") != 0)
            return ExtractionFailed{"ffmpeg gave no image of frame " + std::to_string(frame.frameIndex) + " of " +
                                    frame.file.filename().string() + ": " + decoder.failureDetail()};
    } catch (const Error& error) {
        return ExtractionFailed{error.description()};
    } catch (const std::system_error& error) {
        return ExtractionFailed{std::string("couldn't launch ffmpeg: ") + error.what()};
    }
    image.widthPx = static_cast<int>(bigEndian(image.png, 16));
    image.heightPx = static_cast<int>(bigEndian(image.png, 20));
    return image;
}

}  // namespace aimwise::HistoricalFrame
