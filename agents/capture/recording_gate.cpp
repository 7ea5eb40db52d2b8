#include "agents/capture/recording_gate.h"

#include <fmt/format.h>

#include "AimwiseCore/classifier/window_content.h"

namespace aimwise::RecordingGate {

Decision decide(const Inputs& in) {
    if (!in.enabled) return Held{Reason::off, "recording is off (`aimwise record on` turns it on)"};
    if (in.wayland)
        return Held{Reason::wayland,
                    "this is a Wayland session, and screen recording works only in an X11 session for now, so "
                    "nothing is recorded"};
    if (in.dataRootUnavailable) return Held{Reason::noDataRoot, *in.dataRootUnavailable + " — recording nothing"};
    if (!in.rootPrepared)
        return Held{Reason::rootNotPrepared,
                    "the data root has no video folder, so it was not prepared for recording (`aimwise init` "
                    "prepares it) — recording nothing"};
    if (in.pauseInForce) return Held{Reason::pauseInForce, "a recording pause is in force"};
    if (!in.displayReachable) return Held{Reason::noDisplay, "the X display cannot be reached"};
    if (in.locked) return Held{Reason::locked, "the screen is locked"};
    if (in.deniedApp)
        return Held{Reason::deniedWindow, "a window of " + *in.deniedApp +
                                              " is on screen, and windows of that kind are never recorded"};
    if (in.freeBytes && *in.freeBytes < (in.heldForDisk ? resumeFreeBytes : minimumFreeBytes))
        return Held{Reason::lowDisk, "only " + gigabytes(*in.freeBytes) +
                                         " is free on the data root's disk, and recording stops below " +
                                         gigabytes(minimumFreeBytes) + " so that the disk never fills"};
    return Record{};
}

std::optional<std::string> deniedAppOnScreen(const DesktopSnapshot& snapshot, const ScreenRect& area,
                                             const std::vector<std::string>& extension) {
    // A window whose bounds are not known may be anywhere.
    const auto denied = [&](const DesktopWindow& window) {
        const ScreenRect bounds{window.x, window.y, window.width, window.height};
        return (bounds.width <= 0 || bounds.height <= 0 || bounds.overlaps(area)) &&
               Denylist::excludes(window.ownerName, window.bundleId, extension);
    };
    const auto name = [](const DesktopWindow& window) {
        return window.ownerName.empty() ? window.bundleId : window.ownerName;
    };
    if (snapshot.front && denied(*snapshot.front)) return name(*snapshot.front);
    for (const DesktopWindow& window : snapshot.windows)
        if (denied(window)) return name(window);
    return std::nullopt;
}

std::string gigabytes(uint64_t bytes) { return fmt::format("{:.1f} GB", static_cast<double>(bytes) / 1e9); }

}  // namespace aimwise::RecordingGate
