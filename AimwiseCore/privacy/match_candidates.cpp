#include "AimwiseCore/privacy/match_candidates.h"

#include <algorithm>
#include <array>

namespace aimwise {

namespace {

// From ICU's case folding and case closure over every code point; a test keeps this list honest.
constexpr std::array<char16_t, 19> foldsToASCII = {0x00DF, 0x0130, 0x0149, 0x017F, 0x01F0, 0x1E96, 0x1E97,
                                                   0x1E98, 0x1E99, 0x1E9A, 0x1E9E, 0x212A, 0xFB00, 0xFB01,
                                                   0xFB02, 0xFB03, 0xFB04, 0xFB05, 0xFB06};

bool isDigit(char16_t unit) { return unit >= u'0' && unit <= u'9'; }

void addOccurrences(std::string_view haystack, std::string_view word, std::vector<int32_t>& out) {
    for (size_t at = haystack.find(word); at != std::string_view::npos; at = haystack.find(word, at + 1))
        out.push_back(int32_t(at));
}

}  // namespace

bool caseFoldsToASCII(char16_t unit) {
    return std::binary_search(foldsToASCII.begin(), foldsToASCII.end(), unit);
}

MatchStartIndex::MatchStartIndex(std::u16string_view text) : text_(text) {}

void MatchStartIndex::indexLetters() const {
    lettersIndexed_ = true;
    lowered_.resize(text_.size());
    for (size_t i = 0; i < text_.size(); ++i) {
        char16_t unit = text_[i];
        if (unit < 0x80) {
            lowered_[i] = (unit >= u'A' && unit <= u'Z') ? char(unit + 32) : char(unit);
        } else {
            // Never equal to a byte of an ASCII word.
            lowered_[i] = char(0x80);
            if (caseFoldsToASCII(unit)) caseFoldsToASCII_ = true;
        }
    }
}

void MatchStartIndex::indexDigitRuns() const {
    digitRunsIndexed_ = true;
    const size_t length = text_.size();
    for (size_t i = 0; i < length;) {
        if (!isDigit(text_[i])) {
            ++i;
            continue;
        }
        size_t start = i;
        while (i < length && isDigit(text_[i])) ++i;
        digitRuns_.push_back({int32_t(start), int32_t(i - start)});
    }
}

std::optional<std::vector<int32_t>> MatchStartIndex::starts(const MatchStartRule& rule) const {
    std::vector<int32_t> out;
    switch (rule.kind) {
        case MatchStartRule::Kind::everywhere: return std::nullopt;
        case MatchStartRule::Kind::digitRunStarts:
            if (!digitRunsIndexed_) indexDigitRuns();
            for (auto [start, runLength] : digitRuns_)
                if (std::find(rule.runLengths.begin(), rule.runLengths.end(), runLength) != rule.runLengths.end())
                    out.push_back(start);
            return out;
        case MatchStartRule::Kind::wordsIgnoringCase:
            if (!lettersIndexed_) indexLetters();
            if (caseFoldsToASCII_) return std::nullopt;
            for (auto word : rule.words) addOccurrences(lowered_, word, out);
            break;
        case MatchStartRule::Kind::words: {
            if (!lettersIndexed_) indexLetters();
            // The lowered copy keeps non-letters, so case-sensitive words are checked against the text itself.
            std::vector<int32_t> found;
            for (auto word : rule.words) {
                std::string lowerWord(word);
                for (char& c : lowerWord)
                    if (c >= 'A' && c <= 'Z') c = char(c + 32);
                addOccurrences(lowered_, lowerWord, found);
                for (int32_t at : found) {
                    bool same = true;
                    for (size_t k = 0; k < word.size() && same; ++k) same = text_[size_t(at) + k] == char16_t(word[k]);
                    if (same) out.push_back(at);
                }
                found.clear();
            }
            break;
        }
    }
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

}  // namespace aimwise
