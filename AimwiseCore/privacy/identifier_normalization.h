#pragma once
// The text the identifier detectors see: look-alike digits, dashes and spaces folded to ASCII, with a
// map from every UTF-16 unit back into the original so a match can be replaced where it really is.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace aimwise {

enum class FormatCharacters { kept, removed };

class NormalizedIdentifierText {
public:
    // `input` must outlive the result: when nothing folds, the result is the input itself.
    static NormalizedIdentifierText build(const std::u16string& input, FormatCharacters formatCharacters);
    static NormalizedIdentifierText build(std::u16string&&, FormatCharacters) = delete;

    std::u16string_view text() const { return changed_ ? std::u16string_view(*changed_) : *input_; }
    bool containsFormatCharacters() const { return containsFormatCharacters_; }
    // One entry per UTF-16 unit of text() plus one for the end; absent when text() is the input.
    const std::optional<std::vector<int32_t>>& originalUTF16Offset() const { return originalUTF16Offset_; }
    // The original UTF-16 range that [start, end) of text() came from. A match that ends just before a
    // deleted format character does not swallow it.
    std::pair<int32_t, int32_t> originalRange(int32_t start, int32_t end) const;

private:
    const std::u16string* input_ = nullptr;
    std::optional<std::u16string> changed_;
    bool containsFormatCharacters_ = false;
    std::optional<std::vector<int32_t>> originalUTF16Offset_;
    std::vector<int32_t> originalUTF16End_;
};

}  // namespace aimwise
