#include "AimwiseCore/coach/meds_checkins.h"

#include <algorithm>
#include <cctype>
#include <map>

#include "AimwiseCore/coach/projection_date_parsing.h"
#include "AimwiseCore/coach/projection_time_text.h"
#include "AimwiseCore/privacy/screen_text.h"
#include "CaptureShared/common/local_time.h"
#include "CaptureShared/common/text.h"

namespace aimwise::MedsCheckins {

namespace {

std::string key(const std::string& name) {
    std::string folded = trimWhitespaceAndNewlines(name);
    std::transform(folded.begin(), folded.end(), folded.begin(), [](unsigned char c) { return std::tolower(c); });
    return folded;
}

std::optional<std::string> nameOf(const JSONValue& detail) {
    const JSONValue* name = detail.member("name");
    if (!name || !name->stringIfAny() || trimWhitespaceAndNewlines(*name->stringIfAny()).empty()) return std::nullopt;
    return trimWhitespaceAndNewlines(*name->stringIfAny());
}

bool isClockTime(const std::string& text) {
    return text.size() == 5 && text[2] == ':' && std::isdigit(static_cast<unsigned char>(text[0])) &&
           std::isdigit(static_cast<unsigned char>(text[1])) && std::isdigit(static_cast<unsigned char>(text[3])) &&
           std::isdigit(static_cast<unsigned char>(text[4])) && text.substr(0, 2) <= "23" && text.substr(3) <= "59";
}

// Yesterday's and today's local dates as "yyyy-MM-dd".
std::vector<std::string> recentDates(int64_t asOfMs) {
    const std::string today = LocalTime::format(asOfMs);
    if (today.size() < 10) return {};
    const auto noon = ProjectionDateParsing::parseLocal(today.substr(0, 10) + "T12:00:00");
    if (!noon) return {today.substr(0, 10)};
    return {LocalTime::format(*noon - 86'400'000).substr(0, 10), today.substr(0, 10)};
}

}  // namespace

std::vector<MedsCheckin> outstanding(std::span<const EventLogEvent> events, int64_t asOfMs, bool enabled) {
    if (!enabled) return {};
    struct Schedule {
        std::string name;
        std::vector<std::string> times;
    };
    std::map<std::string, Schedule> schedules;
    for (const EventLogEvent& event : events) {
        if (event.tsMs > asOfMs || event.type != scheduleType) continue;
        const auto name = nameOf(event.detail);
        if (!name) continue;
        Schedule schedule{*name, {}};
        if (const JSONValue* times = event.detail.member("times"))
            if (const auto* items = std::get_if<JSONValue::Array>(&times->value))
                for (const JSONValue& item : *items)
                    if (item.stringIfAny() && isClockTime(*item.stringIfAny())) schedule.times.push_back(*item.stringIfAny());
        schedules[key(*name)] = std::move(schedule);
    }
    std::vector<MedsCheckin> due;
    const auto dates = recentDates(asOfMs);
    for (const auto& [folded, schedule] : schedules)
        for (const std::string& date : dates)
            for (const std::string& time : schedule.times) {
                const auto dueAt = ProjectionDateParsing::parseLocal(date + "T" + time + ":00");
                if (dueAt && *dueAt <= asOfMs && asOfMs - *dueAt < dueForMs) due.push_back({schedule.name, *dueAt, {}});
            }

    const auto closes = [&](const MedsCheckin& checkin) {
        const auto begin = std::lower_bound(events.begin(), events.end(), checkin.dueAtMs - earlyTakeMs,
                                            [](const EventLogEvent& e, int64_t ms) { return e.tsMs < ms; });
        for (auto it = begin; it != events.end() && it->tsMs <= asOfMs; ++it) {
            if (it->type == takenType) {
                const auto name = nameOf(it->detail);
                if (!name || key(*name) == key(checkin.name)) return true;
            }
        }
        return false;
    };
    std::erase_if(due, closes);
    for (MedsCheckin& checkin : due) {
        const auto begin = std::lower_bound(events.begin(), events.end(), checkin.dueAtMs,
                                            [](const EventLogEvent& e, int64_t ms) { return e.tsMs < ms; });
        for (auto it = begin; it != events.end() && it->tsMs <= asOfMs; ++it) {
            if (it->type != askOfferedType) continue;
            if (const JSONValue* names = it->detail.member("names"))
                if (const auto* items = std::get_if<JSONValue::Array>(&names->value))
                    for (const JSONValue& item : *items)
                        if (item.stringIfAny() && key(*item.stringIfAny()) == key(checkin.name)) checkin.askedAtMs = it->tsMs;
        }
    }
    std::stable_sort(due.begin(), due.end(), [](const MedsCheckin& a, const MedsCheckin& b) { return a.dueAtMs < b.dueAtMs; });
    return due;
}

std::optional<std::string> context(const std::vector<MedsCheckin>& due) {
    if (due.empty()) return std::nullopt;
    ProjectionTimeText::followDefaultZone();
    std::vector<std::string> items;
    for (const MedsCheckin& checkin : due) {
        std::string item = "\"" + ScreenText::sanitize(checkin.name, 80) + "\" was due at " +
                           ProjectionTimeText::hourMinute(checkin.dueAtMs) + " and is not marked taken";
        item += checkin.askedAtMs ? " (the coach asked about it at " + ProjectionTimeText::hourMinute(*checkin.askedAtMs) + ")"
                                  : " (not asked about yet)";
        items.push_back(std::move(item));
    }
    return "Medication check-ins they asked for: " + join(items, "; ") +
           ". A check-in is one short question inside a message that is going out anyway, asked once; it is never a "
           "reason to interrupt on its own.";
}

EventLogEvent askOfferedEvent(const std::vector<MedsCheckin>& due, int64_t asOfMs) {
    JSONValue::Array names, dueAt;
    for (const MedsCheckin& checkin : due) {
        names.emplace_back(checkin.name);
        dueAt.emplace_back(checkin.dueAtMs);
    }
    return {.tsMs = asOfMs, .type = askOfferedType,
            .detail = JSONValue::Object{{"names", std::move(names)}, {"due_at_ms", std::move(dueAt)}}};
}

}  // namespace aimwise::MedsCheckins
