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

// What a form sees through beyond look-alike characters. Screen text hides numbers behind decorations
// that none of the detectors' own separators cover.
enum class Disguises {
    none,
    // A run of invisible characters that joins no two tokens and stands beside a blank, a label's
    // punctuation (":", "#", "=") or an end of the text is dropped.
    invisible,
    // As `invisible`, and a short run of spaces, line breaks, dashes, dots, commas, underscores, invisible
    // characters or combining marks after a digit, between two letters or digits, reads as one space. A run the
    // detectors already accept as a separator (one or two of space, tab, line break, ".", "/", "-") stays
    // as it is. In the removed form a single invisible character joins its neighbours, and so does any
    // combining mark after a digit.
    separators,
};

class NormalizedIdentifierText {
public:
    // `input` must outlive the result: when nothing folds, the result is the input itself.
    static NormalizedIdentifierText build(const std::u16string& input, FormatCharacters formatCharacters,
                                          Disguises disguises = Disguises::none);
    static NormalizedIdentifierText build(std::u16string&&, FormatCharacters, Disguises = Disguises::none) = delete;

    std::u16string_view text() const { return changed_ ? std::u16string_view(*changed_) : *input_; }
    bool containsFormatCharacters() const { return containsFormatCharacters_; }
    // A combining mark follows a digit: only the removed disguise forms read such digits as one run.
    bool containsMarksAfterDigits() const { return containsMarksAfterDigits_; }
    // One entry per UTF-16 unit of text() plus one for the end; absent when text() is the input.
    const std::optional<std::vector<int32_t>>& originalUTF16Offset() const { return originalUTF16Offset_; }
    // The original UTF-16 range that [start, end) of text() came from. A match that ends just before a
    // deleted character does not swallow it.
    std::pair<int32_t, int32_t> originalRange(int32_t start, int32_t end) const;
    // Whether a disguise fold changed anything that the plain or removed form would have kept.
    bool disguised() const { return disguised_; }
    // Overwrites the units that came from [originalStart, originalEnd) with `filler` (its first unit first,
    // its last unit last, the middle one between), after the input itself was overwritten the same way.
    // Answers the range of text() that was overwritten.
    std::pair<int32_t, int32_t> blankOut(int32_t originalStart, int32_t originalEnd, std::u16string_view filler);
    // Ascending positions in text() just after something was folded into a space or dropped: where the
    // plain reading sees a boundary that this one does not.
    const std::vector<int32_t>& foldEnds() const { return foldEnds_; }
    // Ascending positions in text() where the removed form joined what stood on either side of something
    // deleted, and so reads differently from the plain form of the same disguises (for `invisible`, from the
    // form without disguises).
    const std::vector<int32_t>& joins() const { return joins_; }

private:
    const std::u16string* input_ = nullptr;
    std::optional<std::u16string> changed_;
    bool containsFormatCharacters_ = false;
    bool containsMarksAfterDigits_ = false;
    std::optional<std::vector<int32_t>> originalUTF16Offset_;
    std::vector<int32_t> originalUTF16End_;
    std::vector<int32_t> foldEnds_;
    std::vector<int32_t> joins_;
    bool disguised_ = false;
};

// The plain or removed form, without disguise folds, of the few scalars around an original offset: two
// before and three after, enough for the look-arounds that bound a detector's match. `at` is where the
// offset lies in the returned text.
struct FormNeighbourhood {
    std::u16string text;
    int32_t at;
};
FormNeighbourhood formNeighbourhood(const std::u16string& input, int32_t originalOffset,
                                    FormatCharacters formatCharacters);

}  // namespace aimwise
