#pragma once
// Whether the screen may be recorded at this moment, from what the recorder last saw. Frames are
// written only while every look says yes; the first look that says no stops the recorder, and what
// it grabbed since the last yes is never written.
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/desktop_session.h"
#include "platform/screen_rect.h"

namespace aimwise::RecordingGate {

// Recording stops below this much free space on the data root's disk, and starts again only above
// `resumeFreeBytes`, so that a disk near the line is not tried every few seconds.
inline constexpr uint64_t minimumFreeBytes = 2'000'000'000;
inline constexpr uint64_t resumeFreeBytes = 2'500'000'000;

enum class Reason { off, wayland, noDataRoot, rootNotPrepared, noDisplay, locked, pauseInForce, deniedWindow, lowDisk };

struct Inputs {
    bool enabled = false;
    bool wayland = false;
    // The data root's reason for being unavailable; nothing when it is there.
    std::optional<std::string> dataRootUnavailable;
    // Its video folder exists: the root was prepared by setup, so writing into it is expected.
    bool rootPrepared = false;
    bool displayReachable = false;
    bool locked = false;
    bool pauseInForce = false;
    // The app of a denylisted window on screen.
    std::optional<std::string> deniedApp;
    std::optional<uint64_t> freeBytes;
    // The last decision was `lowDisk`: the higher mark applies.
    bool heldForDisk = false;
};

struct Record {
    bool operator==(const Record&) const = default;
};
struct Held {
    Reason reason;
    std::string words;  // for the agent's log and `aimwise record status`
    bool operator==(const Held&) const = default;
};
using Decision = std::variant<Record, Held>;

Decision decide(const Inputs& inputs);

// The app of the first window on screen, the front window included, that belongs to a denylisted
// app and overlaps `area`; `extension` is the person's additions to the denylist.
std::optional<std::string> deniedAppOnScreen(const DesktopSnapshot& snapshot, const ScreenRect& area,
                                             const std::vector<std::string>& extension);

// "1.8 GB"
std::string gigabytes(uint64_t bytes);

}  // namespace aimwise::RecordingGate
