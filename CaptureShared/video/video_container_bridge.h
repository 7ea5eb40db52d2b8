#pragma once
// From the sealed archive to something a person can play: recorded frames are decrypted in memory
// and fed to ffmpeg through pipes. The only plaintext that reaches the disk is the clip asked for.
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "CaptureShared/common/environment.h"
#include "CaptureShared/common/error.h"
#include "CaptureShared/ramp/ramp_clip_plan.h"
#include "CaptureShared/video/video_archive_key.h"

namespace aimwise::VideoContainerBridge {

class BridgeError : public Error {
public:
    using Error::Error;
};

// The ffmpeg to run, or BridgeError ("couldn't launch ffmpeg: ...").
std::string ffmpegPath(const Environment& environment);

struct PumpResult {
    uint64_t chunks = 0;
    // The file ends inside a chunk (still being written, or cut by a crash); what came before was sent.
    bool cutShort = false;
};
// Decrypts `sealed` into `fd` chunk by chunk. Stops quietly when the reader of `fd` goes away or `stop`
// is set. Throws BridgeError: "No video file at", "video archive key unavailable: ", "Couldn't
// decrypt: " for a file that cannot be opened as sealed video, "decrypting video failed: " for a
// chunk that fails authentication.
PumpResult pumpPlaintext(const std::filesystem::path& sealed, const VideoArchiveKeyLookup& keys, int fd,
                         const std::atomic<bool>* stop = nullptr);
// The same into `sink`, which answers false to stop.
PumpResult pumpPlaintext(const std::filesystem::path& sealed, const VideoArchiveKeyLookup& keys,
                         const std::function<bool(std::string_view)>& sink);

struct ClipRequest {
    int width = 1280, height = 720;  // even; frames of another size are scaled into it
    std::string ffmpeg;
    // The encoder's speed: a clip is watched once, so a few more bytes are worth the seconds saved.
    std::string encoderPreset = "ultrafast";
};

struct Clip {
    int outputFrames = 0;
    // Planned frames the archive could not give (the newest seconds may not be sealed yet); they show
    // as gaps.
    int unreadableFrames = 0;
};

// Writes `plan` as an H.264 MP4 at `destination` (mode 0600), through a temporary name beside it.
Clip writeClip(const RampClipPlan::Plan& plan, const std::filesystem::path& destination, const ClipRequest& request,
               const VideoArchiveKeyLookup& keys);

}  // namespace aimwise::VideoContainerBridge
