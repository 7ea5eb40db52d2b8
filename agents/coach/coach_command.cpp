#include "agents/coach/coach_command.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>

#include "AimwiseCore/coach/gate_message_source.h"
#include "AimwiseCore/coach/layer3_flag.h"
#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/models/model_backend_factory.h"
#include "AimwiseCore/models/turn_usage_record.h"
#include "CaptureShared/common/iso_date.h"
#include "CaptureShared/common/local_time.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "agents/coach/coach_driver.h"
#include "agents/coach/driver_lock.h"

namespace aimwise::CoachCommand {

const char* const usageText =
    "usage: aimwise-coach [--once]\n"
    "       aimwise-coach --gate-message [TIME]\n"
    "  With no option, the coach driver runs until stopped (aimwise-coach.service starts it): it watches\n"
    "  the event log and the classifier log, asks the gate whether to speak, runs the coach's turns and\n"
    "  shows what the coach says in a desktop notification and in `aimwise chat`.\n"
    "  --once          handle what is pending now, then exit (1 when something failed)\n"
    "  --gate-message  print the exact message the gate would send at TIME (now by default); TIME is\n"
    "                  ISO 8601, e.g. 2026-11-22T14:05:00Z, or local without a zone. Nothing is\n"
    "                  written and no model is called.\n";

namespace {

int usage(const std::string& message) {
    std::fprintf(stderr, "aimwise-coach: %s\n%s", message.c_str(), usageText);
    return 2;
}

void logLine(const std::string& line) {
    const std::string stamp = LocalTime::format(Clock::system().wallMs());
    std::fprintf(stderr, "%s %s\n", stamp.size() >= 19 ? stamp.substr(11, 8).c_str() : "", line.c_str());
}

int noDataRoot() {
    std::fprintf(stderr, "FAIL: %s — nothing was read. Run `aimwise init PATH` first.\n",
                 DataPaths::dataRootUnavailableReason().value_or("the data root is not available").c_str());
    return 1;
}

int gateMessage(const std::vector<std::string>& arguments, const Environment& environment, int64_t nowMs) {
    if (arguments.size() > 2) return usage("--gate-message takes at most one time");
    int64_t at = nowMs;
    if (arguments.size() == 2) {
        const auto parsed = parseTime(arguments[1]);
        if (!parsed) return usage("\"" + arguments[1] + "\" is not an ISO 8601 time");
        at = *parsed;
    }
    if (!DataPaths::isDataRootAvailable()) return noDataRoot();
    GateMessageSource source(DataPaths::dataRoot(),
                             [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); });
    const auto built = source.build(at, environment);
    std::fwrite(built.message.data(), 1, built.message.size(), stdout);
    std::fputc('\n', stdout);
    return 0;
}

int drive(bool once, const Environment& environment, const Platform& platform) {
    if (!DataPaths::isDataRootAvailable()) return noDataRoot();
    const std::filesystem::path root = DataPaths::dataRoot();
    std::optional<DriverLock> lock;
    try {
        lock.emplace(root);
    } catch (const Error& refusal) {
        std::fprintf(stderr, "FAIL: %s\n", refusal.description().c_str());
        return 1;
    }
    const auto usageLog = root / TurnUsageRecord::fileName;
    CoachDriver::Services services;
    try {
        logLine("coach model: " + ModelBackendFactory::describeSelection(environment, usageLog, logLine));
        services.backend = ModelBackendFactory::fromEnvironment(environment, logLine, std::nullopt, usageLog);
    } catch (const Error& refusal) {
        std::fprintf(stderr, "FAIL: %s The coach did not start, and nothing was sent anywhere.\n",
                     refusal.description().c_str());
        return 1;
    }
    logLine(std::string("turn path: ") + (Layer3Flag::isArmed(environment) ? "the conversation path (AIMCAP_LAYER3=1)"
                                                                          : "the driver path"));
    services.providerSelector = StickyProviderSelector::shared();
    services.connectNotifications = platform.connectNotifications;
    services.log = logLine;
    if (!once) {
        try {
            services.watcher = FileWatcher::create();
        } catch (const FileWatcherError& error) {
            logLine("no file watcher (" + error.description() + "); looking at the logs every minute instead");
        }
    }
    CoachDriverCore::Settings settings{.dataRoot = root, .environment = environment};
    CoachDriver driver(std::move(settings), std::move(services));
    if (once) return driver.runOnce();

    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    const int stopFd = ::signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (stopFd < 0) {
        std::fprintf(stderr, "FAIL: could not listen for the stop signal; the coach did not start.\n");
        return 1;
    }
    const int status = driver.run(stopFd);
    ::close(stopFd);
    return status;
}

}  // namespace

std::optional<int64_t> parseTime(const std::string& text) {
    if (const auto withZone = ISODate::parse(text)) return withZone;
    return ProjectionDateParsing::parseLocalUncached(text);
}

int run(const std::vector<std::string>& arguments, const Environment& environment, int64_t nowMs,
        const Platform& platform) {
    if (arguments.size() == 1 && (arguments[0] == "--help" || arguments[0] == "-h")) {
        std::fputs(usageText, stdout);
        return 0;
    }
    if (arguments.empty()) return drive(false, environment, platform);
    if (arguments[0] == "--once")
        return arguments.size() == 1 ? drive(true, environment, platform) : usage("--once takes nothing else");
    if (arguments[0] == "--gate-message") return gateMessage(arguments, environment, nowMs);
    return usage("unknown form \"" + arguments[0] + "\"");
}

}  // namespace aimwise::CoachCommand
