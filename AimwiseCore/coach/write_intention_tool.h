#pragma once
// The tool through which the coach writes down what the person said they are doing, in the online
// wording and the shorter local one. A local model gets the local form in place of the online one.
#include <string>
#include <string_view>

#include "AimwiseCore/models/chat_types.h"

namespace aimwise::CoachPrompt {

inline constexpr const char* writeCurrentIntentionToolName = "write_current_intention";

const ToolSpec& writeCurrentIntentionTool();
const ToolSpec& writeCurrentIntentionToolLocal();
// The lead, a space, the notes sentence, a space, and the two sentences both wordings share.
std::string writeCurrentIntentionDescription(std::string_view lead, std::string_view notesSentence);

}  // namespace aimwise::CoachPrompt
