#pragma once
// Whether the person's login session is locked, as logind reports it through loginctl. Starting
// loginctl costs a few milliseconds, so an answer is kept for a while; a machine without logind
// is asked again only rarely.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace aimwise {

class SessionLock {
public:
    struct Options {
        std::string loginctl = "loginctl";
        // XDG_SESSION_ID; a service has none and asks for the user's graphical session instead.
        std::optional<std::string> sessionId;
        unsigned userId = 0;
        int64_t cacheMs = 10'000;
        int64_t unavailableRetryMs = 300'000;
        int timeoutMs = 2'000;
    };

    explicit SessionLock(Options options);

    // Nothing when logind cannot say; `nowMs` on a monotonic clock.
    std::optional<bool> locked(int64_t nowMs);

    // "yes"/"no" as loginctl prints a boolean with --value.
    static std::optional<bool> parseBoolean(std::string_view output);
    // Standard output of a bounded run, nothing when it failed, timed out or exited non-zero.
    static std::optional<std::string> run(const std::vector<std::string>& argv, int timeoutMs);

private:
    std::optional<std::string> sessionId(int64_t nowMs);

    Options options_;
    std::optional<std::string> resolvedSession_;
    int64_t sessionResolvedAtMs_ = 0;
    std::optional<bool> cached_;
    std::optional<int64_t> askedAtMs_;
    int64_t quietUntilMs_ = 0;
};

}  // namespace aimwise
