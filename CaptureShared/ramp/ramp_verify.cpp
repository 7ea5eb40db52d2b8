#include "CaptureShared/ramp/ramp_verify.h"

#include <stdlib.h>

#include <cstdio>
#include <set>

#include "CaptureShared/common/iso_date.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "CaptureShared/video/video_container_bridge.h"

namespace aimwise::RampVerify {

namespace fs = std::filesystem;
using RampClipPlan::Plan;

namespace {

std::string formatted(const char* format, auto... values) {
    char buffer[256];
    std::snprintf(buffer, sizeof buffer, format, values...);
    return buffer;
}

// "59:58.0" before the instant.
std::string before(int64_t ms) { return formatted("%lld:%04.1f", (long long)(ms / 60000), (ms % 60000) / 1000.0); }

std::string duration(int64_t ms) {
    const int64_t seconds = ms / 1000;
    if (seconds >= 60) return formatted("%lldm %02llds", (long long)(seconds / 60), (long long)(seconds % 60));
    return std::to_string(seconds) + "s";
}

// The frame size of the judged instant's recording, even as the encoder needs it.
std::pair<int, int> clipSize(const RampClipPlan::Plan& plan, const Options& options) {
    const RampClipPlan::Config settings = config(options.fps);
    const auto locator = FrameLocator::forJudgedInstant(options.videoRoot.empty() ? DataPaths::videoDir() : options.videoRoot,
                                                        plan.judgedInstantMs, settings.leadUpMs, settings.toleranceMs,
                                                        options.display);
    if (!locator) return {1280, 720};
    const auto judged = locator->locate(plan.judgedInstantMs, settings.toleranceMs);
    if (const auto* at = std::get_if<FrameLocator::Located>(&judged)) return {at->area.width, at->area.height};
    return {1280, 720};
}

void print(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

}  // namespace

RampClipPlan::Config config(std::optional<double> fps) {
    RampClipPlan::Config settings;
    if (fps) settings.outputFps = *fps;
    return settings;
}

Plan plan(int64_t atMs, const Options& options) {
    const RampClipPlan::Config settings = config(options.fps);
    const auto locator = FrameLocator::forJudgedInstant(options.videoRoot.empty() ? DataPaths::videoDir() : options.videoRoot,
                                                        atMs, settings.leadUpMs, settings.toleranceMs, options.display);
    const FrameLocator::Locate none = [](int64_t, int64_t) -> FrameLocator::LocateResult { return FrameLocator::NoFrameNear{}; };
    return RampClipPlan::plan(atMs, settings, locator ? locator->asFunction() : none);
}

std::string describe(const Plan& plan) {
    std::set<fs::path> files;
    for (const auto& frame : plan.frames)
        if (frame.file) files.insert(*frame.file);
    const int outputs = plan.outputFrameCount();
    std::string text = "ramp to " + ISODate::format(plan.judgedInstantMs) + ": " + std::to_string(plan.frames.size()) +
                       " frames from " + std::to_string(files.size()) + " recording(s), " + std::to_string(outputs) +
                       " output frames, " + formatted("%.1f", outputs / plan.outputFps) + " s at " +
                       formatted("%g", plan.outputFps) + " fps\n";
    text += "gaps: " + formatted("%.1f", plan.gapShare() * 100) + "% of the clip, " + duration(plan.gapSourceMs()) +
            " of recorded time (" + duration(plan.gapSourceMs(300000)) + " in the last 5 minutes)\n";
    text += "  start  hold  recorded at           before    frame\n";
    for (size_t i = 0; i < plan.frames.size(); ++i) {
        const auto& frame = plan.frames[i];
        text += formatted("  %5d  %4d  ", plan.outputStarts[i], frame.holdFrames) + ISODate::format(frame.sourceRealMs) +
                formatted("  %8s  ", before(plan.judgedInstantMs - frame.sourceRealMs).c_str()) +
                (frame.isGap() ? "(no capture)" : frame.file->filename().string() + " #" + std::to_string(frame.frameIndex)) +
                "\n";
    }
    return text;
}

void runPlan(int64_t atMs, const Options& options) { print(describe(plan(atMs, options))); }

fs::path runBridge(int64_t atMs, const VideoArchiveKeyLookup& keys, const Environment& environment, const Options& options) {
    const Plan planned = plan(atMs, options);
    print(describe(planned));
    std::fflush(stdout);
    VideoContainerBridge::ClipRequest request{.ffmpeg = VideoContainerBridge::ffmpegPath(environment)};
    std::tie(request.width, request.height) = clipSize(planned, options);

    const std::string temporaryRoot = lookup(environment, "TMPDIR").value_or("/tmp");
    std::string directory = (fs::path(temporaryRoot.empty() ? "/tmp" : temporaryRoot) / "aimwise-ramp-XXXXXX").string();
    if (!::mkdtemp(directory.data()))
        throw VideoContainerBridge::BridgeError("couldn't publish the remuxed copy: no private temporary directory in " +
                                                temporaryRoot);
    std::string stamp = ISODate::format(atMs);
    std::erase(stamp, ':');
    std::erase(stamp, '-');
    const fs::path clipPath = fs::path(directory) / ("ramp-" + stamp + ".mp4");
    VideoContainerBridge::Clip clip;
    try {
        clip = VideoContainerBridge::writeClip(planned, clipPath, request, keys);
    } catch (...) {
        std::error_code ignored;
        fs::remove_all(directory, ignored);
        throw;
    }
    if (clip.unreadableFrames > 0)
        print("note: " + std::to_string(clip.unreadableFrames) +
              " output frames could not be read from the archive (its newest seconds may not be sealed yet); they show as gaps\n");
    print("clip: " + clipPath.string() + "\n");
    print("It is the only decrypted copy, readable by you alone; delete its directory when you are done.\n");
    return clipPath;
}

}  // namespace aimwise::RampVerify
