// The Wayland desktop reader against the X11 one, and a window's exact text against OCR.
//
// BM_CaptureAgentOnX11 (the baseline) and BM_CaptureAgentOnSway run `aimwise-capture` at its own
// interval for AIMWISE_CAPTURE_BENCH_SECONDS (60 by default) against the same desk: eight windows,
// the person moving to the next one every four seconds and its title changing as they read. On X11
// the windows are the bench's own on a private Xvfb, with the window manager's hints played by the
// bench; on Wayland they are foot terminals on a headless sway, focused through its IPC and retitled
// by their shells. Counters: the agent's CPU seconds per hour and its peak resident memory.
//
// BM_WindowTextOCR (the baseline) and BM_WindowTextAccessibility read the same GTK window on a
// private Xvfb: with the OCR helper on a screenshot of the window, and from the accessibility bus
// through the aimwise-desktop helper. Time is each read's wall time, the helper's start included, as
// a check runs it.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "bench/child_process.h"
#include "platform/screenshot_capture.h"
#include "platform/vision_text_recognizer.h"
#include "platform/window_text.h"
#include "tests/support/required_tools.h"
#include "tests/support/gtk_text_window.h"
#include "tests/support/session_bus.h"
#include "tests/support/sway_display.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace aimwise;
using namespace aimwise::testing;

constexpr int deskWindows = 8;

// Stops the process and returns the CPU time of all its threads, in seconds, to the microsecond: an
// agent that spends about a second an hour spends only a few clock ticks in a minute.
double stopForCPUSeconds(pid_t pid) {
    ::kill(pid, SIGTERM);
    rusage usage{};
    ::wait4(pid, nullptr, 0, &usage);
    const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// The first column of the first row of `sql` on the agent's signals, or -1 when it cannot be read.
double signalsCount(const fs::path& database, const char* sql) {
    sqlite3* db = nullptr;
    sqlite3_stmt* statement = nullptr;
    double value = -1;
    if (sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) == SQLITE_OK && sqlite3_step(statement) == SQLITE_ROW)
        value = sqlite3_column_double(statement, 0);
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return value;
}

double peakMiB(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.starts_with("VmHWM:")) return std::stod(line.substr(6)) / 1024.0;
    return 0;
}

// Runs the agent with `session` added to a private home while `step` plays the person.
void runAgent(benchmark::State& state, const std::vector<std::string>& session, const std::function<void(int)>& step) {
    const char* configured = std::getenv("AIMWISE_CAPTURE_BENCH_SECONDS");
    const int seconds = configured ? std::max(10, std::atoi(configured)) : 60;
    TempDir home;
    std::vector<std::string> environment{"HOME=" + home.path().string(), "XDG_DATA_HOME=" + (home / "data").string(),
                                         "XDG_STATE_HOME=" + (home / "state").string(),
                                         "XDG_CONFIG_HOME=" + (home / "config").string(),
                                         "AIMCAP_DATA_ROOT=" + (home / "root").string(), "PATH=/usr/bin:/bin"};
    environment.insert(environment.end(), session.begin(), session.end());
    fs::create_directories(home / "root");
    const std::string agent = (fs::read_symlink("/proc/self/exe").parent_path() / "aimwise-capture").string();
    for (auto _ : state) {
        const pid_t capture = bench::spawnQuietly({agent}, environment);
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; std::chrono::steady_clock::now() - start < std::chrono::seconds(seconds); ++i) {
            step(i);
            std::this_thread::sleep_for(std::chrono::seconds(4));
        }
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.SetIterationTime(elapsed);
        state.counters["agent_peak_rss_MiB"] = peakMiB(capture);
        state.counters["agent_cpu_s_per_hour"] = stopForCPUSeconds(capture) / elapsed * 3600.0;
    }
    // The agent must have seen the desk: every window it was moved to, under the bench's titles.
    const fs::path signals = home / "root" / "signals.sqlite";
    state.counters["samples"] = signalsCount(signals, "SELECT COUNT(*) FROM ticks");
    state.counters["front_apps"] = signalsCount(signals, "SELECT COUNT(DISTINCT frontmost_app) FROM ticks");
    state.counters["titles_seen"] =
        signalsCount(signals, "SELECT COUNT(DISTINCT title) FROM windows WHERE title LIKE 'document %'");
    if (state.counters["front_apps"] < 2) state.SkipWithError("the agent did not follow the desk");
}

std::string title(int step) { return "document " + std::to_string(step) + " - reading"; }

void BM_CaptureAgentOnX11(benchmark::State& state) {
    if (auto missing = missingTools({"Xvfb"})) return state.SkipWithError(missing->c_str());
    XvfbDisplay display;
    TestWindows desk(display.name());
    const char* classes[] = {"firefox", "Code", "Slack", "org.gnome.Nautilus", "Evince"};
    std::vector<XWindowId> windows;
    for (int i = 0; i < deskWindows; ++i)
        windows.push_back(desk.create(classes[i % 5], classes[i % 5], "window " + std::to_string(i), 20 * i, 15 * i,
                                      640, 480));
    runAgent(state, {"DISPLAY=" + display.name()}, [&](int step) {
        const XWindowId front = windows[size_t(step) % windows.size()];
        desk.setTitle(front, title(step));
        std::vector<XWindowId> order;
        for (XWindowId w : windows)
            if (w != front) order.push_back(w);
        order.push_back(front);
        desk.publishHints(order, front);
    });
}
BENCHMARK(BM_CaptureAgentOnX11)->UseManualTime()->Unit(benchmark::kSecond)->Iterations(1);

void BM_CaptureAgentOnSway(benchmark::State& state) {
    if (auto missing = SwayDisplay::missing()) return state.SkipWithError(missing->c_str());
    TempDir fifos;
    SwayDisplay sway(fifos / "sway.log");
    std::vector<std::unique_ptr<ChildProcess>> terminals;
    for (int i = 0; i < deskWindows; ++i) {
        const fs::path fifo = fifos / std::to_string(i);
        ::mkfifo(fifo.c_str(), 0600);
        // The shell in the terminal sets the title to each line it reads.
        terminals.push_back(sway.terminal(
            "desk" + std::to_string(i), "window " + std::to_string(i),
            {"sh", "-c", "exec 3<>\"$0\"; while read -r t <&3; do printf '\\033]2;%s\\007' \"$t\"; done", fifo}));
    }
    std::vector<std::string> session;
    for (const auto& [key, value] : sway.environment()) session.push_back(key + "=" + value);
    runAgent(state, session, [&](int step) {
        const int front = step % deskWindows;
        const int fd = ::open((fifos / std::to_string(front)).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        const std::string line = title(step) + "\n";
        if (fd >= 0 && ::write(fd, line.data(), line.size()) < 0) std::perror("fifo");
        if (fd >= 0) ::close(fd);
        sway.command("[app_id=\"desk" + std::to_string(front) + "\"] focus");
    });
}
BENCHMARK(BM_CaptureAgentOnSway)->UseManualTime()->Unit(benchmark::kSecond)->Iterations(1);

// A GTK window of an editor with a typical page of prose, shown for both readers.
struct TextDesk {
    XvfbDisplay display;
    PrivateSessionBus bus;
    std::unique_ptr<GtkTextWindow> window;
    std::string expected;
    TextDesk() {
        std::string body;
        for (int i = 1; i <= 12; ++i)
            body += (i > 1 ? "\n" : "") + std::to_string(i) +
                    ". The quarterly budget review moves to Friday; the design team sends its notes.";
        ::setenv("DISPLAY", display.name().c_str(), 1);
        ::setenv("DBUS_SESSION_BUS_ADDRESS", bus.address().c_str(), 1);
        ::unsetenv("WAYLAND_DISPLAY");
        window = std::make_unique<GtkTextWindow>(display.name(), bus.address(), "Budget - Editor", "Budget review", body);
        expected = "Budget review\n" + body;
    }
};

TextDesk* textDesk(benchmark::State& state) {
    if (auto missing = missingTools({"Xvfb", "dbus-daemon", "/usr/libexec/at-spi-bus-launcher", "maim"})) {
        state.SkipWithError(missing->c_str());
        return nullptr;
    }
    static TextDesk desk;
    return &desk;
}

void BM_WindowTextOCR(benchmark::State& state) {
    TextDesk* desk = textDesk(state);
    if (!desk) return;
    TempDir dir;
    const fs::path shot = dir / "window.png";
    if (!std::holds_alternative<ScreenshotCapture::Captured>(
            ScreenshotCapture::captureRect({100, 100, 640, 300}, shot, 10)))
        return state.SkipWithError("could not capture the window");
    size_t chars = 0;
    for (auto _ : state) {
        const auto read = VisionTextRecognizer::recognizeText(shot, 30);
        if (const auto* text = std::get_if<VisionTextRecognizer::Read>(&read)) chars = text->text.size();
        else return state.SkipWithError("the OCR helper failed");
    }
    state.counters["chars"] = double(chars);
}
BENCHMARK(BM_WindowTextOCR)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1)->Repetitions(9)->ReportAggregatesOnly(true);

void BM_WindowTextAccessibility(benchmark::State& state) {
    TextDesk* desk = textDesk(state);
    if (!desk) return;
    // The window registers on the accessibility bus a moment after it is shown.
    for (int i = 0; i < 100 && !std::holds_alternative<WindowText::Read>(WindowText::readActive(1000)); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    size_t chars = 0;
    for (auto _ : state) {
        const auto read = WindowText::readActive();
        const auto* text = std::get_if<WindowText::Read>(&read);
        if (!text || text->text != desk->expected) return state.SkipWithError("the accessibility bus gave other text");
        chars = text->text.size();
    }
    state.counters["chars"] = double(chars);
}
BENCHMARK(BM_WindowTextAccessibility)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5)->Repetitions(9)->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
