#pragma once
// The coach's system prompts outside the conversation path: the driver's, for turns the system starts
// or the person continues, and the direct one, for a conversation the person opened themselves.
#include <optional>
#include <string>

#include "CaptureShared/common/environment.h"

namespace aimwise {

// Who the system is for, as the prompts name them.
namespace UserIdentity {
inline constexpr const char* variable = "AIMCAP_USER_NAME";
// The trimmed name, or nothing when unset or blank.
std::optional<std::string> displayName(const Environment& environment);
// "Ada's", or "the user's" without a name.
std::string thirdPersonPossessive(const std::optional<std::string>& name);
// "Ada", or "the user".
std::string thirdPerson(const std::optional<std::string>& name);
}  // namespace UserIdentity

// Who a driver turn answers: the system noticing something, or the person in the conversation.
enum class CoachChannel { checker, appChat };

namespace DriverCoachPrompt {
// The whole reply the coach gives when it chooses to say nothing.
inline constexpr const char* silenceCharacter = "\xEE\x80\x80";  // U+E000
std::string systemText(const std::optional<std::string>& userName);
std::string system(const Environment& environment);
// The per-turn notice that follows the system prompt and tells the coach which channel it is on.
const std::string& channelMarker(CoachChannel channel);
}  // namespace DriverCoachPrompt

namespace CoachPrompt {
std::string systemText(const std::optional<std::string>& userName);
std::string system(const Environment& environment);
}  // namespace CoachPrompt

}  // namespace aimwise
