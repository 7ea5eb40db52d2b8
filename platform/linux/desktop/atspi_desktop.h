#pragma once
// The accessibility bus (AT-SPI) as the capture side uses it: which application window is active,
// which are open and not minimised, and the text the active window shows. Toolkits (GTK, Qt, the
// big browsers) publish this for screen readers; an application that does not is simply absent.
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace aimwise::AtspiDesktop {

struct Frame {
    std::string application;  // the toolkit's program name
    std::string title;
    std::optional<int64_t> pid;
    bool active = false;
    bool iconified = false;
    bool operator==(const Frame&) const = default;
};

using Deadline = std::chrono::steady_clock::time_point;

// Connects to the accessibility bus once; false when there is none to reach. Every call is bounded
// by `callTimeoutMs`, so a hung application costs that much at most per question.
bool connect(int callTimeoutMs);

// The top-level windows of every accessible application, as far as the deadline allows.
std::vector<Frame> frames(Deadline deadline);

struct WindowText {
    Frame frame;
    std::string text;    // one line per object that shows text, in tree order
    bool complete = true;  // false when the deadline or a size limit cut the walk short
};

// The active window and the text it shows. Password fields are never read. Nothing when no
// accessible window is active.
std::optional<WindowText> activeWindowText(Deadline deadline);

}  // namespace aimwise::AtspiDesktop
