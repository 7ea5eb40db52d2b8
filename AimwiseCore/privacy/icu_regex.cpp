#include "AimwiseCore/privacy/icu_regex.h"

#include <unicode/utf16.h>

#include <cstdio>
#include <cstdlib>
#include <unordered_map>

namespace aimwise::privacy_icu {

namespace {

// Matchers hold a reference to their text; between uses they point here instead.
const icu::UnicodeString& emptyText() {
    static const icu::UnicodeString empty;
    return empty;
}

icu::UnicodeString patternText(std::string_view utf8Pattern) {
    return icu::UnicodeString::fromUTF8(icu::StringPiece(utf8Pattern.data(), int32_t(utf8Pattern.size())));
}

}  // namespace

namespace detail {

// Matchers are costly to create and not shareable, so each thread keeps three per pattern: one that scans,
// one that retries shorter matches and one for anchored attempts.
icu::RegexMatcher& matcherFor(const icu::RegexPattern& pattern, const icu::UnicodeString& text, int which) {
    thread_local std::unordered_map<const icu::RegexPattern*, std::unique_ptr<icu::RegexMatcher>> cache[3];
    auto& slot = cache[which][&pattern];
    UErrorCode status = U_ZERO_ERROR;
    if (!slot) {
        slot.reset(pattern.matcher(text, status));
        if (U_FAILURE(status) || !slot) {
            std::fprintf(stderr, "privacy filter: cannot create a regex matcher: %s\n", u_errorName(status));
            std::abort();
        }
    } else {
        slot->reset(text);
    }
    return *slot;
}

void release(icu::RegexMatcher& matcher) { matcher.reset(emptyText()); }

}  // namespace detail

std::unique_ptr<icu::RegexPattern> compileOrAbort(std::string_view name, std::string_view utf8Pattern) {
    UParseError parseError{};
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexPattern> pattern(
        icu::RegexPattern::compile(patternText(utf8Pattern), 0, parseError, status));
    if (U_FAILURE(status) || !pattern) {
        std::fprintf(stderr, "privacy filter: the pattern of %.*s does not compile (%s at offset %d)\n",
                     int(name.size()), name.data(), u_errorName(status), int(parseError.offset));
        std::abort();
    }
    return pattern;
}

std::unique_ptr<icu::RegexPattern> compileOrNull(std::string_view utf8Pattern) {
    UParseError parseError{};
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexPattern> pattern(
        icu::RegexPattern::compile(patternText(utf8Pattern), 0, parseError, status));
    if (U_FAILURE(status)) return nullptr;
    return pattern;
}

std::vector<Range> findAll(const icu::RegexPattern& pattern, const icu::UnicodeString& text, int32_t group) {
    std::vector<Range> ranges;
    icu::RegexMatcher& matcher = detail::matcherFor(pattern, text, 0);
    UErrorCode status = U_ZERO_ERROR;
    while (matcher.find(status) && U_SUCCESS(status)) {
        int32_t start = matcher.start(group, status);
        int32_t end = matcher.end(group, status);
        if (U_FAILURE(status)) break;
        if (start < 0) continue;
        ranges.push_back({start, end});
    }
    // Drop the matcher's reference to a text that is about to go away.
    detail::release(matcher);
    return ranges;
}

bool matchesAnywhere(const icu::RegexPattern& pattern, const icu::UnicodeString& text) {
    icu::RegexMatcher& matcher = detail::matcherFor(pattern, text, 0);
    UErrorCode status = U_ZERO_ERROR;
    bool found = matcher.find(status) && U_SUCCESS(status);
    detail::release(matcher);
    return found;
}

bool holdsAt(const icu::RegexPattern& lookArounds, const icu::UnicodeString& text, int32_t at) {
    icu::RegexMatcher& matcher = detail::matcherFor(lookArounds, text, 0);
    matcher.useTransparentBounds(true);
    matcher.useAnchoringBounds(false);
    UErrorCode status = U_ZERO_ERROR;
    matcher.region(at, text.length(), status);
    const bool holds = U_SUCCESS(status) && matcher.lookingAt(status) && U_SUCCESS(status);
    detail::release(matcher);
    return holds;
}

icu::UnicodeString alias(std::u16string_view text) {
    return icu::UnicodeString(false, text.data(), int32_t(text.size()));
}

std::u16string toUTF16(std::string_view utf8) {
    icu::UnicodeString text = icu::UnicodeString::fromUTF8(icu::StringPiece(utf8.data(), int32_t(utf8.size())));
    return std::u16string(text.getBuffer(), size_t(text.length()));
}

std::string toUTF8(std::u16string_view utf16) { return toUTF8(alias(utf16)); }

std::string toUTF8(const icu::UnicodeString& text) {
    std::string out;
    text.toUTF8String(out);
    return out;
}

}  // namespace aimwise::privacy_icu
