#pragma once
// Makes text read off a screen safe to quote inside a prompt.
#include <optional>
#include <string>

namespace aimwise::ScreenText {

inline constexpr int titleCap = 120;
inline constexpr int reasonCap = 300;
inline constexpr char32_t quoteGlyph = 0x02BA;
inline constexpr const char* emojiPlaceholder = "[emoji]";
inline constexpr int maxMarksPerCharacter = 8;

std::string sanitize(const std::string& text, std::optional<int> cap = std::nullopt);
std::optional<std::string> sanitize(const std::optional<std::string>& text, std::optional<int> cap = std::nullopt);
// The sanitised text between two U+0022 characters.
std::string quoted(const std::string& text, std::optional<int> cap = std::nullopt);

}  // namespace aimwise::ScreenText
