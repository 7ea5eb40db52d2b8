#pragma once
// A session key that stays the same while a conversation goes on, so that the provider keeps
// serving the same cached prefix; a conversation cold for an hour gets none.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/events/event_log_event.h"

namespace aimwise::OpenRouterSessionID {

inline constexpr int64_t coldAfterMs = 3600 * 1000;

// The hash every session key is made with: lowercase hex SHA-256 of the text.
std::string hash(std::string_view text);

// Nothing when the newest "app_chat_message" or "coach_decision" not after `asOfMs` is an hour or
// more old. Otherwise the hash of the far edge (seconds since 1970, with milliseconds), U+001E, and
// the consolidated notes joined by U+001E.
std::optional<std::string> derive(const std::vector<EventLogEvent>& events,
                                  const std::vector<std::string>& consolidatedNotes, int64_t collapsedFarEdgeMs,
                                  int64_t asOfMs);

}  // namespace aimwise::OpenRouterSessionID
