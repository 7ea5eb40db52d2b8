#pragma once
// The windows a screenshot of some area could show, front to back.
#include <string>
#include <vector>

#include "platform/screen_rect.h"

namespace aimwise {

struct OnScreenWindowRecord {
    std::string appName;
    std::string bundleId;
    ScreenRect bounds;
    bool operator==(const OnScreenWindowRecord&) const = default;
};

namespace OnScreenWindows {

// Empty when there is no display to ask. On X11 the app identity is the window's WM_CLASS: the class
// (e.g. "KeePassXC") is both the name and the identifier, as the capture agent records them.
std::vector<OnScreenWindowRecord> live();

}  // namespace OnScreenWindows
}  // namespace aimwise
