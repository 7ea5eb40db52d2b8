#include "AimwiseCore/models/openrouter_session_id.h"

#include <cstdio>

#include "AimwiseCore/models/sha256.h"

namespace aimwise::OpenRouterSessionID {

std::string hash(std::string_view text) { return Sha256::hex(text); }

std::optional<std::string> derive(const std::vector<EventLogEvent>& events,
                                  const std::vector<std::string>& consolidatedNotes, int64_t collapsedFarEdgeMs,
                                  int64_t asOfMs) {
    std::optional<int64_t> lastTurnMs;
    for (const EventLogEvent& event : events)
        if ((event.type == "app_chat_message" || event.type == "coach_decision") && event.tsMs <= asOfMs &&
            (!lastTurnMs || event.tsMs > *lastTurnMs))
            lastTurnMs = event.tsMs;
    if (lastTurnMs && asOfMs - *lastTurnMs >= coldAfterMs) return std::nullopt;

    const int64_t seconds = collapsedFarEdgeMs >= 0 ? collapsedFarEdgeMs / 1000 : (collapsedFarEdgeMs - 999) / 1000;
    char edge[48];
    std::snprintf(edge, sizeof edge, "%lld.%03lld", static_cast<long long>(seconds),
                  static_cast<long long>(collapsedFarEdgeMs - seconds * 1000));
    std::string text = edge;
    text += '\x1e';
    for (size_t i = 0; i < consolidatedNotes.size(); ++i) {
        if (i > 0) text += '\x1e';
        text += consolidatedNotes[i];
    }
    return hash(text);
}

}  // namespace aimwise::OpenRouterSessionID
