#pragma once
// The windows a screenshot of some area could show, front to back.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/screen_rect.h"

namespace aimwise {

struct OnScreenWindowRecord {
    std::string appName;
    std::string bundleId;
    ScreenRect bounds;
    // Most Wayland compositors do not say where windows are: such a window may be over any area.
    bool boundsKnown = true;
    bool operator==(const OnScreenWindowRecord&) const = default;
};

namespace OnScreenWindows {

// Empty when there is no display to ask. On X11 the app identity is the window's WM_CLASS: the class
// (e.g. "KeePassXC") is both the name and the identifier, as the capture agent records them. On a
// Wayland desktop the aimwise-desktop helper lists the open windows that are not minimised, and
// nothing answers when it cannot.
std::optional<std::vector<OnScreenWindowRecord>> liveOnWayland();
std::vector<OnScreenWindowRecord> live();

// The helper's listing: one window a line, "x<TAB>y<TAB>width<TAB>height<TAB>name<TAB>identifier",
// with "-" for each part of an unknown rectangle. Nothing for anything else.
std::string formatListing(const std::vector<OnScreenWindowRecord>& windows);
std::optional<std::vector<OnScreenWindowRecord>> parseListing(std::string_view listing);

}  // namespace OnScreenWindows
}  // namespace aimwise
