#include "AimwiseCore/classifier/backoff_disclosure.h"

#include "CaptureShared/common/saturating.h"

namespace aimwise::BackoffDisclosure {

std::optional<Disclosure> pending(const std::vector<EventLogEvent>& events, int64_t nowMs) {
    for (auto it = events.rbegin(); it != events.rend(); ++it) {
        if (it->type == disclosedType) return std::nullopt;
        if (it->type != backoffSetType) continue;
        const JSONValue* until = it->detail.member(untilKey);
        const double* untilMs = until ? until->numberIfAny() : nullptr;
        if (!untilMs) return std::nullopt;
        const auto end = wholeMilliseconds(*untilMs);
        if (!end || *end > nowMs || Saturating::subtract(nowMs, *end) > maxDisclosureAgeMs) return std::nullopt;
        return Disclosure{it->tsMs, *end};
    }
    return std::nullopt;
}

EventLogEvent disclosureEvent(const Disclosure& disclosure, int64_t nowMs) {
    EventLogEvent event;
    event.tsMs = nowMs;
    event.type = disclosedType;
    event.source = "classifier";
    event.detail = JSONValue::Object{{"backoff_set_ts_ms", disclosure.backoffSetTsMs},
                                     {"active_backoff_until", disclosure.activeBackoffUntilMs},
                                     {"disclosed_at_ms", nowMs}};
    return event;
}

std::optional<Disclosure> disclose(const std::vector<EventLogEvent>& events, int64_t nowMs,
                                   const std::function<void(const std::string&, const std::string&)>& notify,
                                   const std::function<void(const EventLogEvent&)>& logEvent) {
    const auto disclosure = pending(events, nowMs);
    if (!disclosure) return std::nullopt;
    logEvent(disclosureEvent(*disclosure, nowMs));
    notify(notificationTitle, notificationMessage);
    return disclosure;
}

}  // namespace aimwise::BackoffDisclosure
