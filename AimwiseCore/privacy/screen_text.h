#pragma once
// Makes text read off a screen safe to quote inside a prompt: white space collapsed, invisible characters
// and emoji removed, and no quotation mark left that could close the quoted span from inside.
#include <array>
#include <optional>
#include <string>

namespace aimwise::ScreenText {

inline constexpr int titleCap = 120;
inline constexpr int reasonCap = 300;
inline constexpr char32_t quoteGlyph = 0x02BA;
inline constexpr const char* emojiPlaceholder = "[emoji]";
inline constexpr int maxMarksPerCharacter = 8;
// Every scalar that reads as a double quotation mark.
inline constexpr std::array<char32_t, 15> doubleQuotes = {0x0022, 0x201C, 0x201D, 0x201E, 0x201F,
                                                          0x2033, 0x2036, 0xFF02, 0x301D, 0x301E,
                                                          0x301F, 0x00AB, 0x00BB, 0x02DD, 0x05F4};

// `cap` counts user-perceived characters; a longer result is cut and ends with "…".
std::string sanitize(const std::string& text, std::optional<int> cap = std::nullopt);
std::optional<std::string> sanitize(const std::optional<std::string>& text, std::optional<int> cap = std::nullopt);
inline std::string sanitize(const char* text, std::optional<int> cap = std::nullopt) {
    return sanitize(std::string(text), cap);
}
// The sanitised text between two U+0022 characters.
std::string quoted(const std::string& text, std::optional<int> cap = std::nullopt);

}  // namespace aimwise::ScreenText
