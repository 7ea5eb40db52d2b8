#pragma once
// Telling the user, once, that a no-disrupt window they asked for has ended.
//
// A window is opened by a "backoff_set" event whose detail carries `backoff_until_ts_ms`, the end in
// milliseconds since the epoch; a later "backoff_set" replaces it. Once its end has passed, the tick
// notifies the user and appends one "backoff_window_disclosed" event whose detail holds
// `backoff_set_ts_ms` (the ts_ms of the "backoff_set" event it answers), `active_backoff_until`
// (the end, in ms) and `disclosed_at_ms`. A disclosure event after the newest "backoff_set" means
// there is nothing left to tell. A window that ended more than `maxDisclosureAgeMs` ago, typically
// while the machine slept, is not announced at all.
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "AimwiseCore/events/event_log_event.h"

namespace aimwise::BackoffDisclosure {

inline constexpr const char* backoffSetType = "backoff_set";
inline constexpr const char* disclosedType = "backoff_window_disclosed";
inline constexpr const char* untilKey = "backoff_until_ts_ms";
inline constexpr int64_t maxDisclosureAgeMs = 3'600'000;

inline constexpr const char* notificationTitle = "Veska";
inline constexpr const char* notificationMessage =
    "Your no-disrupt window has ended. Check-ins can resume from now on.";

struct Disclosure {
    int64_t backoffSetTsMs = 0;
    int64_t activeBackoffUntilMs = 0;
    bool operator==(const Disclosure&) const = default;
};

// The window to announce now, if any. Events are in time order, as the reader returns them.
std::optional<Disclosure> pending(const std::vector<EventLogEvent>& events, int64_t nowMs);

EventLogEvent disclosureEvent(const Disclosure& disclosure, int64_t nowMs);

// The event is written before the notification is shown, so that a notifier that keeps failing
// costs one missed notice rather than a notice on every tick. Either callback's exception reaches
// the caller.
std::optional<Disclosure> disclose(const std::vector<EventLogEvent>& events, int64_t nowMs,
                                   const std::function<void(const std::string& title, const std::string& message)>& notify,
                                   const std::function<void(const EventLogEvent&)>& logEvent);

}  // namespace aimwise::BackoffDisclosure
