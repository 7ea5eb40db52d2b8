#pragma once
// The coach's prompts are fixed paragraphs joined by one blank line each.
#include <initializer_list>
#include <string>
#include <string_view>

namespace aimwise::PromptParagraphs {

inline std::string joined(std::initializer_list<std::string_view> paragraphs) {
    std::string out;
    for (const std::string_view paragraph : paragraphs) {
        if (!out.empty()) out += "\n\n";
        out += paragraph;
    }
    return out;
}

}  // namespace aimwise::PromptParagraphs
