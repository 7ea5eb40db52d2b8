#include "AimwiseCore/privacy/match_candidates.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace aimwise {

namespace {

// From ICU's case folding and case closure over every code point; a test keeps this list honest.
constexpr std::array<char16_t, 19> foldsToASCII = {0x00DF, 0x0130, 0x0149, 0x017F, 0x01F0, 0x1E96, 0x1E97,
                                                   0x1E98, 0x1E99, 0x1E9A, 0x1E9E, 0x212A, 0xFB00, 0xFB01,
                                                   0xFB02, 0xFB03, 0xFB04, 0xFB05, 0xFB06};

bool isDigit(char16_t unit) { return unit >= u'0' && unit <= u'9'; }
bool isGroupSeparator(char16_t unit) {
    return unit == u' ' || unit == u'\t' || unit == u'\r' || unit == u'\n' || unit == u'.' || unit == u'/' || unit == u'-';
}
bool isUpper(char16_t unit) { return unit >= u'A' && unit <= u'Z'; }
bool isLetter(char16_t unit) { return isUpper(unit) || (unit >= u'a' && unit <= u'z'); }

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
    std::array<size_t, 26> counts{};
    for (char16_t unit : text_) {
        const char16_t lower = unit >= u'A' && unit <= u'Z' ? char16_t(unit + 32) : unit;
        if (lower >= u'a' && lower <= u'z') ++counts[size_t(lower - u'a')];
    }
    for (size_t letter = 0; letter < counts.size(); ++letter) byFirstLetter_[letter].reserve(counts[letter]);
    lowered_.resize(text_.size());
    for (size_t i = 0; i < text_.size(); ++i) {
        char16_t unit = text_[i];
        if (unit < 0x80) {
            lowered_[i] = (unit >= u'A' && unit <= u'Z') ? char(unit + 32) : char(unit);
            if (lowered_[i] >= 'a' && lowered_[i] <= 'z') byFirstLetter_[size_t(lowered_[i] - 'a')].push_back(int32_t(i));
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

const std::vector<int32_t>& MatchStartIndex::occurrences(std::string_view lowerWord) const {
    auto [slot, added] = occurrences_.try_emplace(std::string(lowerWord));
    Occurrences& found = slot->second;
    if (added) {
        // Every word a rule names begins with a letter, so only that letter's positions are compared.
        const char first = lowerWord.empty() ? '\0' : lowerWord.front();
        if (first >= 'a' && first <= 'z') {
            for (int32_t at : byFirstLetter_[size_t(first - 'a')])
                if (lowered_.compare(size_t(at), lowerWord.size(), lowerWord) == 0) found.positions.push_back(at);
        } else {
            addOccurrences(lowered_, lowerWord, found.positions);
        }
    } else if (found.checked != blankings_) {
        // A word blanked out since it was found is gone from the lowered copy too.
        std::erase_if(found.positions,
                      [&](int32_t at) { return lowered_.compare(size_t(at), lowerWord.size(), lowerWord) != 0; });
    }
    found.checked = blankings_;
    return found.positions;
}

void MatchStartIndex::indexGroups() const {
    groupContinues_.assign(digitRuns_.size(), 0);
    for (size_t r = digitRuns_.size(); r-- > 1;) {
        const int32_t previousEnd = digitRuns_[r - 1].first + digitRuns_[r - 1].second, start = digitRuns_[r].first;
        bool joined = start - previousEnd >= 1 && start - previousEnd <= 2;
        for (int32_t i = previousEnd; joined && i < start; ++i) joined = isGroupSeparator(text_[size_t(i)]);
        if (joined) groupContinues_[r - 1] = uint8_t(std::min(groupContinues_[r] + 1, 255));
    }
}

bool MatchStartIndex::beginsGroup(size_t run, const std::vector<int>& lengths) const {
    if (size_t(groupContinues_[run]) + 1 < lengths.size()) return false;
    for (size_t k = 0; k < lengths.size(); ++k)
        if (digitRuns_[run + k].second != lengths[k]) return false;
    return true;
}

void MatchStartIndex::blankedOut(const std::vector<std::pair<int32_t, int32_t>>& ranges) {
    answered_.clear();
    ++blankings_;
    if (lettersIndexed_)
        for (auto [start, end] : ranges)
            for (int32_t i = start; i < end; ++i) lowered_[size_t(i)] = char(0x80);
    if (!digitRunsIndexed_) return;
    // One pass over the runs: a run that reaches into a blanked range is indexed again from the text, since
    // digits may remain on either side of the range.
    std::vector<std::pair<int32_t, int32_t>> runs;
    runs.reserve(digitRuns_.size());
    size_t next = 0;
    for (auto run : digitRuns_) {
        while (next < ranges.size() && ranges[next].second <= run.first) ++next;
        if (next == ranges.size() || ranges[next].first >= run.first + run.second) {
            runs.push_back(run);
            continue;
        }
        for (int32_t i = run.first; i < run.first + run.second;) {
            if (!isDigit(text_[size_t(i)])) {
                ++i;
                continue;
            }
            const int32_t start = i;
            while (i < run.first + run.second && isDigit(text_[size_t(i)])) ++i;
            runs.push_back({start, i - start});
        }
    }
    digitRuns_ = std::move(runs);
    groupContinues_.clear();
}

const std::optional<std::vector<int32_t>>& MatchStartIndex::starts(const MatchStartRule& rule) const {
    auto [slot, added] = answered_.try_emplace(rule);
    if (added) slot->second = computeStarts(rule);
    return slot->second;
}

std::optional<std::vector<int32_t>> MatchStartIndex::computeStarts(const MatchStartRule& rule) const {
    std::vector<int32_t> out;
    switch (rule.kind) {
        case MatchStartRule::Kind::everywhere: return std::nullopt;
        case MatchStartRule::Kind::digitRunStarts:
            if (!digitRunsIndexed_) indexDigitRuns();
            if (groupContinues_.size() != digitRuns_.size()) indexGroups();
            for (size_t r = 0; r < digitRuns_.size(); ++r) {
                bool wanted = std::find(rule.runLengths.begin(), rule.runLengths.end(), digitRuns_[r].second) !=
                              rule.runLengths.end();
                for (const auto& group : rule.groups) wanted = wanted || beginsGroup(r, group);
                if (wanted) out.push_back(digitRuns_[r].first);
            }
            return out;
        case MatchStartRule::Kind::upperPairBeforeDigits:
        case MatchStartRule::Kind::letterPairBeforeDigits: {
            const bool anyCase = rule.kind == MatchStartRule::Kind::letterPairBeforeDigits;
            if (anyCase) {
                if (!lettersIndexed_) indexLetters();
                if (caseFoldsToASCII_) return std::nullopt;
            }
            if (!digitRunsIndexed_) indexDigitRuns();
            for (auto [start, runLength] : digitRuns_) {
                if (start < 2 || runLength < 2) continue;
                const char16_t a = text_[size_t(start - 2)], b = text_[size_t(start - 1)];
                if (anyCase ? isLetter(a) && isLetter(b) : isUpper(a) && isUpper(b)) out.push_back(start - 2);
            }
            return out;
        }
        case MatchStartRule::Kind::wordsIgnoringCase:
            if (!lettersIndexed_) indexLetters();
            if (caseFoldsToASCII_) return std::nullopt;
            for (auto word : rule.words) {
                const auto& found = occurrences(word);
                out.insert(out.end(), found.begin(), found.end());
            }
            break;
        case MatchStartRule::Kind::words: {
            if (!lettersIndexed_) indexLetters();
            // The lowered copy keeps non-letters, so case-sensitive words are checked against the text itself.
            for (auto word : rule.words) {
                std::string lowerWord(word);
                for (char& c : lowerWord)
                    if (c >= 'A' && c <= 'Z') c = char(c + 32);
                for (int32_t at : occurrences(lowerWord)) {
                    bool same = true;
                    for (size_t k = 0; k < word.size() && same; ++k) same = text_[size_t(at) + k] == char16_t(word[k]);
                    if (same) out.push_back(at);
                }
            }
            break;
        }
    }
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

}  // namespace aimwise
