// aimwise-desktop: answers what only the desktop's buses know, for programs that must not load their
// libraries or wait on them.
//   text [--budget-ms N]       the active window's text through the accessibility bus
//   windows                    the open, not minimised windows of a Wayland desktop
//   portal-screenshot PATH [--timeout-ms N]   a non-interactive picture through the desktop portal
// Exit status as platform/desktop_helper.h says; the reason for a failure on standard error.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "CaptureShared/common/environment.h"
#include "platform/desktop_helper.h"
#include "platform/desktop_session.h"
#include "platform/linux/desktop/atspi_desktop.h"
#include "platform/linux/desktop/portal_screenshot.h"
#include "platform/linux/desktop/wayland_connection.h"
#include "platform/linux/desktop/window_source.h"
#include "platform/on_screen_windows.h"
#include "platform/window_text.h"

namespace {

using namespace aimwise;
using Clock = std::chrono::steady_clock;

int fail(int status, const std::string& reason) {
    std::fprintf(stderr, "%s\n", reason.c_str());
    return status;
}

int positiveNumber(const char* text, int fallback) {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    return end && *end == '\0' && value > 0 && value < 600'000 ? static_cast<int>(value) : fallback;
}

int text(int budgetMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(budgetMs);
    // A question to a hung application waits no longer than the whole budget.
    if (!AtspiDesktop::connect(budgetMs)) return fail(DesktopHelper::unavailable, "the accessibility bus is not running");
    const auto found = AtspiDesktop::activeWindowText(deadline);
    if (!found) return fail(DesktopHelper::nothing, "no accessible window is active");
    const WindowText::Read read{found->frame.application, found->frame.title, found->frame.pid, found->complete,
                                found->text};
    const std::string out = WindowText::format(read);
    std::fwrite(out.data(), 1, out.size(), stdout);
    return DesktopHelper::done;
}

OnScreenWindowRecord record(const DesktopWindow& window) {
    return OnScreenWindowRecord{window.ownerName, window.bundleId,
                                ScreenRect{window.x, window.y, window.width, window.height}, window.geometryKnown};
}

int windows() {
    const Environment environment = processEnvironment();
    const DesktopKind kind = desktopKindFor(environment);
    std::unique_ptr<Wayland::Connection> wayland;
    std::unique_ptr<WindowSource> source;
    switch (kind) {
        case DesktopKind::x11: return fail(DesktopHelper::usage, "this is not a Wayland session");
        case DesktopKind::wlroots:
            wayland = Wayland::Connection::open(lookup(environment, "WAYLAND_DISPLAY").value_or(""), 0);
            if (!wayland) return fail(DesktopHelper::unavailable, "cannot reach the Wayland compositor");
            if (!wayland->offersToplevels())
                return fail(DesktopHelper::nothing, "the compositor does not list its windows to clients");
            source = toplevelWindowSource(*wayland);
            break;
        case DesktopKind::kde: source = kwinWindowSource(); break;
        case DesktopKind::gnome: source = gnomeWindowSource(); break;
    }
    if (!source) return fail(DesktopHelper::nothing, "no window source answers on this desktop");
    // A KWin script reports a moment after it starts.
    const auto deadline = Clock::now() + std::chrono::milliseconds(1500);
    std::optional<WindowReport> report = source->read(0);
    while (report && !source->ready() && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        report = source->read(0);
    }
    if (!report || !source->ready()) return fail(DesktopHelper::failed, "the window list did not arrive");
    std::vector<OnScreenWindowRecord> records;
    for (const DesktopWindow& window : report->windows) records.push_back(record(window));
    const std::string out = OnScreenWindows::formatListing(records);
    std::fwrite(out.data(), 1, out.size(), stdout);
    return DesktopHelper::done;
}

int portalScreenshot(const char* destination, int timeoutMs) {
    const PortalScreenshot::Result result = PortalScreenshot::capture(destination, timeoutMs);
    if (std::holds_alternative<PortalScreenshot::Captured>(result)) return DesktopHelper::done;
    if (const auto* asks = std::get_if<PortalScreenshot::NeedsInteraction>(&result))
        return fail(DesktopHelper::needsInteraction, asks->reason);
    if (const auto* absent = std::get_if<PortalScreenshot::Unavailable>(&result))
        return fail(DesktopHelper::unavailable, absent->reason);
    return fail(DesktopHelper::failed, std::get<PortalScreenshot::Failed>(result).reason);
}

const char* const usage =
    "usage: aimwise-desktop text [--budget-ms N] | windows | portal-screenshot PATH [--timeout-ms N]\n";

}  // namespace

int main(int argc, char** argv) {
    const std::string verb = argc > 1 ? argv[1] : "";
    const auto option = [&](const char* name, int fallback) {
        for (int i = 2; i + 1 < argc; ++i)
            if (std::strcmp(argv[i], name) == 0) return positiveNumber(argv[i + 1], fallback);
        return fallback;
    };
    if (verb == "text") return text(option("--budget-ms", WindowText::defaultBudgetMs));
    if (verb == "windows") return windows();
    if (verb == "portal-screenshot" && argc > 2) return portalScreenshot(argv[2], option("--timeout-ms", 8000));
    std::fputs(usage, stderr);
    return aimwise::DesktopHelper::usage;
}
