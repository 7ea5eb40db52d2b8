#pragma once
// Everything in the coach's conversation that is not the coach's own words arrives as a block that
// names who it came from and when: "[user time=03-10 14:05]", the content, "[/user]". The person's
// words are one family; the others are the system speaking in the person's place (drift, on-task
// check-ins, notices about the coach's own operation, a reply another model gave, a settings change).
// Older logs carry the same families as tags ("<classifier_drift>...</classifier_drift>").
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "AimwiseCore/models/chat_types.h"

namespace aimwise::SyntheticUserMarkers {

enum class Family { user, classifierDrift, classifierCheckin, notice, fallbackModel, settingsChange };
inline constexpr std::array<Family, 6> allFamilies = {Family::user,        Family::classifierDrift,
                                                      Family::classifierCheckin, Family::notice,
                                                      Family::fallbackModel,     Family::settingsChange};

// "user", "classifier drift", ...: the bracket form's name.
std::string_view tag(Family family);
// "user", "classifier_drift", ...: the older tag form's name.
std::string_view legacyTag(Family family);

// "[<tag> time=MM-dd HH:mm]", a newline, the text, a newline, "[/<tag>]".
std::string wrap(Family family, std::string_view text, int64_t tsMs);
std::string closer(Family family);

// The family a text opens with, in either form, after leading white space.
std::optional<Family> familyOf(std::string_view text);
// Text the system wrote in the person's place: a block of any family but the person's own.
bool isSyntheticMarkerText(std::string_view text);
// A user message that came from a synthetic marker rather than from the person.
bool isFrom(const ChatMessage& message);

}  // namespace aimwise::SyntheticUserMarkers
