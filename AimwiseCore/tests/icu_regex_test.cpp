// The privacy filters' matching through ICU's C API, against RegexMatcher on generated text.
#include "AimwiseCore/privacy/icu_regex.h"

#include <gtest/gtest.h>
#include <unicode/regex.h>

#include <random>

namespace aimwise {
namespace {

TEST(PrivacyRegex, FindsAndHoldsWhereRegexMatcherDoes) {
    const char* sources[] = {R"((?<![A-Za-z0-9])(\d{3})-?(\d{2})?(?![A-Za-z0-9]))", R"(^\w+|\b(a)\b|$)",
                             R"((?i)(acct|id)\s*#?\s*([A-Z0-9]{2,}))", R"((?<=x)y?(?=z))"};
    const std::u16string alphabet = u"0123 -#xyzaAIDcct\u00e9\U0001F600";
    std::mt19937 random(5);
    for (const char* source : sources) {
        const auto mine = privacy_icu::compileOrAbort("a test pattern", source);
        UParseError parseError{};
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::RegexPattern> theirs(
            icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(source), 0, parseError, status));
        ASSERT_TRUE(U_SUCCESS(status)) << source;
        for (int i = 0; i < 3'000; ++i) {
            std::u16string text;
            for (int n = int(random() % 16); n > 0; --n) text.push_back(alphabet[random() % alphabet.size()]);
            const icu::UnicodeString input(text.data(), int32_t(text.size()));
            std::unique_ptr<icu::RegexMatcher> matcher(theirs->matcher(input, status));
            const int32_t group = int32_t(random() % 3) % (matcher->groupCount() + 1);
            std::vector<std::pair<int32_t, int32_t>> expected;
            while (matcher->find(status))
                if (matcher->start(group, status) >= 0)
                    expected.emplace_back(matcher->start(group, status), matcher->end(group, status));
            std::vector<std::pair<int32_t, int32_t>> found;
            for (const auto& range : privacy_icu::findAll(*mine, text, group)) found.emplace_back(range.start, range.end);
            ASSERT_EQ(found, expected) << source;
            ASSERT_EQ(privacy_icu::matchesAnywhere(*mine, text), matcher->reset().find(status));

            const int32_t at = int32_t(random() % (text.size() + 1));
            matcher->reset().useTransparentBounds(true).useAnchoringBounds(false).region(at, input.length(), status);
            ASSERT_EQ(privacy_icu::holdsAt(*mine, text, at), matcher->lookingAt(status)) << source << " at " << at;
        }
    }
}

}  // namespace
}  // namespace aimwise
