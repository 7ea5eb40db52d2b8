#pragma once
// `aimwise`, the person's own command: declare or clear what they mean to be doing, see what the
// system sees, set up a data root and the background services.
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "AimwiseCore/events/event_log_event.h"
#include "CaptureShared/common/clock.h"

namespace aimwise::AimwiseCommand {

struct TaskDeclaration {
    std::string task;
    std::optional<double> minutes;
    std::optional<std::string> why;
    bool operator==(const TaskDeclaration&) const = default;
};
struct TaskClear {
    bool operator==(const TaskClear&) const = default;
};
struct UsageError {
    std::string message;
    bool operator==(const UsageError&) const = default;
};
using TaskRequest = std::variant<TaskDeclaration, TaskClear, UsageError>;

// `task TEXT... [--minutes N] [--why TEXT]` or `task --clear`; the words of TEXT are joined.
TaskRequest parseTask(const std::vector<std::string>& arguments);
// The event as the event log's readers expect it.
EventLogEvent taskEvent(const TaskRequest& request, int64_t nowMs);

// Dispatches `arguments` (without the program name); returns the exit status.
int run(const std::vector<std::string>& arguments, const Clock& clock);

extern const char* const usageText;

}  // namespace aimwise::AimwiseCommand
