#pragma once
// Where a detector's match can begin. Every pattern opens with a look-behind, which ICU evaluates at each
// position of its start set; on number-heavy text that costs more than the matching itself. A rule here
// names positions that include every possible match start, so trying only those finds the same matches.
#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace aimwise {

struct MatchStartRule {
    enum class Kind {
        everywhere,
        // Starts of maximal runs of ASCII digits whose length is one of `runLengths`, or which begin one of
        // `groups`: runs of those lengths in order, each joined to the next by one or two of the separators
        // " \t\r\n./-". Exact for patterns that open with such digits behind a look-behind refusing a word
        // character before them, and whose groups of digits are bounded by separators.
        digitRunStarts,
        // Starts of any of `words`, for patterns that open with one of these literals.
        words,
        // The same, compared without regard to case; exact only when no character of the text case-folds
        // to ASCII letters (such as U+017F or U+212A), and otherwise the rule gives way to a full scan.
        wordsIgnoringCase,
        // Two upper-case ASCII letters followed by two digits, where an IBAN's country code can begin.
        upperPairBeforeDigits,
        // The same in either case, giving way to a full scan as `wordsIgnoringCase` does.
        letterPairBeforeDigits,
    };
    Kind kind = Kind::everywhere;
    std::vector<int> runLengths;
    std::vector<std::string_view> words;
    std::vector<std::vector<int>> groups;

    bool operator<(const MatchStartRule& other) const {
        return std::tie(kind, runLengths, words, groups) < std::tie(other.kind, other.runLengths, other.words, other.groups);
    }
};

// Facts about one text that every rule reads; built once per text.
class MatchStartIndex {
public:
    explicit MatchStartIndex(std::u16string_view text);
    // Ascending positions, or absent when the whole text must be scanned.
    const std::optional<std::vector<int32_t>>& starts(const MatchStartRule& rule) const;
    // After these ascending ranges of the text were overwritten with something holding no digit and no letter.
    void blankedOut(const std::vector<std::pair<int32_t, int32_t>>& ranges);

private:
    void indexDigitRuns() const;
    void indexLetters() const;
    bool beginsGroup(size_t run, const std::vector<int>& lengths) const;
    void indexGroups() const;
    std::optional<std::vector<int32_t>> computeStarts(const MatchStartRule& rule) const;
    const std::vector<int32_t>& occurrences(std::string_view lowerWord) const;

    std::u16string_view text_;
    // Built on first use: most texts need only one of the two.
    mutable bool digitRunsIndexed_ = false;
    mutable std::vector<std::pair<int32_t, int32_t>> digitRuns_;
    // For each run, how many runs after it continue its group, each one or two separators after the last.
    mutable std::vector<uint8_t> groupContinues_;
    // Start lists already answered, by rule, until the text is next blanked out.
    mutable std::map<MatchStartRule, std::optional<std::vector<int32_t>>> answered_;
    mutable bool lettersIndexed_ = false;
    mutable bool caseFoldsToASCII_ = false;
    mutable std::string lowered_;
    // Positions of each lower-case ASCII letter in the lowered copy.
    mutable std::array<std::vector<int32_t>, 26> byFirstLetter_;
    struct Occurrences {
        std::vector<int32_t> positions;
        // The number of blankings the positions were last checked against.
        uint32_t checked = 0;
    };
    mutable std::map<std::string, Occurrences, std::less<>> occurrences_;
    uint32_t blankings_ = 0;
};

// Non-ASCII characters whose case folding or case closure reaches ASCII letters.
bool caseFoldsToASCII(char16_t unit);

}  // namespace aimwise
