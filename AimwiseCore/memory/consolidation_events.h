#pragma once
// What the nightly pass tells the event log, and the shape of its own log lines.
#include <cstdint>
#include <string>

#include "AimwiseCore/events/event_log_event.h"
#include "AimwiseCore/memory/memory_records.h"

namespace aimwise {

namespace MemoryConsolidationEvents {
inline constexpr const char* source = "dream";
EventLogEvent failed(const std::string& reason, int64_t asOfMs, int64_t periodsPending, int64_t tsMs);
EventLogEvent degenerate(const std::string& reason, int64_t tsMs);
EventLogEvent deferredPowerStarted(const std::string& reason, int64_t tsMs);
EventLogEvent deferredPowerEnded(int64_t tsMs);

// For a salvaged memory, why the reply could not be used and what was kept; for one that parsed and
// organised nothing, `reason`.
std::string degenerateReport(const StandingMemory& memory, const std::string& reason);
}  // namespace MemoryConsolidationEvents

namespace ConsolidateLog {
// "[<ISO 8601 instant>] <text>".
std::string line(const std::string& text, int64_t atMs);
}  // namespace ConsolidateLog

}  // namespace aimwise
