#include "AimwiseCore/coach/synthetic_user_markers.h"

#include "AimwiseCore/coach/projection_time_text.h"

namespace aimwise::SyntheticUserMarkers {

std::string_view tag(Family family) {
    switch (family) {
        case Family::user: return "user";
        case Family::classifierDrift: return "classifier drift";
        case Family::classifierCheckin: return "classifier checkin";
        case Family::notice: return "notice";
        case Family::fallbackModel: return "fallback model";
        case Family::settingsChange: return "settings change";
    }
    return "notice";
}

std::string_view legacyTag(Family family) {
    switch (family) {
        case Family::user: return "user";
        case Family::classifierDrift: return "classifier_drift";
        case Family::classifierCheckin: return "classifier_checkin";
        case Family::notice: return "notice";
        case Family::fallbackModel: return "fallback_model";
        case Family::settingsChange: return "settings_change";
    }
    return "notice";
}

std::string closer(Family family) { return "[/" + std::string(tag(family)) + "]"; }

std::string wrap(Family family, std::string_view text, int64_t tsMs) {
    std::string out = "[";
    out += tag(family);
    out += " time=" + ProjectionTimeText::monthDayTime(tsMs) + "]\n";
    out += text;
    out += "\n" + closer(family);
    return out;
}

std::optional<Family> familyOf(std::string_view text) {
    size_t start = text.find_first_not_of(" \t\r\n");
    if (start == std::string_view::npos) return std::nullopt;
    text.remove_prefix(start);
    if (text.size() < 3) return std::nullopt;
    const char open = text[0];
    if (open != '[' && open != '<') return std::nullopt;
    for (const Family family : allFamilies) {
        const std::string_view name = open == '[' ? tag(family) : legacyTag(family);
        if (text.substr(1, name.size()) != name || text.size() <= name.size() + 1) continue;
        const char next = text[name.size() + 1];
        if (next == (open == '[' ? ']' : '>') || next == ' ') return family;
    }
    return std::nullopt;
}

bool isSyntheticMarkerText(std::string_view text) {
    const auto family = familyOf(text);
    return family && *family != Family::user;
}

bool isFrom(const ChatMessage& message) {
    return message.role == ChatRole::user && isSyntheticMarkerText(message.content);
}

}  // namespace aimwise::SyntheticUserMarkers
