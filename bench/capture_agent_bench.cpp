// What the capture agent costs while it runs all day: `aimwise-capture` at its own interval against
// a private Xvfb with 20 windows whose focus and titles change every few seconds, for
// AIMWISE_CAPTURE_BENCH_SECONDS (120 by default; 3600 for the hour the target speaks of). Counters:
// the agent's CPU seconds per hour of running, its resident memory at the end and at its peak, and
// the samples it wrote. The X server's own CPU per hour is the baseline: what answering the agent's
// questions costs the display. With AIMWISE_CAPTURE_BENCH_BASELINE=<another aimwise-capture>, that
// agent runs as well in the same process, for a ratio against an earlier build.
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sqlite3.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>


#include "bench/child_process.h"

namespace {

namespace fs = std::filesystem;

using aimwise::bench::spawnQuietly;

void stop(pid_t pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
}

// utime + stime of a live process, in seconds.
double cpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), {});
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int index = 3; fields >> field; ++index)
        if (index == 14 || index == 15) ticks += std::stod(field);
    return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// A line of /proc/<pid>/status such as VmRSS, in MiB.
double statusMiB(pid_t pid, const std::string& key) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(key + ":")) return std::stod(line.substr(key.size() + 1)) / 1024.0;
    return 0;
}

double tickRows(const fs::path& database) {
    sqlite3* db = nullptr;
    double rows = 0;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(db, "SELECT COUNT(*) FROM ticks", -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW)
        rows = static_cast<double>(sqlite3_column_int64(statement, 0));
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return rows;
}

// Twenty top-level windows with the window manager's hints, and a person moving between them.
class Desk {
public:
    explicit Desk(const std::string& display) {
        // The server names its display a moment before it takes clients.
        for (int attempt = 0; attempt < 100 && !display_; ++attempt) {
            if (!(display_ = XOpenDisplay(display.c_str())))
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (!display_) return;
        const Window root = DefaultRootWindow(display_);
        const char* classes[] = {"firefox", "Code", "Slack", "org.gnome.Nautilus", "Evince"};
        for (int i = 0; i < 20; ++i) {
            const Window window = XCreateSimpleWindow(display_, root, 20 * i, 15 * i, 640, 480, 0, 0, 0xffffff);
            std::string instance = classes[i % 5], className = classes[i % 5];
            XClassHint hint{instance.data(), className.data()};
            XSetClassHint(display_, window, &hint);
            XMapWindow(display_, window);
            windows_.push_back(window);
            setTitle(window, "window " + std::to_string(i));
        }
        XSync(display_, False);
    }
    ~Desk() {
        if (display_) XCloseDisplay(display_);
    }
    bool ok() const { return display_ != nullptr; }

    // Brings window `step % 20` to the front and retitles it, as switching and reading would.
    void step(int step) {
        const Window front = windows_[static_cast<size_t>(step) % windows_.size()];
        // Every fifth title carries a card number, for the agent to clean before it keeps it.
        setTitle(front, step % 5 == 0 ? "Payment 4111 1111 1111 " + std::to_string(1000 + step % 9000) + " - checkout"
                                      : "document " + std::to_string(step) + " - reading");
        std::vector<long> stacking;
        for (Window w : windows_)
            if (w != front) stacking.push_back(static_cast<long>(w));
        stacking.push_back(static_cast<long>(front));
        const Window root = DefaultRootWindow(display_);
        XChangeProperty(display_, root, atom("_NET_CLIENT_LIST_STACKING"), XA_WINDOW, 32, PropModeReplace,
                        reinterpret_cast<unsigned char*>(stacking.data()), static_cast<int>(stacking.size()));
        long active = static_cast<long>(front);
        XChangeProperty(display_, root, atom("_NET_ACTIVE_WINDOW"), XA_WINDOW, 32, PropModeReplace,
                        reinterpret_cast<unsigned char*>(&active), 1);
        XRaiseWindow(display_, front);
        XSync(display_, False);
    }

private:
    Atom atom(const char* name) { return XInternAtom(display_, name, False); }
    void setTitle(Window window, const std::string& title) {
        XChangeProperty(display_, window, atom("_NET_WM_NAME"), atom("UTF8_STRING"), 8, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(title.data()), static_cast<int>(title.size()));
    }

    Display* display_ = nullptr;
    std::vector<Window> windows_;
};

void runAgent(benchmark::State& state, const std::string& agent) {
    const char* configured = std::getenv("AIMWISE_CAPTURE_BENCH_SECONDS");
    const int seconds = configured ? std::max(10, std::atoi(configured)) : 120;
    std::string pattern = (fs::temp_directory_path() / "capture-bench-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) return state.SkipWithError("no temporary directory");
    const fs::path home = pattern;
    fs::create_directories(home / "root");
    // As `aimwise init` prepares a root: the agent starts signals.sqlite only in a prepared one.
    std::ofstream(home / "root" / "manifest.json") << "{}\n";

    for (auto _ : state) {
        int report[2];
        if (::pipe2(report, O_CLOEXEC) != 0) return state.SkipWithError("pipe failed");
        const pid_t xvfb = spawnQuietly({"Xvfb", "-displayfd", "3", "-screen", "0", "1920x1080x24", "-nolisten", "tcp",
                                  "-noreset"},
                                 {}, report[1], 3);
        ::close(report[1]);
        // The number and its newline may come in separate writes; closing early would make the second fail.
        std::string number;
        pollfd waiting{report[0], POLLIN, 0};
        char buffer[32];
        while (xvfb > 0 && number.find('\n') == std::string::npos && ::poll(&waiting, 1, 15000) == 1) {
            const ssize_t got = ::read(report[0], buffer, sizeof buffer);
            if (got <= 0) break;
            number.append(buffer, size_t(got));
        }
        ::close(report[0]);
        if (number.find('\n') == std::string::npos) {
            stop(xvfb);
            return state.SkipWithError("Xvfb did not start (scripts/setup installs it)");
        }
        const std::string display = ":" + number.substr(0, number.find('\n'));
        auto desk = std::make_unique<Desk>(display);  // closed before the server goes
        if (!desk->ok()) {
            stop(xvfb);
            return state.SkipWithError(("cannot open the Xvfb display " + display).c_str());
        }

        const pid_t capture = spawnQuietly({agent},
                                    {"DISPLAY=" + display, "HOME=" + home.string(),
                                     "XDG_DATA_HOME=" + (home / "data").string(),
                                     "XDG_STATE_HOME=" + (home / "state").string(),
                                     "XDG_CONFIG_HOME=" + (home / "config").string(),
                                     "AIMCAP_DATA_ROOT=" + (home / "root").string(), "PATH=/usr/bin:/bin"},
                                    -1, -1);
        const double xvfbBefore = cpuSeconds(xvfb);
        const auto start = std::chrono::steady_clock::now();
        for (int step = 0; std::chrono::steady_clock::now() - start < std::chrono::seconds(seconds); ++step) {
            desk->step(step);
            std::this_thread::sleep_for(std::chrono::seconds(4));
        }
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const double agentCPU = cpuSeconds(capture);
        state.SetIterationTime(elapsed);
        state.counters["agent_cpu_s_per_hour"] = agentCPU / elapsed * 3600.0;
        state.counters["xvfb_cpu_s_per_hour"] = (cpuSeconds(xvfb) - xvfbBefore) / elapsed * 3600.0;
        state.counters["agent_rss_MiB"] = statusMiB(capture, "VmRSS");
        state.counters["agent_peak_rss_MiB"] = statusMiB(capture, "VmHWM");
        stop(capture);
        desk.reset();
        stop(xvfb);
        const double samples = tickRows(home / "root" / "signals.sqlite");
        state.counters["samples"] = samples;
        if (samples == 0) state.SkipWithError("the agent wrote no signals");
    }
    std::error_code ignored;
    fs::remove_all(home, ignored);
}
}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const std::string built = (fs::read_symlink("/proc/self/exe").parent_path() / "aimwise-capture").string();
    std::vector<std::pair<std::string, std::string>> agents{{"BM_CaptureAgentRunning", built}};
    if (const char* baseline = std::getenv("AIMWISE_CAPTURE_BENCH_BASELINE"))
        agents.emplace_back("BM_CaptureAgentRunning_baseline", baseline);
    for (const auto& [name, agent] : agents)
        benchmark::RegisterBenchmark(name.c_str(), [agent](benchmark::State& state) { runAgent(state, agent); })
            ->UseManualTime()
            ->Unit(benchmark::kSecond)
            ->Iterations(1);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
