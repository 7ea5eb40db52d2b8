#include "platform/linux/screenshot_capture_wayland.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <fstream>

#include <fmt/format.h>

#include "platform/bounded_process.h"
#include "platform/desktop_helper.h"

namespace aimwise::ScreenshotCapture {
namespace {

bool nonEmptyFile(const std::filesystem::path& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0;
}

std::string firstLine(const std::string& text) { return DesktopHelper::firstLine(text); }

Result withGrim(const std::optional<ScreenRect>& rect, const std::filesystem::path& destination, double timeoutSec) {
    const std::optional<std::string> grim = BoundedProcess::findInPath("grim");
    if (!grim) return Failed{"no screenshot tool for this wlroots compositor: install grim"};
    std::vector<std::string> arguments{"-t", "png"};
    if (rect)
        arguments.insert(arguments.end(), {"-g", fmt::format("{:.0f},{:.0f} {:.0f}x{:.0f}", rect->x, rect->y,
                                                             rect->width, rect->height)});
    arguments.push_back(destination.string());
    const BoundedProcess::Outcome outcome = BoundedProcess::run(*grim, arguments, timeoutSec);
    if (std::holds_alternative<BoundedProcess::TimedOut>(outcome)) return TimedOut{timeoutSec};
    const auto* finished = std::get_if<BoundedProcess::Finished>(&outcome);
    if (!finished || !finished->succeeded()) {
        std::string reason = "grim failed (" + BoundedProcess::describe(outcome) + ")";
        if (finished && !finished->standardError.empty()) reason += ": " + firstLine(finished->standardError);
        return Failed{reason};
    }
    if (!nonEmptyFile(destination)) return Failed{"grim exited 0 but wrote no image"};
    return Captured{};
}

// The portal's refusal, while it still holds.
std::optional<std::string> declinedRecently() {
    const std::filesystem::path marker = portalDeclinedMarker();
    struct stat st {};
    if (::stat(marker.c_str(), &st) != 0) return std::nullopt;
    const int64_t until = static_cast<int64_t>(st.st_mtime) + portalDeclinedHoldSec;
    if (until <= static_cast<int64_t>(std::time(nullptr))) return std::nullopt;
    std::ifstream in(marker);
    std::string reason;
    std::getline(in, reason);
    char when[32] = "";
    const time_t at = static_cast<time_t>(until);
    struct tm local {};
    if (localtime_r(&at, &local)) std::strftime(when, sizeof when, "%H:%M", &local);
    return fmt::format("{}; window content is skipped until {} rather than asking at every check", reason, when);
}

void rememberDeclined(const std::string& reason) {
    const std::filesystem::path marker = portalDeclinedMarker();
    const int fd = ::open(marker.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
    if (fd < 0) return;
    const std::string line = reason.substr(0, 300) + "\n";
    [[maybe_unused]] const ssize_t written = ::write(fd, line.data(), line.size());
    ::close(fd);
}

Result withPortal(const std::filesystem::path& destination, double timeoutSec) {
    if (auto declined = declinedRecently()) return Failed{*declined};
    const int portalTimeoutMs = static_cast<int>(timeoutSec * 1000 * 0.8);
    const BoundedProcess::Outcome outcome = DesktopHelper::run(
        {"portal-screenshot", destination.string(), "--timeout-ms", std::to_string(portalTimeoutMs)}, timeoutSec);
    if (std::holds_alternative<BoundedProcess::TimedOut>(outcome)) return TimedOut{timeoutSec};
    if (const auto* launch = std::get_if<BoundedProcess::LaunchFailed>(&outcome))
        return Failed{fmt::format("the desktop helper could not start ({}); set {} to its path", launch->reason,
                                  DesktopHelper::helperEnvVar)};
    const auto& finished = std::get<BoundedProcess::Finished>(outcome);
    const std::string said = firstLine(finished.standardError);
    if (finished.succeeded()) {
        if (!nonEmptyFile(destination)) return Failed{"the desktop portal gave an empty picture"};
        return Captured{};
    }
    if (!finished.terminatingSignal && finished.exitStatus == DesktopHelper::needsInteraction) {
        rememberDeclined(said);
        return Failed{*declinedRecently()};
    }
    return Failed{said.empty() ? "the desktop helper failed (" + BoundedProcess::describe(outcome) + ")" : said};
}

}  // namespace

std::filesystem::path portalDeclinedMarker() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::filesystem::path directory = runtime && *runtime ? runtime : std::filesystem::temp_directory_path();
    return directory / fmt::format("aimwise-portal-screenshot-declined-{}", ::getuid());
}

Result captureOnWayland(DesktopKind kind, const std::optional<ScreenRect>& rect, const std::filesystem::path& destination,
                        double timeoutSec) {
    if (kind == DesktopKind::wlroots) return withGrim(rect, destination, timeoutSec);
    // The portal answers with the whole screen; the description then speaks of all of it.
    return withPortal(destination, timeoutSec);
}

}  // namespace aimwise::ScreenshotCapture
