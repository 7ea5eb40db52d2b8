#pragma once
// The words people see for verdict states and for hand labels.
#include <string>

namespace aimwise::LabelVocabulary {

enum class Tone { aligned, caveat, diverged, away, unknown };
std::string rawValue(Tone tone);

// Case-insensitive; an unknown state comes back unchanged.
std::string displayNameForClassifierState(const std::string& state);
// Exact; an unknown label keeps itself as display name and has tone `unknown`.
std::string displayNameForStoredLabel(const std::string& label);
Tone toneForStoredLabel(const std::string& label);

}  // namespace aimwise::LabelVocabulary
