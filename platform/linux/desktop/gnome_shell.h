#pragma once
// GNOME Shell keeps window details to itself; the "Focused Window D-Bus" extension publishes the
// focused one as JSON at org.gnome.Shell /org/gnome/shell/extensions/FocusedWindow.
#include <optional>
#include <string_view>

#include "platform/desktop_session.h"

namespace aimwise::GnomeShell {

inline constexpr const char* shellService = "org.gnome.Shell";
inline constexpr const char* focusedWindowPath = "/org/gnome/shell/extensions/FocusedWindow";
inline constexpr const char* focusedWindowInterface = "org.gnome.shell.extensions.FocusedWindow";

// The extension's reply: title, wm_class, wm_class_instance, pid and the frame rectangle. Nothing
// for anything else, including the "{}" it may answer with no window focused.
std::optional<DesktopWindow> parseFocusedWindow(std::string_view json);

}  // namespace aimwise::GnomeShell
