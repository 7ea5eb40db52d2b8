#pragma once
// ICU plumbing shared by the privacy filters. Internal: no public header includes it.
#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <cstdint>
#include <memory>
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
// Like findAll, but when `accept` refuses a match's group, shorter matches from the same start are tried
// (with the real text around them visible to look-arounds), as if the check were part of the pattern.
// Without this, a valid value followed by a word the pattern can swallow would be refused whole.
template <class Accept>
std::vector<Range> findAllAccepted(const icu::RegexPattern& pattern, const icu::UnicodeString& text, int32_t group,
                                   Accept accept);

bool matchesAnywhere(const icu::RegexPattern& pattern, const icu::UnicodeString& text);

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

template <class Accept>
std::vector<Range> findAllAccepted(const icu::RegexPattern& pattern, const icu::UnicodeString& text, int32_t group,
                                   Accept accept) {
    std::vector<Range> ranges;
    icu::RegexMatcher& matcher = detail::matcherFor(pattern, text, 0);
    icu::RegexMatcher* retry = nullptr;
    UErrorCode status = U_ZERO_ERROR;
    while (matcher.find(status) && U_SUCCESS(status)) {
        const int32_t matchStart = matcher.start(status);
        int32_t matchEnd = matcher.end(status);
        Range value{matcher.start(group, status), matcher.end(group, status)};
        while (U_SUCCESS(status)) {
            if (value.start >= 0 && accept(value)) {
                ranges.push_back(value);
                break;
            }
            if (matchEnd - 1 <= matchStart) break;
            if (!retry) {
                retry = &detail::matcherFor(pattern, text, 1);
                retry->useTransparentBounds(true);
                retry->useAnchoringBounds(false);
            }
            retry->region(matchStart, matchEnd - 1, status);
            if (U_FAILURE(status) || !retry->lookingAt(status) || U_FAILURE(status)) break;
            matchEnd = retry->end(status);
            value = {retry->start(group, status), retry->end(group, status)};
        }
    }
    if (retry) detail::release(*retry);
    detail::release(matcher);
    return ranges;
}

}  // namespace aimwise::privacy_icu
