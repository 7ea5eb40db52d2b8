#pragma once
// The aimwise-desktop helper: a program that judges (VerdictBench) asks it what only the desktop's
// own buses know (the accessibility bus, a Wayland compositor, the desktop portal), so that it never
// loads libatspi, libwayland or libsystemd itself, and a hung application costs a killed child
// rather than a stuck tick.
#include <filesystem>
#include <string>
#include <vector>

#include "platform/bounded_process.h"

namespace aimwise::DesktopHelper {

// AIMCAP_DESKTOP_HELPER, when set and not empty, names the helper; otherwise it is "aimwise-desktop"
// next to the running executable.
inline constexpr const char* helperEnvVar = "AIMCAP_DESKTOP_HELPER";
inline constexpr const char* helperName = "aimwise-desktop";

// What its exit status means.
inline constexpr int done = 0;
inline constexpr int usage = 2;
inline constexpr int nothing = 3;           // no accessible active window, no window source
inline constexpr int unavailable = 4;       // no accessibility bus, no portal, no compositor
inline constexpr int needsInteraction = 5;  // the portal would ask the person
inline constexpr int failed = 6;

std::filesystem::path path();
BoundedProcess::Outcome run(const std::vector<std::string>& arguments, double timeoutSec);

// The first line of what the helper said on standard error, for messages.
std::string firstLine(const std::string& text);

}  // namespace aimwise::DesktopHelper
