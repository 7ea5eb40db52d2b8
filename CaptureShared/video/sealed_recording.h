#pragma once
// How a recorder's output becomes sealed files: ffmpeg encodes to a pipe, and what it writes is
// sealed as it arrives, with a chunk sealed early when the stream is slow, so a crash loses seconds.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "CaptureShared/common/clock.h"
#include "CaptureShared/video/video_stream_encryptor.h"

namespace aimwise::SealedRecording {

// Encoder options after ffmpeg's input: cheap on CPU, no frame held back, a keyframe every ten
// frames, MPEG-TS so that every frame written before a crash still decodes.
std::vector<std::string> encoderArguments();

// Seals everything read from `fd` until its end, sealing a short chunk whenever `flushEveryMs` passed
// since the last one. Returns the bytes sealed. Throws VideoEncryptionError.
uint64_t sealFrom(int fd, VideoStreamEncryptor& encryptor, const Clock& clock, int64_t flushEveryMs);

// A recording of one of ffmpeg's test sources, sealed into `displayDirectory` as `fileName` with a
// sidecar row per frame, frames `1000 / fps` ms apart from `startMs`. For tests, benchmarks and demos.
struct Synthetic {
    std::string fileName = "recording.ts.sealed";
    int64_t startMs = 0;
    int frames = 60;
    double fps = 1.0;
    int width = 640, height = 360;
    std::string source = "testsrc";  // testsrc2 changes every pixel every frame
    std::string filter;              // applied to the source, e.g. "geq=lum='N':cb=128:cr=128"
};
// Throws VideoEncryptionError, or std::runtime_error when ffmpeg fails.
void writeSynthetic(const std::filesystem::path& displayDirectory, const Synthetic& recording,
                    const VideoArchiveKey& key, uint32_t generation, const std::string& ffmpeg);

}  // namespace aimwise::SealedRecording
