#include "agents/capture/session_lock.h"

#include "CaptureShared/common/text.h"
#include "platform/bounded_process.h"

namespace aimwise {

SessionLock::SessionLock(Options options) : options_(std::move(options)) {}

std::optional<bool> SessionLock::parseBoolean(std::string_view output) {
    const std::string value = trimWhitespaceAndNewlines(output);
    if (value == "yes") return true;
    if (value == "no") return false;
    return std::nullopt;
}

std::optional<std::string> SessionLock::run(const std::vector<std::string>& argv, int timeoutMs) {
    if (argv.empty()) return std::nullopt;
    const auto outcome = BoundedProcess::run(argv.front(), {argv.begin() + 1, argv.end()}, timeoutMs / 1000.0,
                                             {.outputLimitBytes = 4096});
    const auto* finished = std::get_if<BoundedProcess::Finished>(&outcome);
    if (!finished || !finished->succeeded()) return std::nullopt;
    return finished->standardOutput;
}

std::optional<std::string> SessionLock::sessionId(int64_t nowMs) {
    if (options_.sessionId && !options_.sessionId->empty()) return options_.sessionId;
    // The graphical session can change when the person logs out and in again.
    if (resolvedSession_ && nowMs - sessionResolvedAtMs_ < 60'000) return resolvedSession_;
    const auto output = run({options_.loginctl, "show-user", std::to_string(options_.userId), "-p", "Display",
                             "--value"},
                            options_.timeoutMs);
    sessionResolvedAtMs_ = nowMs;
    resolvedSession_.reset();
    if (output && !trimWhitespaceAndNewlines(*output).empty()) resolvedSession_ = trimWhitespaceAndNewlines(*output);
    return resolvedSession_;
}

std::optional<bool> SessionLock::locked(int64_t nowMs) {
    if (nowMs < quietUntilMs_) return std::nullopt;
    if (askedAtMs_ && nowMs - *askedAtMs_ < options_.cacheMs) return cached_;
    askedAtMs_ = nowMs;
    cached_.reset();
    if (const auto session = sessionId(nowMs)) {
        if (const auto output =
                run({options_.loginctl, "show-session", *session, "-p", "LockedHint", "--value"}, options_.timeoutMs))
            cached_ = parseBoolean(*output);
    }
    if (!cached_) quietUntilMs_ = nowMs + options_.unavailableRetryMs;
    return cached_;
}

}  // namespace aimwise
