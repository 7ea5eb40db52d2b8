#include "agents/coach/coach_status.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cmath>

#include "AimwiseCore/coach/coach_driver_core.h"
#include "AimwiseCore/coach/coach_gate_timeline.h"
#include "AimwiseCore/coach/gate_decision_log.h"
#include "AimwiseCore/coach/layer3_flag.h"
#include "AimwiseCore/coach/quiet_windows.h"
#include "AimwiseCore/events/event_log_reader.h"
#include "AimwiseCore/models/model_backend_factory.h"
#include "agents/coach/driver_lock.h"

namespace aimwise::CoachStatus {

namespace fs = std::filesystem;

namespace {

std::string at(int64_t ms) { return CoachGateTimeline::formatDateTime(ms); }

std::optional<std::string> text(const JSONValue& object, const char* key) {
    const JSONValue* value = object.member(key);
    return value ? value->stringValue() : std::nullopt;
}

std::optional<std::string> lastLine(const fs::path& file) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string tail(16384, '\0');
    const off_t size = ::lseek(fd, 0, SEEK_END);
    const ssize_t got = size > 0 ? ::pread(fd, tail.data(), tail.size(), std::max<off_t>(0, size - 16384)) : 0;
    ::close(fd);
    tail.resize(got > 0 ? static_cast<size_t>(got) : 0);
    const size_t end = tail.rfind('\n');
    if (end == std::string::npos) return std::nullopt;
    const size_t start = tail.rfind('\n', end == 0 ? 0 : end - 1);
    return tail.substr(start == std::string::npos || start >= end ? 0 : start + 1,
                       end - (start == std::string::npos || start >= end ? 0 : start + 1));
}

}  // namespace

std::optional<long> runningDriver(const fs::path& dataRoot) {
    const int fd = ::open(DriverLock::path(dataRoot).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::optional<long> owner;
    if (::flock(fd, LOCK_SH | LOCK_NB) != 0) {
        char pid[32] = {};
        const ssize_t got = ::pread(fd, pid, sizeof pid - 1, 0);
        owner = got > 0 ? std::strtol(pid, nullptr, 10) : 0;
    }
    ::close(fd);
    return owner;
}

std::vector<std::string> logLines(std::span<const EventLogEvent> events, const std::optional<std::string>& lastGateLine,
                                  int64_t nowMs) {
    std::vector<std::string> lines;
    const auto gate = lastGateLine ? JSONValue::tryParse(*lastGateLine) : std::nullopt;
    const JSONValue* ts = gate ? gate->member("ts_ms") : nullptr;
    if (ts && ts->numberIfAny()) {
        const JSONValue* yes = gate->member("should_check_in");
        const std::string verdict = text(*gate, "outcome") != "decided"
                                        ? "no answer (" + text(*gate, "failure_reason").value_or("unknown") + ")"
                                    : yes && yes->value == JSONValue(true).value ? "check in"
                                                                                 : "not now";
        lines.push_back("  last gate decision: " + verdict + ", " + at(static_cast<int64_t>(*ts->numberIfAny())));
    } else {
        lines.push_back("  last gate decision: none on record");
    }

    const EventLogEvent* decision = nullptr;
    int failuresSince = 0;
    const EventLogEvent* lastFailure = nullptr;
    for (auto event = events.rbegin(); event != events.rend() && !decision; ++event) {
        if (event->type == "coach_decision") decision = &*event;
        if (event->type == "turn_failed" && !decision) {
            if (!lastFailure) lastFailure = &*event;
            ++failuresSince;
        }
    }
    if (decision)
        lines.push_back("  last turn: " + text(decision->detail, "move").value_or("?") + ", " + at(decision->tsMs));
    else
        lines.push_back("  last turn: none yet");
    if (lastFailure) {
        // The driver's rule for a trigger that keeps failing: a minute, doubling, at most half an hour.
        const CoachDriverCore::Settings defaults;
        const double wait = std::min(defaults.turnFailureBaseSec * std::pow(2.0, failuresSince - 1), defaults.turnFailureCapSec);
        const int64_t until = lastFailure->tsMs + static_cast<int64_t>(wait * 1000);
        lines.push_back("  last turn failed " + at(lastFailure->tsMs) + ": " +
                        text(lastFailure->detail, "user_reason").value_or("no reason given") +
                        (until > nowMs ? " Back-off until " + at(until) + "." : ""));
    }
    if (const auto quiet = QuietWindows::mustStayQuiet(events, nowMs))
        lines.push_back(std::string("  quiet until ") + at(quiet->untilMs) +
                        (quiet->kind == QuietWindow::Kind::userQuiet ? " (you asked for quiet)" : " (the coach backed off)"));
    return lines;
}

std::vector<std::string> lines(const fs::path& dataRoot, const Environment& environment, int64_t nowMs) {
    std::vector<std::string> out;
    std::string selection;
    try {
        selection = ModelBackendFactory::describeSelection(environment, std::nullopt, {});
    } catch (const std::exception& error) {
        selection = std::string("refused: ") + error.what();
    }
    const auto driver = runningDriver(dataRoot);
    out.push_back(std::string("Coach: ") +
                  (driver ? "driver running (process " + std::to_string(*driver) + ")"
                          : "driver not running (systemctl --user start aimwise-coach)") +
                  (Layer3Flag::isArmed(environment) ? ", conversation path" : ", driver path"));
    out.push_back("  " + selection);
    std::vector<EventLogEvent> events;
    try {
        events = EventLogReader::read(dataRoot / "io-layer" / "events.jsonl");
    } catch (const std::exception&) {
    }
    std::stable_sort(events.begin(), events.end(), [](const auto& a, const auto& b) { return a.tsMs < b.tsMs; });
    for (auto& line : logLines(events, lastLine(GateDecisionLog::defaultURL(dataRoot)), nowMs)) out.push_back(line);
    return out;
}

}  // namespace aimwise::CoachStatus
