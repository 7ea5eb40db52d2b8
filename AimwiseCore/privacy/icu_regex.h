#pragma once
// ICU plumbing shared by the privacy filters. Internal: no public header includes it.
#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace aimwise::privacy_icu {

// A pattern that does not compile is a build fault; the filter must never run without it.
std::unique_ptr<icu::RegexPattern> compileOrAbort(std::string_view name, std::string_view utf8Pattern);
// For the best-effort scrub, where a broken pattern is simply left out.
std::unique_ptr<icu::RegexPattern> compileOrNull(std::string_view utf8Pattern);

struct Range {
    int32_t start;
    int32_t end;
};

// Ranges of `group` for every match, in text order; matches where the group did not take part are skipped.
std::vector<Range> findAll(const icu::RegexPattern& pattern, const icu::UnicodeString& text, int32_t group);
// Like findAll, but when `accept` (given the match, its group, and whether it is such a shorter match) refuses,
// shorter matches from the same start are tried
// (with the real text around them visible to look-arounds), as if the check were part of the pattern.
// Without this, a valid value followed by a word the pattern can swallow would be refused whole.
// After a match whose value was refused, a plain scan goes on at its end, so it hides the matches that
// would start inside it. `resume(matchStart, matchEnd)` may name an earlier position.
struct ResumeAtEnd {
    int32_t operator()(int32_t, int32_t matchEnd) const { return matchEnd; }
};
template <class Accept, class Resume = ResumeAtEnd>
std::vector<Range> findAllAccepted(const icu::RegexPattern& pattern, const icu::UnicodeString& text, int32_t group,
                                   Accept accept, Resume resume = {});

bool matchesAnywhere(const icu::RegexPattern& pattern, const icu::UnicodeString& text);
// Whether a pattern of look-arounds alone holds at `at`, with the whole text visible to them.
bool holdsAt(const icu::RegexPattern& lookArounds, const icu::UnicodeString& text, int32_t at);

// Aliases the buffer without copying; the view must outlive the result.
icu::UnicodeString alias(std::u16string_view text);

// Invalid UTF-8 becomes U+FFFD, so everything downstream sees well-formed text.
std::u16string toUTF16(std::string_view utf8);
std::string toUTF8(std::u16string_view utf16);
std::string toUTF8(const icu::UnicodeString& text);

namespace detail {
icu::RegexMatcher& matcherFor(const icu::RegexPattern& pattern, const icu::UnicodeString& text, int slot);
void release(icu::RegexMatcher& matcher);
}  // namespace detail

// Settles one match: its value if accepted, else the value of the longest shorter match from the same start
// that is accepted, else nothing.
template <class Accept>
std::optional<Range> settle(const icu::RegexPattern& pattern, const icu::UnicodeString& text, int32_t group,
                            int32_t matchStart, int32_t matchEnd, Range value, icu::RegexMatcher*& retry,
                            Accept& accept) {
    UErrorCode status = U_ZERO_ERROR;
    for (bool shortened = false;; shortened = true) {
        if (value.start >= 0 && accept(Range{matchStart, matchEnd}, value, shortened)) return value;
        if (matchEnd - 1 <= matchStart) return std::nullopt;
        if (!retry) retry = &detail::matcherFor(pattern, text, 1);
        retry->useTransparentBounds(true);
        retry->useAnchoringBounds(false);
        retry->region(matchStart, matchEnd - 1, status);
        if (U_FAILURE(status) || !retry->lookingAt(status) || U_FAILURE(status)) return std::nullopt;
        matchEnd = retry->end(status);
        value = {retry->start(group, status), retry->end(group, status)};
        if (U_FAILURE(status)) return std::nullopt;
    }
}

template <class Accept, class Resume>
std::vector<Range> findAllAccepted(const icu::RegexPattern& pattern, const icu::UnicodeString& text, int32_t group,
                                   Accept accept, Resume resume) {
    std::vector<Range> ranges;
    icu::RegexMatcher& matcher = detail::matcherFor(pattern, text, 0);
    icu::RegexMatcher* retry = nullptr;
    UErrorCode status = U_ZERO_ERROR;
    for (bool found = matcher.find(status); found && U_SUCCESS(status);) {
        const int32_t matchStart = matcher.start(status), matchEnd = matcher.end(status);
        Range value{matcher.start(group, status), matcher.end(group, status)};
        auto settled = settle(pattern, text, group, matchStart, matchEnd, value, retry, accept);
        if (settled) ranges.push_back(*settled);
        const int32_t next = settled ? matchEnd : resume(matchStart, matchEnd);
        found = next < matchEnd ? matcher.find(int64_t(next), status) : matcher.find(status);
    }
    if (retry) detail::release(*retry);
    detail::release(matcher);
    return ranges;
}

// The same matches as findAllAccepted when `starts` (ascending) holds every position where a match can
// begin: each is tried as an anchored match, with the text around it visible to look-arounds, and a match
// hides the candidates inside it just as a scan would skip them.
template <class Accept, class Resume = ResumeAtEnd>
std::vector<Range> findAllAcceptedAt(const icu::RegexPattern& pattern, const icu::UnicodeString& text, int32_t group,
                                     const std::vector<int32_t>& starts, Accept accept, Resume resume = {}) {
    std::vector<Range> ranges;
    if (starts.empty()) return ranges;
    icu::RegexMatcher& matcher = detail::matcherFor(pattern, text, 2);
    icu::RegexMatcher* retry = nullptr;
    matcher.useTransparentBounds(true);
    matcher.useAnchoringBounds(false);
    UErrorCode status = U_ZERO_ERROR;
    int32_t scanFrom = 0;
    for (int32_t start : starts) {
        if (start < scanFrom) continue;
        matcher.region(start, text.length(), status);
        if (U_FAILURE(status)) break;
        if (!matcher.lookingAt(status) || U_FAILURE(status)) continue;
        const int32_t matchEnd = matcher.end(status);
        Range value{matcher.start(group, status), matcher.end(group, status)};
        auto settled = settle(pattern, text, group, start, matchEnd, value, retry, accept);
        if (settled) ranges.push_back(*settled);
        scanFrom = settled ? matchEnd : resume(start, matchEnd);
    }
    if (retry) detail::release(*retry);
    detail::release(matcher);
    return ranges;
}

}  // namespace aimwise::privacy_icu
