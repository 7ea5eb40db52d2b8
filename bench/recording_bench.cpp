// What screen recording costs: `aimwise-capture` with recording on against a private 1920x1080 Xvfb
// where a terminal scrolls, someone types and windows move now and then, for
// AIMWISE_RECORDING_BENCH_SECONDS (600 by default, the ten minutes the target speaks of). The
// baseline is the same agent and desktop with recording off, for a fifth of that time.
//
// Counters: CPU of the agent and its ffmpeg together as a percentage of one core, and the agent's own
// share; their resident memory at its peak, split into ffmpeg's anonymous memory (encoder and frame
// buffers), its shared memory (the grabber's image of the screen), its mapped files (libraries) and
// the agent's own; the X server's CPU for answering the grabber; and the sealed bytes, as GB per
// eight-hour day.
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/child_process.h"

namespace {

namespace fs = std::filesystem;
using aimwise::bench::spawnQuietly;
using Clock = std::chrono::steady_clock;

void stop(pid_t pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
}

// Fields of /proc/<pid>/stat, counted from 1 as proc(5) does.
std::vector<std::string> statFields(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), {});
    if (text.empty()) return {};
    std::istringstream rest(text.substr(text.rfind(')') + 2));
    std::vector<std::string> fields{"", "", ""};
    for (std::string field; rest >> field;) fields.push_back(field);
    return fields;
}

// utime + stime, and with `children` also that of the children it has reaped, in seconds.
double cpuSeconds(pid_t pid, bool children = false) {
    const auto f = statFields(pid);
    if (f.size() < 18) return 0;
    double ticks = std::stod(f[14]) + std::stod(f[15]);
    if (children) ticks += std::stod(f[16]) + std::stod(f[17]);
    return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// Fields of /proc/<pid>/smaps_rollup (or status for VmRSS), in MiB.
std::map<std::string, double> memoryMiB(pid_t pid) {
    std::map<std::string, double> out;
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string line; std::getline(in, line);) {
        const size_t colon = line.find(':');
        if (colon != std::string::npos && line.ends_with(" kB"))
            out[line.substr(0, colon)] = std::stod(line.substr(colon + 1)) / 1024.0;
    }
    return out;
}

std::vector<pid_t> childrenOf(pid_t pid) {
    std::vector<pid_t> out;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        std::ifstream in(task.path() / "children");
        for (pid_t child; in >> child;) out.push_back(child);
    }
    return out;
}

// A terminal whose commands print a few screens of output, an editor someone types into, and now
// and then one of the windows moved.
class Desktop {
public:
    explicit Desktop(const std::string& name) {
        for (int attempt = 0; attempt < 100 && !display_; ++attempt)
            if (!(display_ = XOpenDisplay(name.c_str()))) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (!display_) return;
        const Window root = DefaultRootWindow(display_);
        terminal_ = XCreateSimpleWindow(display_, root, 100, 80, 1100, 800, 0, 0, 0x101010);
        XMapWindow(display_, terminal_);
        editor_ = XCreateSimpleWindow(display_, root, 900, 200, 900, 800, 0, 0, 0xfafafa);
        XMapWindow(display_, editor_);
        for (int i = 0; i < 3; ++i) {
            const Window other = XCreateSimpleWindow(display_, root, 150 * i, 500 + 150 * i, 700, 500, 0, 0,
                                                     0xe0e0e0 - 0x202020 * i);
            XMapWindow(display_, other);
            others_.push_back(other);
        }
        gc_ = XCreateGC(display_, terminal_, 0, nullptr);
        XSync(display_, False);
    }
    ~Desktop() {
        if (!display_) return;
        XFreeGC(display_, gc_);
        XCloseDisplay(display_);
    }
    bool ok() const { return display_ != nullptr; }

    // Half a second of activity: output scrolls by for three seconds of every fifteen, a letter or
    // two is typed, and every minute a window moves.
    void step(int step) {
        if (step % 30 < 6) print(4);
        type();
        if (step % 120 == 119) {
            const Window window = others_[size_t(step / 120) % others_.size()];
            XMoveWindow(display_, window, 200 + int(random_() % 1000), int(random_() % 500));
            XRaiseWindow(display_, window);
        }
        XFlush(display_);
    }

private:
    // Lines of glyph-sized marks scrolling up the terminal.
    void print(int lines) {
        constexpr int lineHeight = 18;
        for (int l = 0; l < lines; ++l) {
            XCopyArea(display_, terminal_, terminal_, gc_, 0, lineHeight, 1100, 800 - lineHeight, 0, 0);
            XSetForeground(display_, gc_, 0x101010);
            XFillRectangle(display_, terminal_, gc_, 0, 800 - lineHeight, 1100, lineHeight);
            XSetForeground(display_, gc_, 0xd0d0d0);
            marks(terminal_, 800 - lineHeight + 4, 3 + int(random_() % 12));
        }
    }
    void type() {
        XSetForeground(display_, gc_, 0x202020);
        XFillRectangle(display_, editor_, gc_, caretX_, caretY_, 7, 11);
        caretX_ += 9 + (random_() % 5 == 0 ? 9 : 0);
        if (caretX_ > 860) caretX_ = 10, caretY_ = caretY_ > 760 ? 10 : caretY_ + 18;
    }
    void marks(Window window, int y, int words) {
        int x = 8;
        for (int w = 0; w < words && x < 1080; ++w) {
            const int letters = 2 + int(random_() % 9);
            for (int c = 0; c < letters; ++c, x += 9) XFillRectangle(display_, window, gc_, x, y, 7, 10 + int(random_() % 3));
            x += 9;
        }
    }

private:
    Display* display_ = nullptr;
    Window terminal_ = 0, editor_ = 0;
    std::vector<Window> others_;
    int caretX_ = 10, caretY_ = 10;
    GC gc_{};
    std::minstd_rand random_{7};
};

struct Session {
    fs::path home;
    pid_t xvfb = -1;
    std::string display;
};

bool startXvfb(Session& session) {
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) return false;
    session.xvfb = spawnQuietly({"Xvfb", "-displayfd", "3", "-screen", "0", "1920x1080x24", "-nolisten", "tcp", "-noreset"},
                                {}, report[1], 3);
    ::close(report[1]);
    std::string number;
    pollfd waiting{report[0], POLLIN, 0};
    char buffer[32];
    while (session.xvfb > 0 && number.find('\n') == std::string::npos && ::poll(&waiting, 1, 15000) == 1) {
        const ssize_t got = ::read(report[0], buffer, sizeof buffer);
        if (got <= 0) break;
        number.append(buffer, size_t(got));
    }
    ::close(report[0]);
    if (number.find('\n') == std::string::npos) return false;
    session.display = ":" + number.substr(0, number.find('\n'));
    return true;
}

int configuredSeconds() {
    const char* configured = std::getenv("AIMWISE_RECORDING_BENCH_SECONDS");
    return configured ? std::max(30, std::atoi(configured)) : 600;
}

double notRecordingCpuPercent = 0;

void runAgent(benchmark::State& state, bool recording) {
    const int seconds = recording ? configuredSeconds() : std::max(30, configuredSeconds() / 5);
    std::string pattern = (fs::temp_directory_path() / "recording-bench-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) return state.SkipWithError("no temporary directory");
    Session session{pattern};
    const fs::path support = session.home / "data/AimCapture", root = session.home / "root";
    fs::create_directories(support);
    fs::create_directories(root / "video");
    std::ofstream(support / "recording.json") << (recording ? R"({"enabled": true})" : R"({"enabled": false})");

    for (auto _ : state) {
        if (!startXvfb(session)) {
            stop(session.xvfb);
            return state.SkipWithError("Xvfb did not start (scripts/setup installs it)");
        }
        auto desktop = std::make_unique<Desktop>(session.display);
        if (!desktop->ok()) {
            stop(session.xvfb);
            return state.SkipWithError("cannot open the Xvfb display");
        }
        const std::string agentPath = (fs::read_symlink("/proc/self/exe").parent_path() / "aimwise-capture").string();
        const pid_t agent = spawnQuietly({agentPath}, {"DISPLAY=" + session.display, "HOME=" + session.home.string(),
                                                       "XDG_DATA_HOME=" + (session.home / "data").string(),
                                                       "XDG_STATE_HOME=" + (session.home / "state").string(),
                                                       "AIMCAP_DATA_ROOT=" + root.string(), "PATH=/usr/bin:/bin"});
        const double xvfbBefore = cpuSeconds(session.xvfb);
        std::map<std::string, double> peak;
        const auto start = Clock::now();
        for (int step = 0; Clock::now() - start < std::chrono::seconds(seconds); ++step) {
            desktop->step(step);
            if (step % 20 == 10) {
                // Memory while it runs, the largest total seen.
                std::map<std::string, double> now{{"agent", memoryMiB(agent)["Rss"]}};
                for (pid_t child : childrenOf(agent)) {
                    auto m = memoryMiB(child);
                    now["ffmpeg"] = m["Rss"], now["anon"] = m["Anonymous"], now["shm"] = m["Pss_Shmem"],
                    now["file"] = m["Rss"] - m["Anonymous"] - m["Pss_Shmem"];
                }
                if (now["agent"] + now["ffmpeg"] > peak["agent"] + peak["ffmpeg"]) peak = now;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        const double agentCpu = cpuSeconds(agent);
        double cpu = cpuSeconds(agent, true);
        for (pid_t child : childrenOf(agent)) cpu += cpuSeconds(child);
        const double xvfbCpu = cpuSeconds(session.xvfb) - xvfbBefore;
        stop(agent);
        desktop.reset();
        stop(session.xvfb);

        uintmax_t sealed = 0;
        int files = 0;
        if (fs::exists(root / "video/display-1"))
            for (const auto& file : fs::directory_iterator(root / "video/display-1"))
                if (file.path().string().ends_with(".ts.sealed")) sealed += file.file_size(), ++files;
        state.SetIterationTime(elapsed);
        const double percent = cpu / elapsed * 100.0;
        state.counters["cpu_percent_of_core"] = percent;
        state.counters["agent_own_cpu_percent"] = agentCpu / elapsed * 100.0;
        state.counters["xvfb_cpu_percent"] = xvfbCpu / elapsed * 100.0;
        state.counters["peak_rss_MiB"] = peak["agent"] + peak["ffmpeg"];
        state.counters["agent_rss_MiB"] = peak["agent"];
        if (!recording) {
            notRecordingCpuPercent = percent;
            continue;
        }
        state.counters["ffmpeg_anon_MiB"] = peak["anon"];
        state.counters["ffmpeg_shm_MiB"] = peak["shm"];
        state.counters["ffmpeg_files_MiB"] = peak["file"];
        state.counters["GB_per_8h_day"] = double(sealed) / elapsed * 8 * 3600 / 1e9;
        state.counters["files"] = files;
        if (notRecordingCpuPercent > 0) state.counters["cpu_ratio_vs_not_recording"] = percent / notRecordingCpuPercent;
        if (sealed == 0) state.SkipWithError("nothing was recorded");
    }
    std::error_code ignored;
    fs::remove_all(session.home, ignored);
}

void BM_AgentNotRecording(benchmark::State& state) { runAgent(state, false); }
void BM_AgentRecording(benchmark::State& state) { runAgent(state, true); }
BENCHMARK(BM_AgentNotRecording)->UseManualTime()->Unit(benchmark::kSecond)->Iterations(1);
BENCHMARK(BM_AgentRecording)->UseManualTime()->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
