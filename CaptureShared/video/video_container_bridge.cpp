#include "CaptureShared/video/video_container_bridge.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <map>
#include <set>
#include <system_error>
#include <thread>

#include "CaptureShared/common/text.h"
#include "CaptureShared/video/ffmpeg_child.h"
#include "CaptureShared/video/transport_stream.h"
#include "CaptureShared/video/video_encryption_format.h"
#include "CaptureShared/video/video_stream_decryptor.h"

namespace aimwise::VideoContainerBridge {

namespace fs = std::filesystem;
using Kind = VideoEncryptionError::Kind;

namespace {

const char* const containerFailure = "ffmpeg couldn't turn the decrypted frames into a playable container: ";

std::unique_ptr<FfmpegChild> launch(const std::string& ffmpeg, const std::vector<std::string>& arguments, bool pipeOutput) {
    try {
        return std::make_unique<FfmpegChild>(ffmpeg, arguments, pipeOutput);
    } catch (const std::system_error& error) {
        throw BridgeError("couldn't launch ffmpeg: " + std::string(error.what()));
    }
}

// Removes a partly written clip unless it was published: decrypted video must not be left behind.
struct RemoveUnlessKept {
    fs::path path;
    bool keep = false;
    ~RemoveUnlessKept() {
        std::error_code ignored;
        if (!keep) fs::remove(path, ignored);
    }
};

class Encoder {
public:
    Encoder(const ClipRequest& request, double fps, const fs::path& output)
        : frameBytes_(size_t(request.width) * request.height * 3 / 2),
          child_(launch(request.ffmpeg,
                        {"-hide_banner", "-nostats", "-loglevel", "error", "-f", "rawvideo", "-pix_fmt", "yuv420p",
                         "-s", std::to_string(request.width) + "x" + std::to_string(request.height), "-framerate",
                         shortestRoundTrip(fps), "-i", "pipe:0", "-c:v", "libx264", "-preset", request.encoderPreset,
                         "-crf", "23", "-pix_fmt", "yuv420p", "-movflags", "+faststart", "-f", "mp4", "-y",
                         output.string()},
                        false)) {}

    size_t frameBytes() const { return frameBytes_; }

    void emit(const std::string& frame, int times) {
        for (int i = 0; i < times; ++i, ++frames_)
            if (!writeFully(child_->input(), frame.data(), frame.size())) finishWithFailure();
    }
    // A dark grey frame where nothing was recorded.
    void emitGap(int times) {
        if (gap_.empty()) {
            gap_.assign(frameBytes_, char(128));
            std::memset(gap_.data(), 40, frameBytes_ * 2 / 3);
        }
        emit(gap_, times);
    }
    int finish() {
        child_->closeInput();
        if (!child_->wait()) throw BridgeError(containerFailure + child_->failureDetail());
        return frames_;
    }

private:
    [[noreturn]] void finishWithFailure() {
        child_->closeInput();
        child_->wait();
        throw BridgeError(containerFailure + child_->failureDetail());
    }

    size_t frameBytes_;
    std::unique_ptr<FfmpegChild> child_;
    std::string gap_;
    int frames_ = 0;
};

// Decodes the frames `holds` names (frame index to output frames) out of one sealed recording and
// passes each to the encoder. Returns how many of them the recording could not give. A transport
// stream is read twice: once, cheaply, for where its keyframes are, then to feed the decoder only the
// stretches that lead up to the wanted frames.
int decodeInto(Encoder& encoder, const fs::path& sealed, const std::map<int64_t, int>& holds, const ClipRequest& request,
               const VideoArchiveKeyLookup& keys) {
    const int64_t lastWanted = holds.rbegin()->first;
    TransportStream::Scanner scanner;
    pumpPlaintext(sealed, keys, [&](std::string_view bytes) {
        scanner.feed(bytes);
        return scanner.index().usable && scanner.index().frames <= lastWanted;
    });
    std::optional<TransportStream::GopFilter> filter;
    if (scanner.index().usable && !scanner.index().keyframes.empty()) {
        std::set<int64_t> wanted;
        for (const auto& entry : holds) wanted.insert(entry.first);
        filter.emplace(scanner.index(), wanted);
    }
    std::string select;
    for (const auto& [index, hold] : holds)
        select += (select.empty() ? "" : "+") +
                  ("eq(n\\," + std::to_string(filter ? filter->passedIndex(index) : index) + ")");
    const std::string w = std::to_string(request.width), h = std::to_string(request.height);
    auto decoder = launch(request.ffmpeg,
                          {"-hide_banner", "-nostats", "-loglevel", "error", "-i", "pipe:0", "-an", "-vf",
                           "select=" + select + ",scale=" + w + ":" + h + ":force_original_aspect_ratio=decrease,pad=" +
                               w + ":" + h + ":(ow-iw)/2:(oh-ih)/2,format=yuv420p",
                           "-fps_mode", "passthrough", "-f", "rawvideo", "pipe:1"},
                          true);
    std::atomic<bool> stop{false};
    std::exception_ptr pumpError;
    std::thread pump([&, input = decoder->takeInput()]() mutable {
        try {
            if (!filter) {
                pumpPlaintext(sealed, keys, input.get(), &stop);
            } else {
                std::string passed;
                pumpPlaintext(sealed, keys, [&](std::string_view bytes) {
                    passed.clear();
                    const bool more = filter->feed(bytes, passed);
                    return !stop && writeFully(input.get(), passed.data(), passed.size()) && more;
                });
            }
        } catch (...) {
            pumpError = std::current_exception();
        }
        input.reset();
    });
    // However this ends, even by the encoder failing, the decoder is stopped and the pump joined.
    struct Finish {
        std::atomic<bool>& stop;
        std::unique_ptr<FfmpegChild>& decoder;
        std::thread& pump;
        ~Finish() {
            stop = true;
            decoder.reset();
            if (pump.joinable()) pump.join();
        }
    } finish{stop, decoder, pump};
    std::string frame(encoder.frameBytes(), '\0');
    auto wanted = holds.begin();
    while (wanted != holds.end() && readFully(decoder->output(), frame.data(), frame.size()) == ptrdiff_t(frame.size())) {
        encoder.emit(frame, wanted->second);
        ++wanted;
    }
    // Everything needed has come: the rest of the recording is not decrypted at all.
    stop = true;
    decoder.reset();
    pump.join();
    if (pumpError) std::rethrow_exception(pumpError);
    int unreadable = 0;
    for (; wanted != holds.end(); ++wanted) {
        encoder.emitGap(wanted->second);
        unreadable += wanted->second;
    }
    return unreadable;
}

int even(int value) { return std::max(2, value - value % 2); }

}  // namespace

std::string ffmpegPath(const Environment& environment) {
    if (auto found = FfmpegChild::locate(environment)) return *found;
    throw BridgeError(
        "couldn't launch ffmpeg: no ffmpeg executable found; install the ffmpeg package or set AIMCAP_FFMPEG to one");
}

PumpResult pumpPlaintext(const fs::path& sealed, const VideoArchiveKeyLookup& keys, int fd, const std::atomic<bool>* stop) {
    return pumpPlaintext(sealed, keys, [&](std::string_view bytes) {
        // A failed write means the reader has all it wants.
        return !(stop && *stop) && writeFully(fd, bytes.data(), bytes.size());
    });
}

PumpResult pumpPlaintext(const fs::path& sealed, const VideoArchiveKeyLookup& keys,
                         const std::function<bool(std::string_view)>& sink) {
    std::error_code ec;
    if (!fs::is_regular_file(sealed, ec)) throw BridgeError("No video file at " + sealed.string());
    std::optional<VideoStreamDecryptor> decryptor;
    try {
        decryptor.emplace(VideoStreamDecryptor::open(sealed, keys));
    } catch (const VideoEncryptionError& error) {
        throw BridgeError("Couldn't decrypt: " + sealed.string() + ": " + error.description());
    } catch (const Error& error) {
        throw BridgeError("video archive key unavailable: " + error.description());
    }
    PumpResult result;
    while (true) {
        std::optional<std::string> chunk;
        try {
            chunk = decryptor->readChunk();
        } catch (const VideoEncryptionError& error) {
            if (error.kind() != Kind::corruptChunk)
                throw BridgeError("decrypting video failed: " + sealed.string() + ": " + error.description());
            result.cutShort = true;
            break;
        }
        if (!chunk) break;
        ++result.chunks;
        const bool more = sink(*chunk);
        ::explicit_bzero(chunk->data(), chunk->size());
        if (!more) break;
    }
    return result;
}

Clip writeClip(const RampClipPlan::Plan& plan, const fs::path& destination, const ClipRequest& original,
               const VideoArchiveKeyLookup& keys) {
    ClipRequest request = original;
    request.width = even(request.width);
    request.height = even(request.height);
    RemoveUnlessKept partial{destination.parent_path() / ("." + destination.filename().string() + ".partial")};
    Clip clip;
    {
        Encoder encoder(request, plan.outputFps, partial.path);
        for (size_t i = 0; i < plan.frames.size();) {
            if (plan.frames[i].isGap()) {
                encoder.emitGap(plan.frames[i].holdFrames);
                ++i;
                continue;
            }
            std::map<int64_t, int> holds;
            size_t end = i;
            for (; end < plan.frames.size() && !plan.frames[end].isGap() && *plan.frames[end].file == *plan.frames[i].file; ++end)
                holds[plan.frames[end].frameIndex] += plan.frames[end].holdFrames;
            clip.unreadableFrames += decodeInto(encoder, *plan.frames[i].file, holds, request, keys);
            i = end;
        }
        clip.outputFrames = encoder.finish();
    }
    ::chmod(partial.path.c_str(), 0600);
    std::error_code ec;
    fs::rename(partial.path, destination, ec);
    if (ec) throw BridgeError("couldn't publish the remuxed copy: " + ec.message());
    partial.keep = true;
    return clip;
}

}  // namespace aimwise::VideoContainerBridge
