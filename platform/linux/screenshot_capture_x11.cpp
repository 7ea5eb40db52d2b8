#include <sys/stat.h>

#include <cmath>
#include <cstdlib>
#include <optional>

#include <fmt/format.h>

#include "platform/bounded_process.h"
#include "CaptureShared/common/environment.h"
#include "platform/linux/screenshot_capture_wayland.h"
#include "platform/screenshot_capture.h"

namespace aimwise::ScreenshotCapture {
namespace {

struct Tool {
    std::string name;
    std::string path;
};

std::optional<Tool> findTool() {
    // maim grabs just the rectangle; ImageMagick's import grabs the root window and crops.
    for (const char* name : {"maim", "import"})
        if (auto path = BoundedProcess::findInPath(name)) return Tool{name, *path};
    return std::nullopt;
}

std::string geometry(const ScreenRect& rect) {
    return fmt::format("{:.0f}x{:.0f}+{:.0f}+{:.0f}", rect.width, rect.height, rect.x, rect.y);
}

// X geometry reads a negative offset as counted from the far edge, so the part of a window that
// hangs off the top or left of the screen is cut away rather than passed on.
ScreenRect visiblePart(ScreenRect rect) {
    if (rect.x < 0) rect.width += rect.x, rect.x = 0;
    if (rect.y < 0) rect.height += rect.y, rect.y = 0;
    return rect;
}

std::vector<std::string> arguments(const Tool& tool, const std::optional<ScreenRect>& rect,
                                   const std::filesystem::path& to) {
    if (!rect && tool.name == "maim") return {"--hidecursor", "--format=png", to.string()};
    if (!rect) return {"-silent", "-window", "root", "png:" + to.string()};
    if (tool.name == "maim") return {"--hidecursor", "--format=png", "--geometry=" + geometry(*rect), to.string()};
    return {"-silent", "-window", "root", "-crop", geometry(*rect), "+repage", "png:" + to.string()};
}

bool nonEmptyFile(const std::filesystem::path& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0;
}

Result runTool(const Tool& tool, const std::optional<ScreenRect>& rect, const std::filesystem::path& destination,
               double timeoutSec);

}  // namespace

std::string toolDescription() {
    if (auto tool = findTool()) return tool->path;
    return "none (neither maim nor ImageMagick's import is installed)";
}

Result captureRect(const ScreenRect& requested, const std::filesystem::path& destination, double timeoutSec) {
    if (const DesktopKind kind = desktopKindFor(processEnvironment()); kind != DesktopKind::x11)
        return captureOnWayland(kind, visiblePart(requested), destination, timeoutSec);
    const ScreenRect rect = visiblePart(requested);
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display) return Failed{"no X display to capture (DISPLAY is not set)"};
    if (!(rect.width >= 1 && rect.height >= 1) || !std::isfinite(rect.x) || !std::isfinite(rect.y))
        return Failed{fmt::format("window rectangle {} has nothing on screen to capture", geometry(requested))};
    const std::optional<Tool> tool = findTool();
    if (!tool) return Failed{"no screenshot tool: install maim or ImageMagick"};

    return runTool(*tool, rect, destination, timeoutSec);
}

Result captureScreen(const std::filesystem::path& destination, double timeoutSec) {
    if (const DesktopKind kind = desktopKindFor(processEnvironment()); kind != DesktopKind::x11)
        return captureOnWayland(kind, std::nullopt, destination, timeoutSec);
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display) return Failed{"no X display to capture (DISPLAY is not set)"};
    const std::optional<Tool> tool = findTool();
    if (!tool) return Failed{"no screenshot tool: install maim or ImageMagick"};
    return runTool(*tool, std::nullopt, destination, timeoutSec);
}

namespace {

Result runTool(const Tool& tool, const std::optional<ScreenRect>& rect, const std::filesystem::path& destination,
               double timeoutSec) {
    const BoundedProcess::Outcome outcome = BoundedProcess::run(tool.path, arguments(tool, rect, destination), timeoutSec);
    if (std::holds_alternative<BoundedProcess::TimedOut>(outcome)) return TimedOut{timeoutSec};
    const auto* finished = std::get_if<BoundedProcess::Finished>(&outcome);
    if (!finished || !finished->succeeded()) {
        std::string reason = fmt::format("{} failed ({})", tool.name, BoundedProcess::describe(outcome));
        if (finished) {
            const std::string& said = finished->standardError;
            const std::string firstLine = said.substr(0, std::min(said.find('\n'), size_t{200}));
            if (!firstLine.empty()) reason += ": " + firstLine;
        }
        return Failed{reason};
    }
    if (!nonEmptyFile(destination)) return Failed{tool.name + " exited 0 but wrote no image"};
    return Captured{};
}

}  // namespace

}  // namespace aimwise::ScreenshotCapture
