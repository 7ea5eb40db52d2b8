#pragma once
// The coach's lines of `aimwise status`: which model it uses and on which path, whether its driver
// runs, the gate's newest decision, the newest turn, and what holds the coach quiet and until when.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "AimwiseCore/events/event_log_event.h"
#include "CaptureShared/common/environment.h"

namespace aimwise::CoachStatus {

// The process that holds the driver's lock, when one does.
std::optional<long> runningDriver(const std::filesystem::path& dataRoot);

// The lines drawn from the logs alone (events in time order; the newest gate decision log line, if any).
std::vector<std::string> logLines(std::span<const EventLogEvent> events, const std::optional<std::string>& lastGateLine,
                                  int64_t nowMs);

std::vector<std::string> lines(const std::filesystem::path& dataRoot, const Environment& environment, int64_t nowMs);

}  // namespace aimwise::CoachStatus
