#pragma once
// The Wayland readers live in a module of their own, aimwise-wayland.so beside the program, loaded
// only when the session is Wayland: they bring libwayland, libatspi, GLib and libsystemd, about
// 2 MB of memory that the capture agent on an X11 desktop would otherwise carry all day.
#include <memory>
#include <string>

#include "platform/desktop_session.h"

namespace aimwise::WaylandDesktopModule {

inline constexpr const char* fileName = "aimwise-wayland.so";

// DesktopSession::open of the module for a Wayland `kind`; DesktopSession::connect for X11. Nothing
// when the session cannot be reached, or when the module cannot be loaded, which `failure` then
// explains.
std::unique_ptr<DesktopSession> open(DesktopKind kind, const Environment& environment, const std::string& displayName,
                                     std::string& failure);

}  // namespace aimwise::WaylandDesktopModule

// The module's one entry point.
extern "C" aimwise::DesktopSession* aimwiseOpenWaylandDesktop(aimwise::DesktopKind kind,
                                                               const aimwise::Environment& environment,
                                                               const std::string& displayName);
