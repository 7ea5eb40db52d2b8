#include "platform/desktop_helper.h"

#include <cstdlib>

#include <fmt/format.h>

#include "CaptureShared/dataroot/executable_path.h"
#include "platform/on_screen_windows.h"
#include "platform/window_text.h"

namespace aimwise {

namespace DesktopHelper {

std::filesystem::path path() {
    if (const char* configured = std::getenv(helperEnvVar); configured && *configured) return configured;
    try {
        return ExecutablePath::siblingDirectory(ExecutablePath::resolveSelf()) / helperName;
    } catch (const ExecutablePathError&) {
        return helperName;
    }
}

BoundedProcess::Outcome run(const std::vector<std::string>& arguments, double timeoutSec) {
    return BoundedProcess::run(path().string(), arguments, timeoutSec, {.outputLimitBytes = 1u << 20});
}

std::string firstLine(const std::string& text) {
    std::string line = text.substr(0, text.find('\n'));
    if (line.size() > 300) line.resize(300);
    return line;
}

}  // namespace DesktopHelper

namespace {

// Names and titles travel one to a field: tabs and line breaks inside them become spaces.
std::string field(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        if (c == '\t' || c == '\n' || c == '\r') c = ' ';
    return out;
}

std::vector<std::string_view> split(std::string_view line, char separator) {
    std::vector<std::string_view> parts;
    while (true) {
        const size_t at = line.find(separator);
        parts.push_back(line.substr(0, at));
        if (at == std::string_view::npos) return parts;
        line.remove_prefix(at + 1);
    }
}

std::optional<double> coordinate(std::string_view text) {
    if (text.empty() || text.size() > 12) return std::nullopt;
    char* end = nullptr;
    const std::string copy(text);
    const double value = std::strtod(copy.c_str(), &end);
    if (end != copy.c_str() + copy.size() || !(value > -1e6 && value < 1e6)) return std::nullopt;
    return value;
}

}  // namespace

namespace OnScreenWindows {

std::string formatListing(const std::vector<OnScreenWindowRecord>& windows) {
    std::string out;
    for (const OnScreenWindowRecord& w : windows) {
        if (w.boundsKnown)
            out += fmt::format("{:g}\t{:g}\t{:g}\t{:g}", w.bounds.x, w.bounds.y, w.bounds.width, w.bounds.height);
        else
            out += "-\t-\t-\t-";
        out += "\t" + field(w.appName) + "\t" + field(w.bundleId) + "\n";
    }
    return out;
}

std::optional<std::vector<OnScreenWindowRecord>> parseListing(std::string_view listing) {
    std::vector<OnScreenWindowRecord> windows;
    for (std::string_view line : split(listing, '\n')) {
        if (line.empty()) continue;
        const auto parts = split(line, '\t');
        if (parts.size() != 6) return std::nullopt;
        OnScreenWindowRecord record{std::string(parts[4]), std::string(parts[5]), {}};
        if (parts[0] == "-" && parts[1] == "-" && parts[2] == "-" && parts[3] == "-") {
            record.boundsKnown = false;
        } else {
            const auto x = coordinate(parts[0]), y = coordinate(parts[1]);
            const auto width = coordinate(parts[2]), height = coordinate(parts[3]);
            if (!x || !y || !width || !height) return std::nullopt;
            record.bounds = ScreenRect{*x, *y, *width, *height};
        }
        windows.push_back(std::move(record));
    }
    return windows;
}

std::optional<std::vector<OnScreenWindowRecord>> liveOnWayland() {
    const BoundedProcess::Outcome outcome = DesktopHelper::run({"windows"}, 3.0);
    const auto* finished = std::get_if<BoundedProcess::Finished>(&outcome);
    if (!finished || !finished->succeeded()) return std::nullopt;
    return parseListing(finished->standardOutput);
}

}  // namespace OnScreenWindows

namespace WindowText {

std::string format(const Read& read) {
    return "application\t" + field(read.application) + "\ntitle\t" + field(read.title) + "\npid\t" +
           (read.pid ? std::to_string(*read.pid) : std::string()) + "\ncomplete\t" + (read.complete ? "1" : "0") +
           "\n\n" + read.text;
}

std::optional<Read> parse(std::string_view output) {
    Read read;
    for (const char* key : {"application", "title", "pid", "complete"}) {
        const size_t end = output.find('\n');
        if (end == std::string_view::npos) return std::nullopt;
        const std::string_view line = output.substr(0, end);
        output.remove_prefix(end + 1);
        const std::string prefix = std::string(key) + "\t";
        if (!line.starts_with(prefix)) return std::nullopt;
        const std::string value(line.substr(prefix.size()));
        if (prefix == "application\t") read.application = value;
        else if (prefix == "title\t") read.title = value;
        else if (prefix == "complete\t") read.complete = value == "1";
        else if (!value.empty()) {
            const auto pid = coordinate(value);
            if (!pid || *pid < 1 || *pid != static_cast<int64_t>(*pid)) return std::nullopt;
            read.pid = static_cast<int64_t>(*pid);
        }
    }
    if (!output.starts_with('\n')) return std::nullopt;
    read.text = std::string(output.substr(1));
    return read;
}

Result readActive(int budgetMs) {
    // The helper's own start and the bus connection come on top of the walk's budget.
    const double timeoutSec = budgetMs / 1000.0 + 1.0;
    const BoundedProcess::Outcome outcome = DesktopHelper::run({"text", "--budget-ms", std::to_string(budgetMs)}, timeoutSec);
    if (std::holds_alternative<BoundedProcess::TimedOut>(outcome))
        return Nothing{fmt::format("the accessibility bus did not answer within {:g}s", timeoutSec)};
    if (const auto* launch = std::get_if<BoundedProcess::LaunchFailed>(&outcome))
        return Nothing{fmt::format("the desktop helper could not start ({}); set {} to its path", launch->reason,
                                   DesktopHelper::helperEnvVar)};
    const auto& finished = std::get<BoundedProcess::Finished>(outcome);
    if (finished.succeeded()) {
        if (auto read = parse(finished.standardOutput)) return *read;
        return Nothing{"the desktop helper's answer could not be read"};
    }
    if (finished.terminatingSignal) return Nothing{fmt::format("the desktop helper ended by signal {}", *finished.terminatingSignal)};
    switch (finished.exitStatus) {
        case DesktopHelper::nothing: return Nothing{"no accessible window is active"};
        case DesktopHelper::unavailable: return Nothing{"the accessibility bus is not running"};
        default: return Nothing{"the desktop helper failed: " + DesktopHelper::firstLine(finished.standardError)};
    }
}

}  // namespace WindowText

}  // namespace aimwise
