#pragma once
// Where a detector's match can begin. Every pattern opens with a look-behind, which ICU evaluates at each
// position of its start set; on number-heavy text that costs more than the matching itself. A rule here
// names positions that include every possible match start, so trying only those finds the same matches.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace aimwise {

struct MatchStartRule {
    enum class Kind {
        everywhere,
        // Starts of maximal runs of ASCII digits whose length is one of `runLengths`. Exact for patterns that
        // open with digits behind a look-behind refusing a word character before them.
        digitRunStarts,
        // Starts of any of `words`, for patterns that open with one of these literals.
        words,
        // The same, compared without regard to case; exact only when no character of the text case-folds
        // to ASCII letters (such as U+017F or U+212A), and otherwise the rule gives way to a full scan.
        wordsIgnoringCase,
    };
    Kind kind = Kind::everywhere;
    std::vector<int> runLengths;
    std::vector<std::string_view> words;
};

// Facts about one text that every rule reads; built once per text.
class MatchStartIndex {
public:
    explicit MatchStartIndex(std::u16string_view text);
    // Ascending positions, or absent when the whole text must be scanned.
    std::optional<std::vector<int32_t>> starts(const MatchStartRule& rule) const;

private:
    void indexDigitRuns() const;
    void indexLetters() const;

    std::u16string_view text_;
    // Built on first use: most texts need only one of the two.
    mutable bool digitRunsIndexed_ = false;
    mutable std::vector<std::pair<int32_t, int32_t>> digitRuns_;
    mutable bool lettersIndexed_ = false;
    mutable bool caseFoldsToASCII_ = false;
    mutable std::string lowered_;
};

// Non-ASCII characters whose case folding or case closure reaches ASCII letters.
bool caseFoldsToASCII(char16_t unit);

}  // namespace aimwise
