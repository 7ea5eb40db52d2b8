#pragma once
// The fixed words of a gate call. They open every gate message, so they stay byte for byte the same
// from call to call and a provider's prompt cache can hold them.
#include <string>

namespace aimwise {

namespace CoachGateRules {
const std::string& text();
const std::string& lowEffortNote();
// `text`, and with `lowEffort` a blank line and `lowEffortNote`.
const std::string& prefix(bool lowEffort);
}  // namespace CoachGateRules

namespace CoachGateQuestion {
const std::string& text();
}  // namespace CoachGateQuestion

namespace CoachGateSchema {
// The schema's description of the summary ends with an example that the question leaves out.
const std::string& summaryDescription();
const std::string& decisionDescription();
}  // namespace CoachGateSchema

}  // namespace aimwise
