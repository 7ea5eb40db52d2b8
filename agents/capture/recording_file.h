#pragma once
// One sealed recording being written from ffmpeg's MPEG-TS output. Each frame is held in memory
// until a look at the screen taken after it was grabbed found nothing that must not be recorded;
// only then is it sealed and given its row in the display's frame_timestamps.csv. A frame that no
// clean look covers is dropped, so a window that stops recording never reaches the disk, not even
// in the frame grabbed just before the recorder noticed it.
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "CaptureShared/video/frame_timestamps.h"
#include "CaptureShared/video/transport_stream.h"
#include "CaptureShared/video/video_stream_encryptor.h"

namespace aimwise {

class RecordingFile {
public:
    // How long after a frame's own time, or after its bytes came, a look must be to clear it: the
    // grab lies between the two, give or take the clocks' reading.
    static constexpr int64_t clearanceMarginMs = 250;

    // Creates `directory/name`, refusing to replace a file, and appends to the directory's
    // frame_timestamps.csv. Throws VideoEncryptionError or std::system_error.
    RecordingFile(const std::filesystem::path& directory, const std::string& name, const VideoArchiveKey& key,
                  uint32_t generation, FrameTimestamps::CaptureArea area);

    // ffmpeg's bytes as they came, read at `arrivedMs` on the wall clock and `arrivedMonotonicMs`.
    // Frames carry ffmpeg's grab time (wall-clock timestamps kept through the muxer), which is what
    // their rows record. False once the bytes are not a transport stream.
    bool feed(std::string_view bytes, int64_t arrivedMs, int64_t arrivedMonotonicMs);
    // Seals the held frames a clean look begun at `lookMonotonicMs` clears, oldest first; the caller
    // vouches that every look since this file began was clean. Returns how many. Throws what sealing
    // and the sidecar throw.
    int clearThrough(int64_t lookMonotonicMs);
    // Drops every held frame: a look was not clean. Returns how many.
    int discardHeld();
    // Seals what was cleared and closes the file; held frames are dropped.
    void close();

    const std::filesystem::path& path() const { return path_; }
    int64_t framesWritten() const { return framesWritten_; }
    size_t framesHeld() const { return held_.size(); }
    std::optional<int64_t> lastFrameMs() const { return lastFrameMs_; }

    // The wall-clock time of a 33-bit, 90 kHz timestamp, taken as the one nearest `nearMs`.
    static int64_t unwrapPresentationTime(int64_t ticks, int64_t nearMs);

private:
    struct HeldFrame {
        std::string bytes;
        int64_t grabbedMs = 0;
        int64_t clearAfterMonotonicMs = 0;
    };

    std::filesystem::path path_;
    std::unique_ptr<VideoStreamEncryptor> encryptor_;
    FrameTimestamps::Writer sidecar_;
    FrameTimestamps::CaptureArea area_;
    TransportStream::PacketReader reader_;
    std::string beforeFirstFrame_;
    std::deque<HeldFrame> held_;
    int64_t framesWritten_ = 0;
    std::optional<int64_t> lastFrameMs_;
    bool broken_ = false;
};

}  // namespace aimwise
