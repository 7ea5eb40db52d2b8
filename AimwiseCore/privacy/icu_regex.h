#pragma once
// ICU plumbing shared by the privacy filters. Internal: no public header includes it.
#include "CaptureShared/common/icu_library.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace aimwise::privacy_icu {

// A compiled pattern, shared by every thread; matching is done by clones of it.
class Pattern {
public:
    explicit Pattern(URegularExpression* compiled) : compiled_(compiled) {}
    const URegularExpression* compiled() const { return compiled_.get(); }

private:
    ICUHandle<URegularExpression, &ICU::uregex_close> compiled_;
};
using Matcher = URegularExpression;

// A pattern that does not compile is a build fault; the filter must never run without it.
std::unique_ptr<Pattern> compileOrAbort(std::string_view name, std::string_view utf8Pattern);
// For the best-effort scrub, where a broken pattern is simply left out.
std::unique_ptr<Pattern> compileOrNull(std::string_view utf8Pattern);

struct Range {
    int32_t start;
    int32_t end;
};

// Ranges of `group` for every match, in text order; matches where the group did not take part are skipped.
std::vector<Range> findAll(const Pattern& pattern, std::u16string_view text, int32_t group);
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
std::vector<Range> findAllAccepted(const Pattern& pattern, std::u16string_view text, int32_t group,
                                   Accept accept, Resume resume = {});

bool matchesAnywhere(const Pattern& pattern, std::u16string_view text);
// Whether a pattern of look-arounds alone holds at `at`, with the whole text visible to them.
bool holdsAt(const Pattern& lookArounds, std::u16string_view text, int32_t at);

// Invalid UTF-8 becomes U+FFFD, so everything downstream sees well-formed text.
std::u16string toUTF16(std::string_view utf8);
std::string toUTF8(std::u16string_view utf16);
std::string toUTF8(std::u16string_view text);

namespace detail {
Matcher& matcherFor(const Pattern& pattern, std::u16string_view text, int slot);
void release(Matcher& matcher);
}  // namespace detail

// Settles one match: its value if accepted, else the value of the longest shorter match from the same start
// that is accepted, else nothing.
template <class Accept>
std::optional<Range> settle(const Pattern& pattern, std::u16string_view text, int32_t group,
                            int32_t matchStart, int32_t matchEnd, Range value, Matcher*& retry,
                            Accept& accept) {
    const ICU& icu = ICU::get();
    UErrorCode status = U_ZERO_ERROR;
    for (bool shortened = false;; shortened = true) {
        if (value.start >= 0 && accept(Range{matchStart, matchEnd}, value, shortened)) return value;
        if (matchEnd - 1 <= matchStart) return std::nullopt;
        if (!retry) retry = &detail::matcherFor(pattern, text, 1);
        icu.uregex_useTransparentBounds(retry, true, &status);
        icu.uregex_useAnchoringBounds(retry, false, &status);
        icu.uregex_setRegion(retry, matchStart, matchEnd - 1, &status);
        if (U_FAILURE(status) || !icu.uregex_lookingAt(retry, -1, &status) || U_FAILURE(status)) return std::nullopt;
        matchEnd = icu.uregex_end(retry, 0, &status);
        value = {icu.uregex_start(retry, group, &status), icu.uregex_end(retry, group, &status)};
        if (U_FAILURE(status)) return std::nullopt;
    }
}

template <class Accept, class Resume>
std::vector<Range> findAllAccepted(const Pattern& pattern, std::u16string_view text, int32_t group,
                                   Accept accept, Resume resume) {
    const ICU& icu = ICU::get();
    std::vector<Range> ranges;
    Matcher& matcher = detail::matcherFor(pattern, text, 0);
    Matcher* retry = nullptr;
    UErrorCode status = U_ZERO_ERROR;
    for (bool found = icu.uregex_findNext(&matcher, &status); found && U_SUCCESS(status);) {
        const int32_t matchStart = icu.uregex_start(&matcher, 0, &status), matchEnd = icu.uregex_end(&matcher, 0, &status);
        Range value{icu.uregex_start(&matcher, group, &status), icu.uregex_end(&matcher, group, &status)};
        auto settled = settle(pattern, text, group, matchStart, matchEnd, value, retry, accept);
        if (settled) ranges.push_back(*settled);
        const int32_t next = settled ? matchEnd : resume(matchStart, matchEnd);
        found = next < matchEnd ? icu.uregex_find(&matcher, next, &status) : icu.uregex_findNext(&matcher, &status);
    }
    if (retry) detail::release(*retry);
    detail::release(matcher);
    return ranges;
}

// The same matches as findAllAccepted when `starts` (ascending) holds every position where a match can
// begin: each is tried as an anchored match, with the text around it visible to look-arounds, and a match
// hides the candidates inside it just as a scan would skip them.
template <class Accept, class Resume = ResumeAtEnd>
std::vector<Range> findAllAcceptedAt(const Pattern& pattern, std::u16string_view text, int32_t group,
                                     const std::vector<int32_t>& starts, Accept accept, Resume resume = {}) {
    std::vector<Range> ranges;
    if (starts.empty()) return ranges;
    const ICU& icu = ICU::get();
    Matcher& matcher = detail::matcherFor(pattern, text, 2);
    Matcher* retry = nullptr;
    UErrorCode status = U_ZERO_ERROR;
    icu.uregex_useTransparentBounds(&matcher, true, &status);
    icu.uregex_useAnchoringBounds(&matcher, false, &status);
    int32_t scanFrom = 0;
    for (int32_t start : starts) {
        if (start < scanFrom) continue;
        icu.uregex_setRegion(&matcher, start, int32_t(text.size()), &status);
        if (U_FAILURE(status)) break;
        if (!icu.uregex_lookingAt(&matcher, -1, &status) || U_FAILURE(status)) continue;
        const int32_t matchEnd = icu.uregex_end(&matcher, 0, &status);
        Range value{icu.uregex_start(&matcher, group, &status), icu.uregex_end(&matcher, group, &status)};
        auto settled = settle(pattern, text, group, start, matchEnd, value, retry, accept);
        if (settled) ranges.push_back(*settled);
        scanFrom = settled ? matchEnd : resume(start, matchEnd);
    }
    if (retry) detail::release(*retry);
    detail::release(matcher);
    return ranges;
}

}  // namespace aimwise::privacy_icu
