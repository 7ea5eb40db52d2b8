#include "AimwiseCore/events/retained_coach_events.h"

namespace aimwise {

RetainedCoachEvents::RetainedCoachEvents()
    : fold_([](const EventLogEvent& a, const EventLogEvent& b) { return a.tsMs < b.tsMs; }) {}

const std::set<std::string>& RetainedCoachEvents::retainedTypesWithFullDetail() {
    static const std::set<std::string> types = {
        "task_declared",
        "backoff_set",
        "checker_input_received",
        "coach_checkin",
        "onboarding_permission_requested",
        "onboarding_completed",
        "onboarding_reset",
        "onboarding_started",
        "onboarding_resumed",
        "onboarding_v3_screen_recording_skipped",
        "onboarding_v3_battery_chosen",
        "onboarding_v3_backend_chosen",
        "onboarding_v3_retention_chosen",
        "coach_battery_pause_began",
        "coach_battery_pause_ended",
        "coach_battery_pause_notice_shown",
        "coach_battery_pause_notice_dismissed",
        "coach_offline_fallback_began",
        "coach_offline_fallback_ended",
        "coach_offline_fallback_notice_shown",
        "onboarding_v3_watching_now_announced",
        "onboarding_ram_unsupported_notify_me_submitted",
        "reaction_poll_offered",
        "option_card_offered",
        "option_card_selection_changed",
        "option_card_next_pressed",
        "meds_ask_offered",
    };
    return types;
}

std::vector<EventLogEvent> RetainedCoachEvents::retained(std::vector<EventLogEvent> rows) {
    const auto& full = retainedTypesWithFullDetail();
    std::vector<EventLogEvent> kept;
    kept.reserve(rows.size());
    for (auto& event : rows) {
        if (event.type == "app_chat_message") {
            const JSONValue* role = event.detail.member("role");
            event.detail = JSONValue::Object{{"role", role ? *role : JSONValue(nullptr)}};
            kept.push_back(std::move(event));
        } else if (full.contains(event.type)) {
            kept.push_back(std::move(event));
        }
    }
    return kept;
}

void RetainedCoachEvents::apply(IncrementalReadResult<EventLogEvent> result) { fold_.apply(std::move(result), retained); }

}  // namespace aimwise
