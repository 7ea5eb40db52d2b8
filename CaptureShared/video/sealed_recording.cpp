#include "CaptureShared/video/sealed_recording.h"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <stdexcept>

#include "CaptureShared/common/text.h"
#include "CaptureShared/video/ffmpeg_child.h"
#include "CaptureShared/video/frame_timestamps.h"
#include "CaptureShared/video/video_encryption_format.h"

namespace aimwise::SealedRecording {

std::vector<std::string> encoderArguments() {
    return {"-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-crf", "30", "-g", "10",
            "-pix_fmt", "yuv420p", "-f", "mpegts", "-flush_packets", "1", "pipe:1"};
}

uint64_t sealFrom(int fd, VideoStreamEncryptor& encryptor, const Clock& clock, int64_t flushEveryMs) {
    std::string buffer(1 << 16, '\0');
    uint64_t total = 0;
    int64_t lastFlushMs = clock.monotonicMs();
    while (true) {
        const ssize_t count = ::read(fd, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        encryptor.write(std::string_view(buffer.data(), static_cast<size_t>(count)));
        total += static_cast<uint64_t>(count);
        if (clock.monotonicMs() - lastFlushMs >= flushEveryMs) {
            encryptor.flush();
            lastFlushMs = clock.monotonicMs();
        }
    }
    return total;
}

void writeSynthetic(const std::filesystem::path& displayDirectory, const Synthetic& recording,
                    const VideoArchiveKey& key, uint32_t generation, const std::string& ffmpeg) {
    std::filesystem::create_directories(displayDirectory);
    const std::string size = std::to_string(recording.width) + "x" + std::to_string(recording.height);
    std::vector<std::string> arguments{"-hide_banner", "-nostats", "-loglevel", "error", "-f", "lavfi", "-i",
                                       recording.source + "=size=" + size + ":rate=" + shortestRoundTrip(recording.fps) +
                                           (recording.filter.empty() ? "" : "," + recording.filter),
                                       "-frames:v", std::to_string(recording.frames)};
    for (auto& argument : encoderArguments()) arguments.push_back(argument);
    FfmpegChild child(ffmpeg, arguments, true);
    child.closeInput();
    auto encryptor = VideoStreamEncryptor::create(displayDirectory / recording.fileName, key, generation);
    sealFrom(child.output(), *encryptor, Clock::system(), 1000);
    encryptor->close();
    if (!child.wait()) throw std::runtime_error("ffmpeg could not make a test recording: " + child.failureDetail());
    FrameTimestamps::Writer sidecar(displayDirectory / "frame_timestamps.csv");
    for (int i = 0; i < recording.frames; ++i)
        sidecar.append({.realMs = recording.startMs + static_cast<int64_t>(std::llround(i * 1000.0 / recording.fps)),
                        .file = recording.fileName,
                        .frameIndex = i,
                        .area = {0, 0, recording.width, recording.height}});
}

}  // namespace aimwise::SealedRecording
