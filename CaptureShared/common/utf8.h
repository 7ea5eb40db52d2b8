#pragma once
// Small UTF-8 helpers that need no ICU, for code on the start-up path.
#include <string>
#include <string_view>
#include <vector>

namespace aimwise::utf8 {

inline constexpr char32_t replacementCharacter = 0xFFFD;

// Unicode scalars of `text`; each ill-formed sequence becomes one U+FFFD.
std::vector<char32_t> decode(std::string_view text);
void append(std::string& out, char32_t scalar);
std::string encode(const std::vector<char32_t>& scalars);
bool isValid(std::string_view text);
// The first `count` scalars of `text`.
std::string prefix(std::string_view text, size_t count);
size_t scalarCount(std::string_view text);

}  // namespace aimwise::utf8
