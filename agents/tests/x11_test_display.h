#pragma once
// A private Xvfb server and real X clients for the capture agent's tests. Xvfb is required: a
// machine without it fails these tests rather than skipping them (scripts/setup installs it).
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <random>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace aimwise::testing {

// A child process that lives until stopped: the X server or the agent under test.
class BackgroundProcess {
public:
    BackgroundProcess(const std::vector<std::string>& argv, const std::map<std::string, std::string>& environment,
                      const std::filesystem::path& standardError, int passFd = -1) {
        std::vector<std::string> env;
        for (char** e = environ; e && *e; ++e) {
            const std::string entry = *e;
            if (!environment.contains(entry.substr(0, entry.find('=')))) env.push_back(entry);
        }
        for (const auto& [key, value] : environment) env.push_back(key + "=" + value);
        std::vector<char*> args, envp;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
        envp.push_back(nullptr);
        pid_ = fork();
        if (pid_ < 0) throw std::runtime_error("fork failed");
        if (pid_ == 0) {
            const int err = open(standardError.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
            if (err >= 0) dup2(err, STDERR_FILENO);
            const int null = open("/dev/null", O_RDWR);
            dup2(null, STDIN_FILENO);
            dup2(null, STDOUT_FILENO);
            if (passFd >= 0) fcntl(passFd, F_SETFD, 0);
            execve(args[0], args.data(), envp.data());
            _exit(127);
        }
    }
    ~BackgroundProcess() { stop(); }
    BackgroundProcess(const BackgroundProcess&) = delete;
    BackgroundProcess& operator=(const BackgroundProcess&) = delete;

    pid_t pid() const { return pid_; }
    // SIGTERM, then SIGKILL after five seconds; returns the exit status (-1 for a signal).
    int stop() {
        if (pid_ <= 0) return status_;
        kill(pid_, SIGTERM);
        int status = 0;
        for (int i = 0; i < 100; ++i) {
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return status_ = -1;
    }
    bool running() {
        if (pid_ <= 0) return false;
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            return false;
        }
        return true;
    }

private:
    pid_t pid_ = -1;
    int status_ = -1;
};

inline std::string findXvfb() {
    for (const char* candidate : {"/usr/bin/Xvfb", "/usr/local/bin/Xvfb"})
        if (access(candidate, X_OK) == 0) return candidate;
    throw std::runtime_error("Xvfb is not installed; run scripts/setup (package xvfb). The X11 tests cannot run.");
}

// Xvfb on a free display number far above the ones `Xvfb -displayfd` hands out to the other test
// programs, so that a restart on the same number never finds it taken by another test's server.
class XvfbServer {
public:
    explicit XvfbServer(const std::filesystem::path& logDirectory) : log_(logDirectory / "xvfb.log") {
        std::mt19937 random(std::random_device{}());
        for (int attempt = 0; attempt < 20; ++attempt) {
            const int number = 400 + static_cast<int>(random() % 500);
            if (std::filesystem::exists("/tmp/.X" + std::to_string(number) + "-lock")) continue;
            name_ = ":" + std::to_string(number);
            start({name_}, -1);
            try {
                waitUntilReady();
                return;
            } catch (const std::runtime_error&) {
                process_.reset();  // another server took the number first; try another
            }
        }
        throw std::runtime_error("Xvfb found no free display number; see " + log_.string());
    }

    const std::string& name() const { return name_; }

    void kill() { process_.reset(); }
    // Starts again on the same display number.
    void restart() {
        process_.reset();
        start({name_}, -1);
        waitUntilReady();
    }

private:
    void start(std::vector<std::string> extra, int passFd) {
        std::vector<std::string> argv{findXvfb()};
        argv.insert(argv.end(), extra.begin(), extra.end());
        for (const char* arg : {"-screen", "0", "1280x800x24", "-nolisten", "tcp", "-noreset"}) argv.push_back(arg);
        process_ = std::make_unique<BackgroundProcess>(argv, std::map<std::string, std::string>{}, log_, passFd);
    }
    void waitUntilReady() {
        for (int i = 0; i < 200; ++i) {
            if (Display* display = XOpenDisplay(name_.c_str())) {
                XCloseDisplay(display);
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        throw std::runtime_error("Xvfb " + name_ + " did not accept connections; see " + log_.string());
    }

    std::filesystem::path log_;
    std::string name_;
    std::unique_ptr<BackgroundProcess> process_;
};

// Top-level windows made by the test, with the window manager's part (the EWMH stacking list and
// active window) played by the test too when it asks for it.
class TestWindows {
public:
    explicit TestWindows(const std::string& display) : display_(XOpenDisplay(display.c_str())) {
        if (!display_) throw std::runtime_error("cannot open " + display);
        root_ = DefaultRootWindow(display_);
    }
    ~TestWindows() {
        if (display_) XCloseDisplay(display_);
    }

    Window create(const std::string& instance, const std::string& className, const std::string& title, int x, int y,
                  unsigned width, unsigned height, long pid = 0) {
        Window window = XCreateSimpleWindow(display_, root_, x, y, width, height, 0, 0, 0xffffff);
        XClassHint hint{const_cast<char*>(instance.c_str()), const_cast<char*>(className.c_str())};
        XSetClassHint(display_, window, &hint);
        setTitle(window, title);
        if (pid) XChangeProperty(display_, window, atom("_NET_WM_PID"), XA_CARDINAL, 32, PropModeReplace,
                                 reinterpret_cast<unsigned char*>(&pid), 1);
        XMapWindow(display_, window);
        windows_.push_back(window);
        XSync(display_, False);
        return window;
    }
    void setTitle(Window window, const std::string& title) {
        XChangeProperty(display_, window, atom("_NET_WM_NAME"), atom("UTF8_STRING"), 8, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(title.data()), static_cast<int>(title.size()));
        XSync(display_, False);
    }
    void moveResize(Window window, int x, int y, unsigned width, unsigned height) {
        XMoveResizeWindow(display_, window, x, y, width, height);
        XSync(display_, False);
    }
    void unmap(Window window) {
        XUnmapWindow(display_, window);
        XSync(display_, False);
    }
    void setFullscreen(Window window) {
        Atom state = atom("_NET_WM_STATE_FULLSCREEN");
        XChangeProperty(display_, window, atom("_NET_WM_STATE"), XA_ATOM, 32, PropModeReplace,
                        reinterpret_cast<unsigned char*>(&state), 1);
        XSync(display_, False);
    }
    // The window manager's part: stacking bottom to top, and the active window.
    void publishHints(const std::vector<Window>& bottomToTop, Window active) {
        std::vector<long> ids(bottomToTop.begin(), bottomToTop.end());
        XChangeProperty(display_, root_, atom("_NET_CLIENT_LIST_STACKING"), XA_WINDOW, 32, PropModeReplace,
                        reinterpret_cast<unsigned char*>(ids.data()), static_cast<int>(ids.size()));
        long activeId = static_cast<long>(active);
        XChangeProperty(display_, root_, atom("_NET_ACTIVE_WINDOW"), XA_WINDOW, 32, PropModeReplace,
                        reinterpret_cast<unsigned char*>(&activeId), 1);
        XSync(display_, False);
    }
    void focus(Window window) {
        XSetInputFocus(display_, window, RevertToParent, CurrentTime);
        XSync(display_, False);
    }
    void warpPointer(int x, int y) {
        XWarpPointer(display_, None, root_, 0, 0, 0, 0, x, y);
        XSync(display_, False);
    }
    // Counts as input: the server's idle time starts again from zero.
    void resetIdle() {
        XForceScreenSaver(display_, ScreenSaverReset);
        XSync(display_, False);
    }
    Display* display() const { return display_; }

private:
    Atom atom(const char* name) { return XInternAtom(display_, name, False); }
    Display* display_;
    Window root_ = 0;
    std::vector<Window> windows_;
};

}  // namespace aimwise::testing
