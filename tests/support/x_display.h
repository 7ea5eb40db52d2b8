#pragma once
// A private X server (Xvfb) and windows on it, for tests that need a real screen. Missing programs
// are failures, never skips: these tests are the only proof that capture works.
#include <sys/types.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/screen_rect.h"

namespace aimwise::testing {

inline std::string testWindowProgram() { return AIMWISE_BINARY_DIR "/tests/aimwise-test-window"; }
inline std::string ocrHelperProgram() { return AIMWISE_BINARY_DIR "/bin/aimwise-ocr"; }

// A child process that lives until stopped: an X server, a window program, or an agent under test.
class ChildProcess {
public:
    struct Options {
        // Added to (or replacing entries of) the test's own environment.
        std::map<std::string, std::string> environment;
        // Appended to; empty keeps the test's own standard error.
        std::filesystem::path standardError;
        // A descriptor of the child whose writes firstLine() reads, e.g. 1 or Xvfb's -displayfd.
        int reportFd = -1;
    };

    // argv[0] is looked up in the test's PATH.
    ChildProcess(const std::vector<std::string>& argv, const Options& options);
    ~ChildProcess() { stop(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The first line written to reportFd within `timeoutMs`; empty when none came.
    std::string firstLine(int timeoutMs);
    // SIGTERM, then SIGKILL after five seconds; the exit status, -1 for a signal.
    int stop();
    bool running();

private:
    pid_t pid_ = -1;
    int status_ = -1;
    int reportRead_ = -1;
};

class XvfbDisplay {
public:
    enum class Number {
        // -displayfd: the server takes the first free number and reports it once it accepts clients.
        anyFree,
        // A free number in 400-899, far above the ones -displayfd hands out to parallel tests, so that
        // restart() never finds it taken by another test's server.
        restartable,
    };

    explicit XvfbDisplay(Number number = Number::anyFree, std::filesystem::path log = {});
    const std::string& name() const { return name_; }

    void kill() { server_.reset(); }
    // Starts again on the same display number.
    void restart();

private:
    bool start(const std::string& number);

    std::filesystem::path log_;
    std::string name_;
    std::unique_ptr<ChildProcess> server_;
};

// A window drawn by the aimwise-test-window program, with a class, a place and lines of text; it is
// there when the constructor returns and gone when the object is.
class TestWindow {
public:
    TestWindow(const XvfbDisplay& display, const std::string& windowClass, ScreenRect rect,
               const std::vector<std::string>& lines = {}, double points = 28);

private:
    std::unique_ptr<ChildProcess> process_;
};

// Top-level windows made by the test in its own X connection, with the window manager's part (the
// EWMH stacking list and active window) played by the test too when it asks for it. Only programs
// that link libX11 can use it.
using XWindowId = unsigned long;
class TestWindows {
public:
    explicit TestWindows(const std::string& display);
    ~TestWindows();
    TestWindows(const TestWindows&) = delete;
    TestWindows& operator=(const TestWindows&) = delete;

    XWindowId create(const std::string& instance, const std::string& className, const std::string& title, int x, int y,
                     unsigned width, unsigned height, long pid = 0);
    void setTitle(XWindowId window, const std::string& title);
    void moveResize(XWindowId window, int x, int y, unsigned width, unsigned height);
    void unmap(XWindowId window);
    void setFullscreen(XWindowId window);
    // The window manager's part: stacking bottom to top, and the active window.
    void publishHints(const std::vector<XWindowId>& bottomToTop, XWindowId active);
    void focus(XWindowId window);
    void warpPointer(int x, int y);
    // Counts as input: the server's idle time starts again from zero.
    void resetIdle();

private:
    struct Connection;
    std::unique_ptr<Connection> x_;
};

}  // namespace aimwise::testing
