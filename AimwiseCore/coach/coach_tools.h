#pragma once
// The coach acts only through tools. This is every tool's name, description and parameter schema, in
// the order they are offered, and the sets of names that the turn effects and the replay of old
// turns test against.
#include <array>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "AimwiseCore/coach/driver_coach_prompt.h"
#include "AimwiseCore/models/chat_types.h"

namespace aimwise {

namespace CoachTools {

// A whole reply of this one character (U+E000) means the coach chose to say nothing.
inline constexpr const char* silenceSentinel = DriverCoachPrompt::silenceCharacter;
inline constexpr const char* writeCurrentIntention = "write_current_intention";
inline constexpr const char* writeTask = "write_task";  // the older name, still in logs and replies

// write_current_intention, correct_judgment, do_not_disturb, open_ui, close_ui, check_ui_state,
// go_quiet, propose_options.
const std::vector<ToolSpec>& all();
const ToolSpec& correctJudgment();
const ToolSpec& rememberCorrection();
const ToolSpec& doNotDisturb();
const ToolSpec& goQuiet();
const ToolSpec& openUI();
const ToolSpec& closeUI();
const ToolSpec& checkUIState();
const ToolSpec& proposeOptions();

inline constexpr std::array<std::string_view, 2> writeIntentionToolNames = {writeTask, writeCurrentIntention};
bool isWriteIntention(std::string_view name);
// Either write-intention name gives write_current_intention; any other name stays.
std::string canonicalToolName(std::string_view name);
// Calls dropped when old turns are replayed: "stay_silent".
const std::set<std::string, std::less<>>& unreplayableToolNames();
// Names not treated as unknown when the log is read: every tool of either tool set, the older
// write-intention name and the silence tool.
const std::set<std::string, std::less<>>& recognizedToolNames();
// Tools that existed once and no longer do; a replayed history must not call or mention them.
const std::set<std::string, std::less<>>& retiredToolNames();
// Tools whose call changes something: everything but the question and the silence tool.
bool isStateChanging(std::string_view name);
// The names of all(), joined by ", ".
const std::string& namesList();

}  // namespace CoachTools

// The conversation path's smaller tool set.
namespace Layer3Tools {
// write_current_intention, correct_judgment, go_quiet, remember_correction, propose_options.
const std::vector<ToolSpec>& all();
// The names of all() and both write-intention names.
const std::set<std::string, std::less<>>& replayableToolNames();
const std::string& namesList();
}  // namespace Layer3Tools

}  // namespace aimwise
