#pragma once
// Whether this is a Wayland session, as the X11 reader and the recorder must say: both see only what
// runs through XWayland.
#include <optional>
#include <string>

#include "CaptureShared/common/environment.h"

namespace aimwise {

// A note for standard error when a Wayland session is read through X11, where only XWayland windows
// are seen; nothing in an X11 session.
std::optional<std::string> waylandNotice(const Environment& environment);

}  // namespace aimwise
