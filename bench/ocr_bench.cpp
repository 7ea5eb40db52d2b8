// The OCR helper on three windows rendered on a private Xvfb and captured as the tick captures them
// (a terminal, a text editor at 11 px, a dense web page), each run a child process as the tick runs
// it. Time is the helper's wall time; counters its CPU, its peak resident set and its word accuracy:
// the share of the rendered words that come back exactly, each counted as often as it was drawn.
//
// AIMWISE_OCR_BENCH_IMAGES, when set, keeps the captured windows and their words there.
//
// BM_Baseline runs the same helper as it read before: the engine's own OpenMP threads and the fixed
// threefold upscale that small windows got. BM_TwoBands reads the page as two bands at once
// (AIMCAP_OCR_BANDS=2), to price them: wall time against CPU and memory.
#include <X11/Xft/Xft.h>
#include <X11/Xlib.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
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
#include "platform/screenshot_capture.h"

namespace {

namespace fs = std::filesystem;

struct Run {
    double wallSec = 0, cpuSec = 0;
    long maxRSSKiB = 0;
    std::string text;
};

// The helper on `image`, its standard output kept.
Run runHelper(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
              const fs::path& output) {
    std::vector<char*> argv, envp;
    for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    for (const auto& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) std::abort();
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    rusage usage{};
    ::wait4(pid, &status, 0, &usage);
    Run run;
    run.wallSec = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    run.cpuSec = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    run.maxRSSKiB = usage.ru_maxrss;
    std::ifstream in(output);
    run.text.assign(std::istreambuf_iterator<char>(in), {});
    return run;
}

std::vector<std::string> words(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> found;
    for (std::string word; in >> word;) found.push_back(word);
    return found;
}

double wordAccuracy(const std::vector<std::string>& expected, const std::string& read) {
    std::map<std::string, int> available;
    for (const auto& word : words(read)) ++available[word];
    int matched = 0;
    for (const auto& word : expected)
        if (available[word]-- > 0) ++matched;
    return expected.empty() ? 0 : static_cast<double>(matched) / static_cast<double>(expected.size());
}

// --- the windows -----------------------------------------------------------------------------

struct Text {
    int x, y;          // baseline origin
    std::string font;  // an Xft pattern
    std::string colour;
    std::string line;
};

struct Window {
    std::string name;
    int width, height;
    std::string background;
    std::vector<Text> texts;
    std::vector<std::string> expectedWords() const {
        std::vector<std::string> all;
        for (const Text& text : texts)
            for (auto& word : words(text.line)) all.push_back(std::move(word));
        return all;
    }
};

const std::vector<std::string> vocabulary{
    "the",     "report",   "quarterly", "revenue", "grew",     "while",    "costs",   "fell",     "across",
    "every",   "region",   "team",      "meeting", "notes",    "schedule", "project", "review",   "deadline",
    "budget",  "design",   "customer",  "support", "release",  "version",  "update",  "security", "network",
    "server",  "database", "analysis",  "market",  "growth",   "strategy", "product", "feature",  "request",
    "summary", "morning",  "evening",   "weekend", "holiday",  "travel",   "weather", "forecast", "garden",
    "kitchen", "recipe",   "history",   "science", "research", "library",  "student", "teacher",  "lesson",
    "and",     "with",     "from",      "into",    "about",    "after",    "before",  "between",  "under"};

std::string sentence(std::mt19937& random, int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += (i ? " " : "") + vocabulary[random() % vocabulary.size()];
    return text;
}

Window terminal() {
    Window window{"terminal", 900, 700, "#1e1e1e", {}};
    std::mt19937 random(11);
    const std::string font = "DejaVu Sans Mono:pixelsize=14";
    const char* commands[] = {"git status", "ls -la src", "make test", "grep -rn budget notes",
                              "cat summary.txt"};
    int y = 22;
    for (int i = 0; y < window.height - 10; ++i) {
        const bool prompt = i % 4 == 0;
        const std::string line = prompt ? std::string("alex@desk:~/project$ ") + commands[(i / 4) % 5]
                                        : std::to_string(1000 + random() % 9000) + " " + sentence(random, 5);
        window.texts.push_back({8, y, font, prompt ? "#8ae234" : "#d3d7cf", line});
        y += 19;
    }
    return window;
}

Window editor() {
    Window window{"editor-11px", 900, 700, "#ffffff", {}};
    std::mt19937 random(7);
    const std::string font = "DejaVu Sans Mono:pixelsize=11";
    int y = 16;
    for (int line = 1; y < window.height - 6; ++line) {
        window.texts.push_back({6, y, font, "#999999", std::to_string(line)});
        window.texts.push_back(
            {44 + static_cast<int>(random() % 3) * 24, y, font, "#202020", sentence(random, 7)});
        y += 15;
    }
    return window;
}

Window webPage() {
    Window window{"dense-web-page", 1200, 900, "#ffffff", {}};
    std::mt19937 random(3);
    const std::string body = "DejaVu Sans:pixelsize=13", small = "DejaVu Sans:pixelsize=12";
    window.texts.push_back({20, 34, "DejaVu Sans:bold:pixelsize=24", "#111111", "Quarterly market review"});
    for (int i = 0; i < 6; ++i)
        window.texts.push_back(
            {20 + i * 130, 64, small, "#1a0dab", sentence(random, 1) + " " + sentence(random, 1)});
    // Two columns of paragraphs and a sidebar, as a news page crowds them.
    for (int column = 0; column < 2; ++column)
        for (int y = 100; y < window.height - 10; y += 18)
            window.texts.push_back({20 + column * 420, y, body, "#222222", sentence(random, 6)});
    for (int y = 100; y < window.height - 10; y += 17)
        window.texts.push_back({880, y, small, "#555555", sentence(random, 4)});
    return window;
}

// A private X server with the windows drawn on it and captured as PNG files.
class Screens {
  public:
    Screens() {
        int report[2];
        if (::pipe(report) != 0) return;
        xvfb_ = aimwise::bench::spawnQuietly(
            {"Xvfb", "-displayfd", "3", "-screen", "0", "1920x1080x24", "-nolisten", "tcp", "-noreset"}, {},
            report[1], 3);
        ::close(report[1]);
        std::string number;
        pollfd waiting{report[0], POLLIN, 0};
        char buffer[32];
        while (xvfb_ > 0 && number.find('\n') == std::string::npos && ::poll(&waiting, 1, 15000) == 1) {
            const ssize_t got = ::read(report[0], buffer, sizeof buffer);
            if (got <= 0) break;
            number.append(buffer, size_t(got));
        }
        ::close(report[0]);
        if (number.empty()) return;
        const std::string display = ":" + number.substr(0, number.find('\n'));
        ::setenv("DISPLAY", display.c_str(), 1);
        display_ = XOpenDisplay(display.c_str());
        if (!display_) return;
        if (const char* kept = std::getenv("AIMWISE_OCR_BENCH_IMAGES")) {
            directory_ = kept;
            keep_ = true;
            fs::create_directories(directory_);
        } else {
            std::string pattern = (fs::temp_directory_path() / "ocr-bench-XXXXXX").string();
            if (!::mkdtemp(pattern.data())) return;
            directory_ = pattern;
        }
        for (const Window& window : {terminal(), editor(), webPage()}) {
            const fs::path png = directory_ / (window.name + ".png");
            if (!draw(window, png)) return;
            images_.push_back({window.name, png, window.expectedWords()});
            if (keep_) {
                std::ofstream words(directory_ / (window.name + ".txt"));
                for (const auto& word : images_.back().words) words << word << '\n';
            }
        }
    }
    ~Screens() {
        if (display_) XCloseDisplay(display_);
        if (xvfb_ > 0) {
            ::kill(xvfb_, SIGTERM);
            ::waitpid(xvfb_, nullptr, 0);
        }
        if (!directory_.empty() && !keep_) fs::remove_all(directory_);
    }

    struct Image {
        std::string name;
        fs::path png;
        std::vector<std::string> words;
    };
    const std::vector<Image>& images() const { return images_; }
    const fs::path& directory() const { return directory_; }

  private:
    bool draw(const Window& window, const fs::path& png) {
        const int screen = DefaultScreen(display_);
        Visual* visual = DefaultVisual(display_, screen);
        const Colormap colormap = DefaultColormap(display_, screen);
        XftColor background;
        XftColorAllocName(display_, visual, colormap, window.background.c_str(), &background);
        XSetWindowAttributes attributes{};
        attributes.background_pixel = background.pixel;
        attributes.override_redirect = True;
        const ::Window id = XCreateWindow(display_, RootWindow(display_, screen), 0, 0, window.width,
                                          window.height, 0, CopyFromParent, InputOutput, CopyFromParent,
                                          CWBackPixel | CWOverrideRedirect, &attributes);
        XMapRaised(display_, id);
        XSync(display_, False);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        XftDraw* draw = XftDrawCreate(display_, id, visual, colormap);
        for (const Text& text : window.texts) {
            XftFont* font = XftFontOpenName(display_, screen, text.font.c_str());
            XftColor ink;
            XftColorAllocName(display_, visual, colormap, text.colour.c_str(), &ink);
            XftDrawStringUtf8(draw, &ink, font, text.x, text.y,
                              reinterpret_cast<const FcChar8*>(text.line.data()),
                              static_cast<int>(text.line.size()));
            XftFontClose(display_, font);
        }
        XSync(display_, False);
        const auto captured = aimwise::ScreenshotCapture::captureRect(
            {0, 0, static_cast<double>(window.width), static_cast<double>(window.height)}, png, 10.0);
        XftDrawDestroy(draw);
        XDestroyWindow(display_, id);
        XSync(display_, False);
        return std::holds_alternative<aimwise::ScreenshotCapture::Captured>(captured);
    }

    pid_t xvfb_ = -1;
    Display* display_ = nullptr;
    fs::path directory_;
    bool keep_ = false;
    std::vector<Image> images_;
};

const Screens& screens() {
    static const Screens made;
    return made;
}

std::string helper() {
    return AIMWISE_BINARY_DIR "/bin/aimwise-ocr";
}

void readWindow(benchmark::State& state, const std::vector<std::string>& extraArguments,
                const std::vector<std::string>& environment) {
    const auto& images = screens().images();
    if (images.size() != 3)
        return state.SkipWithError("the windows could not be drawn and captured (Xvfb, maim)");
    const auto& image = images.at(static_cast<size_t>(state.range(0)));
    state.SetLabel(image.name);
    std::vector<std::string> arguments{helper()};
    arguments.insert(arguments.end(), extraArguments.begin(), extraArguments.end());
    arguments.push_back(image.png.string());
    double cpu = 0, accuracy = 0;
    long rss = 0;
    for (auto _ : state) {
        const Run run = runHelper(arguments, environment, screens().directory() / "read.txt");
        state.SetIterationTime(run.wallSec);
        cpu += run.cpuSec;
        rss = std::max(rss, run.maxRSSKiB);
        accuracy = wordAccuracy(image.words, run.text);
    }
    const double iterations = static_cast<double>(state.iterations());
    state.counters["cpu_ms"] = cpu * 1000 / iterations;
    state.counters["maxRSS_MB"] = static_cast<double>(rss) / 1024.0;
    state.counters["word_accuracy_pct"] = accuracy * 100;
    state.counters["words"] = static_cast<double>(image.words.size());
}

void BM_Helper(benchmark::State& state) {
    readWindow(state, {}, {});
}
BENCHMARK(BM_Helper)->DenseRange(0, 2)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_TwoBands(benchmark::State& state) {
    readWindow(state, {}, {"AIMCAP_OCR_BANDS=2"});
}
BENCHMARK(BM_TwoBands)->DenseRange(0, 2)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_Baseline(benchmark::State& state) {
    readWindow(
        state, {"--upscale", "3"},
        {"OMP_THREAD_LIMIT=" + std::to_string(std::thread::hardware_concurrency())});
}
BENCHMARK(BM_Baseline)->DenseRange(0, 2)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
