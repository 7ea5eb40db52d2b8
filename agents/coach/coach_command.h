#pragma once
// `aimwise-coach`, the coach driver. With no form it runs until stopped, started by
// aimwise-coach.service; `--once` handles what is pending and exits; `--gate-message` shows what the
// gate would be asked, so a person can see exactly what leaves the machine before any call is made.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CaptureShared/common/environment.h"
#include "platform/notification_service.h"

namespace aimwise::CoachCommand {

extern const char* const usageText;

// An ISO-8601 time with a zone ("2026-11-22T14:05:00Z", "...+01:00"), or local time without one.
std::optional<int64_t> parseTime(const std::string& text);

// What the driver needs from outside that a test may replace.
struct Platform {
    // Connects to the session's notification service; empty: notifications are never shown.
    std::function<std::unique_ptr<NotificationService>()> connectNotifications;
};

// `--gate-message [TIME]`: prints the exact message a gate call would send at TIME (now by default)
// for the configured data root, and exits 0. Nothing is written and no model is called.
// Returns the exit status.
int run(const std::vector<std::string>& arguments, const Environment& environment, int64_t nowMs,
        const Platform& platform = {});

}  // namespace aimwise::CoachCommand
