#include "agents/capture/recording_file.h"

#include <cmath>
#include <cstdlib>
#include <vector>

namespace aimwise {

namespace {

constexpr double ticksPerMs = 90.0;
constexpr double wrapMs = static_cast<double>(int64_t{1} << 33) / ticksPerMs;
constexpr int64_t maximumLatencyMs = 60'000;

}  // namespace

RecordingFile::RecordingFile(const std::filesystem::path& directory, const std::string& name,
                             const VideoArchiveKey& key, uint32_t generation, FrameTimestamps::CaptureArea area)
    : path_(directory / name),
      encryptor_(VideoStreamEncryptor::create(path_, key, generation)),
      sidecar_(directory / "frame_timestamps.csv"),
      area_(area) {}

int64_t RecordingFile::unwrapPresentationTime(int64_t ticks, int64_t nearMs) {
    const double ms = static_cast<double>(ticks) / ticksPerMs;
    const double wraps = std::round((static_cast<double>(nearMs) - ms) / wrapMs);
    return std::llround(ms + wraps * wrapMs);
}

bool RecordingFile::feed(std::string_view bytes, int64_t arrivedMs, int64_t arrivedMonotonicMs) {
    if (broken_) return false;
    const auto packet = [&](const uint8_t* p) {
        const std::string_view whole(reinterpret_cast<const char*>(p), TransportStream::packetSize);
        if (TransportStream::frameStart(p)) {
            const auto ticks = TransportStream::presentationTime(p);
            int64_t grabbedMs = ticks ? unwrapPresentationTime(*ticks, arrivedMs) : arrivedMs;
            // The grab precedes the bytes by moments; a stamp far from them is not the grabber's clock.
            if (std::llabs(grabbedMs - arrivedMs) > maximumLatencyMs) grabbedMs = arrivedMs;
            // Timed on the monotonic clock, so that a wall clock set back cannot hold frames for hours.
            held_.push_back({std::move(beforeFirstFrame_), grabbedMs,
                             arrivedMonotonicMs + std::max<int64_t>(grabbedMs - arrivedMs, 0) + clearanceMarginMs});
            beforeFirstFrame_.clear();
            held_.back().bytes.append(whole);
        } else if (!held_.empty()) {
            held_.back().bytes.append(whole);
        } else if (framesWritten_ > 0) {
            // The rest of a frame already cleared, or the tables ffmpeg repeats between frames.
            encryptor_->write(whole);
        } else {
            beforeFirstFrame_.append(whole);
        }
    };
    broken_ = !reader_.feed(bytes, packet);
    return !broken_;
}

int RecordingFile::clearThrough(int64_t lookMonotonicMs) {
    std::vector<HeldFrame> cleared;
    while (!held_.empty() && held_.front().clearAfterMonotonicMs <= lookMonotonicMs) {
        encryptor_->write(held_.front().bytes);
        cleared.push_back(std::move(held_.front()));
        held_.pop_front();
    }
    if (cleared.empty()) return 0;
    // One chunk per look that cleared something, sealed before the rows that name its frames: a crash
    // loses at most the frames still held, and no row points past the end of the file.
    encryptor_->flush();
    for (const HeldFrame& frame : cleared) {
        sidecar_.append({.realMs = frame.grabbedMs, .file = path_.filename().string(), .frameIndex = framesWritten_++, .area = area_});
        lastFrameMs_ = frame.grabbedMs;
    }
    return static_cast<int>(cleared.size());
}

int RecordingFile::discardHeld() {
    const int dropped = static_cast<int>(held_.size());
    held_.clear();
    return dropped;
}

void RecordingFile::close() {
    discardHeld();
    encryptor_->close();
}

}  // namespace aimwise
