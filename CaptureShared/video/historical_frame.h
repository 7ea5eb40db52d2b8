#pragma once
// The recorded frame nearest an instant, as a PNG image held in memory, so that replay can read a
// window as it looked when it was judged. Nothing decrypted is written to disk.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>

#include "CaptureShared/common/environment.h"
#include "CaptureShared/video/video_archive_key.h"

namespace aimwise::HistoricalFrame {

// In screen coordinates (X11 root-window pixels), origin at the top left.
struct PixelRect {
    int x = 0, y = 0, width = 0, height = 0;
    bool operator==(const PixelRect&) const = default;
};

struct Request {
    int64_t atMs = 0;
    int display = 1;  // the recording under video/display-<display>
    // How far from `atMs` the frame may have been recorded.
    int64_t toleranceMs = 2000;
    // The part of the screen to keep, e.g. a window's bounds; cut to the recorded area.
    std::optional<PixelRect> crop;
};

struct Image {
    std::string png;
    int widthPx = 0, heightPx = 0;
    int64_t sourceRealMs = 0;  // when the frame was recorded
    PixelRect screenArea;      // the part of the screen the image shows
};
// No frame within the tolerance: recording was off, paused or withheld then.
struct NoFrameNear {};
// The moment predates the sidecars that index frames, so no frame can be found for it.
struct UnsupportedEra {};
// The archive, its key or ffmpeg failed, or the crop lies outside the recorded area. For a log.
struct ExtractionFailed {
    std::string reason;
};
using Result = std::variant<Image, NoFrameNear, UnsupportedEra, ExtractionFailed>;

// `videoRoot` is DataPaths::videoDir(). `keys` usually comes from the key store
// (platform/key_store.h, VideoArchiveKeyStore::lookup). `environment` may name ffmpeg in AIMCAP_FFMPEG.
Result nearest(const std::filesystem::path& videoRoot, const Request& request, const VideoArchiveKeyLookup& keys,
               const Environment& environment);

}  // namespace aimwise::HistoricalFrame
