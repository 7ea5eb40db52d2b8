#pragma once
// `aimwise chat`: the conversation with the coach in a terminal. It shows the recent conversation from
// the event log, appends each line the person types as their "app_chat_message", and shows the
// coach's reply as the driver streams it (see agents/coach/chat_channel.h). Lines are edited and
// remembered as in a shell, through libedit.
//
// `aimwise chat --send TEXT [--wait SECONDS]` appends one message, waits for the coach's reply
// (120 s by default), prints it and exits 0, or 1 when none came.
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "AimwiseCore/events/event_log_event.h"
#include "CaptureShared/common/clock.h"
#include "CaptureShared/common/environment.h"

namespace aimwise::ChatVerb {

inline constexpr double defaultWaitSec = 120;
inline constexpr size_t recentLimit = 20;

// The conversation's last `limit` lines of the last day, as the chat opens with them: "14:05 you: ..."
// and "14:06 coach: ...", control characters left out.
std::vector<std::string> recentLines(std::span<const EventLogEvent> events, int64_t nowMs, size_t limit = recentLimit);

// The coach's words that answer a message sent at `sentMs`: its first chat message at or after it.
std::optional<std::string> replyAfter(std::span<const EventLogEvent> events, int64_t sentMs);

// Text from the log or a model as a terminal may show it: no escape sequences or other controls.
std::string printable(std::string_view text);

int run(const std::vector<std::string>& arguments, const Environment& environment, const Clock& clock);

}  // namespace aimwise::ChatVerb
