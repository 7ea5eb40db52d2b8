// aimwise-capture: the long-running capture agent of an X11 or Wayland desktop.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

#include "CaptureShared/common/environment.h"
#include "CaptureShared/dataroot/agent_logging.h"
#include "CaptureShared/dataroot/agent_umask.h"
#include "agents/capture/capture_agent.h"
#include "platform/desktop_session.h"

namespace {

std::atomic<bool> stopRequested{false};

void requestStop(int) { stopRequested.store(true); }

const char* const usage =
    "usage: aimwise-capture [--once] [--display NAME] [--interval-ms N] [--root-retry-sec N]\n"
    "Samples the front window, the on-screen windows, idle time and power every 1.5 s into\n"
    "signals.sqlite in the data root.\n";

bool parseNumber(const char* text, int64_t& out) {
    const char* end = text + std::strlen(text);
    const auto [ptr, error] = std::from_chars(text, end, out);
    return error == std::errc() && ptr == end && out > 0;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace aimwise;
    AgentUmask::apply();

    CaptureOptions options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        int64_t number = 0;
        if (arg == "--once") {
            options.once = true;
        } else if (arg == "--display" && hasValue) {
            options.display = argv[++i];
        } else if (arg == "--interval-ms" && hasValue && parseNumber(argv[i + 1], number)) {
            options.intervalMs = number;
            ++i;
        } else if (arg == "--root-retry-sec" && hasValue && parseNumber(argv[i + 1], number)) {
            options.rootRetryMs = number * 1000;
            ++i;
        } else if (arg == "--help" || arg == "-h") {
            std::fputs(usage, stdout);
            return 0;
        } else {
            std::fprintf(stderr, "aimwise-capture: unknown or incomplete argument \"%s\"\n%s", arg.c_str(), usage);
            return 2;
        }
    }

    AgentLogging::bootstrap("AimwiseCapture", "capture", 8u << 20, 300.0);

    const Environment environment = processEnvironment();
    options.environment = environment;
    if (desktopKindFor(environment) == DesktopKind::x11 && options.display.empty() &&
        lookup(environment, "DISPLAY").value_or("").empty()) {
        // The service manager restarts the agent, and a restart picks up a DISPLAY that the
        // desktop session imported in the meantime.
        std::fputs("aimwise-capture: no X display: DISPLAY is not set. A desktop session usually hands it to "
                   "user services; otherwise run: systemctl --user import-environment DISPLAY XAUTHORITY\n",
                   stderr);
        return 1;
    }
    options.sessionLock.sessionId = lookup(environment, "XDG_SESSION_ID");
    options.sessionLock.userId = getuid();

    struct sigaction action{};
    action.sa_handler = requestStop;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    // A dead X server must not kill us through a write on its socket.
    signal(SIGPIPE, SIG_IGN);

    return runCaptureAgent(options, stopRequested, Clock::system());
}
