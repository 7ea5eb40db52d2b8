#pragma once
// A past tool call as a replayed conversation shows it: the call read back from the log, and the text
// its tool message holds, which tells the model what that call did at the time.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/models/chat_types.h"

namespace aimwise::CoachProjection {

// What to do with a past call to a tool that no longer exists.
enum class DeadToolCallPolicy { replay, dropTurn };
std::string_view rawValue(DeadToolCallPolicy policy);
std::optional<DeadToolCallPolicy> deadToolCallPolicyFromRaw(std::string_view raw);

// A logged array of {"name", "arguments"} as calls; entries that do not decode are passed over.
std::vector<ToolCall> parseToolCalls(const JSONValue& value);

// The result a past call got. `correctJudgmentRefused` comes from the decision that made the call.
std::string historicalToolResult(const ToolCall& call, bool correctJudgmentRefused = false);
// "No such tool — nothing happened. Your tools are: " and the tools' names.
std::string noSuchToolResult();
// What a call to open_ui without a message did.
inline constexpr const char* openUIWithoutMessageResult =
    "Not opened — no message was given, so this call was suppressed. If you meant to say something, call open_ui "
    "again with `message` set to it.";

}  // namespace aimwise::CoachProjection
