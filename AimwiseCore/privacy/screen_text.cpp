#include "AimwiseCore/privacy/screen_text.h"

namespace aimwise::ScreenText {

// Placeholder until the grapheme walk lands: the text passes through unchanged.
std::string sanitize(const std::string& text, std::optional<int>) { return text; }

std::optional<std::string> sanitize(const std::optional<std::string>& text, std::optional<int> cap) {
    if (!text) return std::nullopt;
    return sanitize(*text, cap);
}

std::string quoted(const std::string& text, std::optional<int> cap) { return "\"" + sanitize(text, cap) + "\""; }

}  // namespace aimwise::ScreenText
