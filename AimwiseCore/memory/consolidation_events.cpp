#include "AimwiseCore/memory/consolidation_events.h"

#include "CaptureShared/common/iso_date.h"

namespace aimwise {

namespace MemoryConsolidationEvents {

namespace {

EventLogEvent event(const char* type, JSONValue::Object detail, int64_t tsMs) {
    return EventLogEvent{.tsMs = tsMs, .type = type, .detail = std::move(detail), .source = source};
}

}  // namespace

EventLogEvent failed(const std::string& reason, int64_t asOfMs, int64_t periodsPending, int64_t tsMs) {
    return event("memory_consolidation_failed",
                 {{"reason", reason}, {"as_of_ms", asOfMs}, {"periods_pending", periodsPending}}, tsMs);
}

EventLogEvent degenerate(const std::string& reason, int64_t tsMs) {
    return event("memory_consolidation_degenerate", {{"reason", reason}}, tsMs);
}

EventLogEvent deferredPowerStarted(const std::string& reason, int64_t tsMs) {
    return event("memory_consolidation_deferred_power_started", {{"reason", reason}}, tsMs);
}

EventLogEvent deferredPowerEnded(int64_t tsMs) {
    return event("memory_consolidation_deferred_power_ended", {}, tsMs);
}

std::string degenerateReport(const StandingMemory& memory, const std::string& reason) {
    if (!memory.salvaged) return "standing memory parsed but organised nothing: " + reason;
    return "the model's reply could not be used (" + memory.salvageDetail.value_or(reason) +
           "), so standing memory was left unorganized -- " + std::to_string(memory.facts.size()) +
           " fact(s)/" + std::to_string(memory.lessons.size()) + " lesson(s) kept unpruned, no threads";
}

}  // namespace MemoryConsolidationEvents

namespace ConsolidateLog {

std::string line(const std::string& text, int64_t atMs) {
    return "[" + ISODate::format(atMs) + "] " + text;
}

}  // namespace ConsolidateLog

}  // namespace aimwise
