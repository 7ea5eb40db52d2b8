#include "agents/aimwise/record_verb.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <optional>

#include "CaptureShared/common/environment.h"
#include "CaptureShared/common/local_time.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "CaptureShared/staleness/small_json_file.h"
#include "CaptureShared/video/ffmpeg_child.h"
#include "agents/capture/wayland_notice.h"
#include "agents/capture/recorder.h"
#include "agents/capture/recording_gate.h"
#include "agents/capture/recording_retention.h"
#include "agents/capture/recording_setting.h"

namespace aimwise::RecordVerb {

namespace fs = std::filesystem;

namespace {

constexpr const char* usageText = "usage: aimwise record on [--fps N] [--keep-days N] | off | status\n";
constexpr int64_t dayMs = 86'400'000;

void line(const std::string& text) { std::printf("%s\n", text.c_str()); }

int usage(const std::string& message) {
    std::fprintf(stderr, "aimwise: %s\n%s", message.c_str(), usageText);
    return 2;
}

std::string rate(double fps) { return fmt::format("{:g} frame{} a second", fps, fps == 1 ? "" : "s"); }
std::string days(int count) { return std::to_string(count) + (count == 1 ? " day" : " days"); }
std::string when(int64_t ms) {
    std::string text = LocalTime::format(ms);
    if (const size_t t = text.find('T'); t != std::string::npos) text[t] = ' ';
    return text.substr(0, 16);
}

// What the running agent last said about recording; nothing when no capture agent is running.
std::optional<nlohmann::json> agentState() {
    const auto text = SmallJSONFile::read(Recorder::stateFilePath());
    if (!text) return std::nullopt;
    const auto state = nlohmann::json::parse(*text, nullptr, false);
    if (!state.is_object() || !state.contains("pid") || !state["pid"].is_number_integer()) return std::nullopt;
    // The process id may have gone to another program since.
    std::ifstream comm("/proc/" + std::to_string(state["pid"].get<int64_t>()) + "/comm");
    std::string name;
    if (!std::getline(comm, name) || name != "aimwise-capture") return std::nullopt;
    return state;
}

// Whatever stands in the way of recording right now, as notes for the person.
std::vector<std::string> obstacles() {
    const Environment environment = processEnvironment();
    std::vector<std::string> notes;
    if (waylandNotice(environment))
        notes.push_back("This is a Wayland session: screen recording works only in an X11 session for now, so "
                        "nothing is recorded here.");
    if (!FfmpegChild::locate(environment))
        notes.push_back("ffmpeg was not found: install it with `sudo apt install ffmpeg` (or name it in AIMCAP_FFMPEG).");
    std::error_code error;
    if (const auto reason = DataPaths::dataRootUnavailableReason())
        notes.push_back("The data root is not available (" + *reason + "), so nothing is recorded until it is.");
    else if (!fs::is_directory(DataPaths::videoDir(), error))
        notes.push_back("The data root has no video folder yet: `aimwise init` prepares it.");
    if (!agentState())
        notes.push_back("The capture agent is not running: `aimwise install-services` starts it.");
    return notes;
}

std::string archiveLine(int keepDays) {
    if (const auto reason = DataPaths::dataRootUnavailableReason())
        return "Archive: none here, because the data root is not available: " + *reason;
    const fs::path directory = DataPaths::videoDir(1);
    int files = 0;
    uint64_t bytes = 0;
    std::optional<fs::file_time_type> oldest;
    std::error_code error;
    for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
        if (!RecordingRetention::isRecorderName(it->path().filename().string())) continue;
        ++files;
        bytes += it->file_size(error);
        const auto written = it->last_write_time(error);
        if (!oldest || written < *oldest) oldest = written;
    }
    if (files == 0) return "Archive: nothing recorded yet in " + directory.string();
    const int64_t oldestMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::file_clock::to_sys(*oldest).time_since_epoch())
                                 .count();
    return fmt::format("Archive: {} file{}, {:.1f} MB in {}; the oldest goes after {}", files, files == 1 ? "" : "s",
                       double(bytes) / 1e6, directory.string(), when(oldestMs + keepDays * dayMs));
}

std::optional<double> number(const std::string& text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) return std::nullopt;
    return value;
}

int turnOn(const std::vector<std::string>& options) {
    RecordingSetting::Setting setting = RecordingSetting::read(RecordingSetting::path());
    for (size_t i = 0; i < options.size(); i += 2) {
        // Nothing that parses lies outside both ranges below.
        const double value = (i + 1 < options.size() ? number(options[i + 1]) : std::nullopt).value_or(-1);
        if (options[i] == "--fps") {
            if (value < RecordingSetting::minFps || value > RecordingSetting::maxFps)
                return usage(fmt::format("--fps needs a rate from {:g} to {:g} frames a second", RecordingSetting::minFps,
                                         RecordingSetting::maxFps));
            setting.fps = value;
        } else if (options[i] == "--keep-days") {
            if (value < 1 || value > RecordingSetting::maxKeepDays || value != int(value))
                return usage("--keep-days needs a whole number of days from 1 to " +
                             std::to_string(RecordingSetting::maxKeepDays));
            setting.keepDays = int(value);
        } else {
            return usage("unknown option " + options[i]);
        }
    }
    setting.enabled = true;
    try {
        RecordingSetting::write(RecordingSetting::path(), setting);
    } catch (const fs::filesystem_error& error) {
        std::fprintf(stderr, "FAIL: could not save %s (%s); recording was not turned on.\n",
                     RecordingSetting::path().c_str(), error.code().message().c_str());
        return 1;
    }
    line("Recording is on: " + rate(setting.fps) + " of the whole screen, sealed into " +
         DataPaths::videoDir(1).string() + " and kept " + days(setting.keepDays) + ".");
    line("Windows of password managers and the other denylisted apps are never recorded, and neither is a locked "
         "screen or a paused recording.");
    for (const auto& note : obstacles()) line("Note: " + note);
    return 0;
}

int turnOff() {
    RecordingSetting::Setting setting = RecordingSetting::read(RecordingSetting::path());
    setting.enabled = false;
    try {
        RecordingSetting::write(RecordingSetting::path(), setting);
    } catch (const fs::filesystem_error& error) {
        std::fprintf(stderr, "FAIL: could not save %s (%s); recording was not turned off. Stopping the capture agent "
                             "(`systemctl --user stop aimwise-capture`) stops it.\n",
                     RecordingSetting::path().c_str(), error.code().message().c_str());
        return 1;
    }
    line("Recording is off. What was recorded stays in " + DataPaths::videoDir().string() + " until it is " +
         days(setting.keepDays) + " old.");
    return 0;
}

int status() {
    const auto setting = RecordingSetting::read(RecordingSetting::path());
    if (!setting.enabled) {
        line("Recording: off (`aimwise record on` turns it on)");
    } else {
        line("Recording: on, " + rate(setting.fps) + ", files kept " + days(setting.keepDays));
        const auto state = agentState();
        if (!state)
            line("Now: not recording, because the capture agent is not running (`aimwise install-services` starts it)");
        else if (state->value("detail", "").empty())
            line("Now: starting");
        else
            line("Now: " + state->value("detail", "") + " (since " + when(state->value("since_ms", int64_t{0})) + ")");
    }
    line(archiveLine(setting.keepDays));
    if (!DataPaths::dataRootUnavailableReason())
        if (const auto free = RecordingRetention::freeBytes(DataPaths::dataRoot()))
            line("Disk: " + RecordingGate::gigabytes(*free) + " free; recording stops below " +
                 RecordingGate::gigabytes(RecordingGate::minimumFreeBytes));
    return 0;
}

}  // namespace

int run(const std::vector<std::string>& arguments) {
    if (arguments.empty()) return usage("record needs on, off or status");
    const std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
    if (arguments.front() == "on") return turnOn(rest);
    if (arguments.front() == "off") return rest.empty() ? turnOff() : usage("record off takes nothing else");
    if (arguments.front() == "status") return rest.empty() ? status() : usage("record status takes nothing else");
    return usage("unknown record command \"" + arguments.front() + "\"");
}

}  // namespace aimwise::RecordVerb
