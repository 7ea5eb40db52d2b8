#include "AimwiseCore/privacy/icu_regex.h"

#include <cstdio>
#include <cstdlib>
#include <unordered_map>

namespace aimwise::privacy_icu {

namespace {

// Matchers hold a pointer to their text; between uses they point here instead.
constexpr char16_t emptyText[] = u"";

std::unique_ptr<Pattern> compile(std::string_view utf8Pattern, UParseError& parseError, UErrorCode& status) {
    const ICU& icu = ICU::get();
    const std::u16string source = toUTF16(utf8Pattern);
    URegularExpression* compiled =
        icu.uregex_open(unicode::nonNull(source), int32_t(source.size()), 0, &parseError, &status);
    if (U_FAILURE(status)) {
        if (compiled) icu.uregex_close(compiled);
        return nullptr;
    }
    return std::make_unique<Pattern>(compiled);
}

}  // namespace

namespace detail {

// Matchers are costly to create and not shareable, so each thread keeps three per pattern: one that scans,
// one that retries shorter matches and one for anchored attempts.
Matcher& matcherFor(const Pattern& pattern, std::u16string_view text, int which) {
    thread_local std::unordered_map<const Pattern*, ICUHandle<Matcher, &ICU::uregex_close>> cache[3];
    const ICU& icu = ICU::get();
    auto& slot = cache[which][&pattern];
    UErrorCode status = U_ZERO_ERROR;
    if (!slot) {
        slot.reset(icu.uregex_clone(pattern.compiled(), &status));
        if (U_FAILURE(status) || !slot) {
            std::fprintf(stderr, "privacy filter: cannot create a regex matcher: %s\n", icu.u_errorName(status));
            std::abort();
        }
    }
    icu.uregex_setText(slot.get(), unicode::nonNull(text), int32_t(text.size()), &status);
    return *slot;
}

void release(Matcher& matcher) {
    UErrorCode status = U_ZERO_ERROR;
    ICU::get().uregex_setText(&matcher, emptyText, 0, &status);
}

}  // namespace detail

std::unique_ptr<Pattern> compileOrAbort(std::string_view name, std::string_view utf8Pattern) {
    UParseError parseError{};
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<Pattern> pattern = compile(utf8Pattern, parseError, status);
    if (!pattern) {
        std::fprintf(stderr, "privacy filter: the pattern of %.*s does not compile (%s at offset %d)\n",
                     int(name.size()), name.data(), ICU::get().u_errorName(status), int(parseError.offset));
        std::abort();
    }
    return pattern;
}

std::unique_ptr<Pattern> compileOrNull(std::string_view utf8Pattern) {
    UParseError parseError{};
    UErrorCode status = U_ZERO_ERROR;
    return compile(utf8Pattern, parseError, status);
}

std::vector<Range> findAll(const Pattern& pattern, std::u16string_view text, int32_t group) {
    const ICU& icu = ICU::get();
    std::vector<Range> ranges;
    Matcher& matcher = detail::matcherFor(pattern, text, 0);
    UErrorCode status = U_ZERO_ERROR;
    while (icu.uregex_findNext(&matcher, &status) && U_SUCCESS(status)) {
        int32_t start = icu.uregex_start(&matcher, group, &status);
        int32_t end = icu.uregex_end(&matcher, group, &status);
        if (U_FAILURE(status)) break;
        if (start < 0) continue;
        ranges.push_back({start, end});
    }
    // Drop the matcher's pointer to a text that is about to go away.
    detail::release(matcher);
    return ranges;
}

bool matchesAnywhere(const Pattern& pattern, std::u16string_view text) {
    Matcher& matcher = detail::matcherFor(pattern, text, 0);
    UErrorCode status = U_ZERO_ERROR;
    bool found = ICU::get().uregex_findNext(&matcher, &status) && U_SUCCESS(status);
    detail::release(matcher);
    return found;
}

bool holdsAt(const Pattern& lookArounds, std::u16string_view text, int32_t at) {
    const ICU& icu = ICU::get();
    Matcher& matcher = detail::matcherFor(lookArounds, text, 0);
    UErrorCode status = U_ZERO_ERROR;
    icu.uregex_useTransparentBounds(&matcher, true, &status);
    icu.uregex_useAnchoringBounds(&matcher, false, &status);
    icu.uregex_setRegion(&matcher, at, int32_t(text.size()), &status);
    const bool holds = U_SUCCESS(status) && icu.uregex_lookingAt(&matcher, -1, &status) && U_SUCCESS(status);
    detail::release(matcher);
    return holds;
}

std::u16string toUTF16(std::string_view utf8) { return unicode::toUTF16(utf8); }

std::string toUTF8(std::u16string_view utf16) { return unicode::toUTF8(utf16); }

}  // namespace aimwise::privacy_icu
