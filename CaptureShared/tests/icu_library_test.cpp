// ICU opened by hand against ICU as a program links it: every function found is the one the linker
// would bind, and each helper agrees with ICU's C++ API on generated input.
#include "CaptureShared/common/icu_library.h"

#include <gtest/gtest.h>
#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <random>

#include "CaptureShared/common/local_time.h"

namespace aimwise {
namespace {

TEST(ICULibrary, FindsTheVersionedFunctionsTheLinkerWouldBind) {
    const ICU& icu = ICU::get();
    EXPECT_EQ(icu.version, U_ICU_VERSION_MAJOR_NUM);
#define AIMWISE_EXPECT_LINKED(name) EXPECT_EQ(reinterpret_cast<void*>(icu.name), reinterpret_cast<void*>(&::name)) << #name;
    AIMWISE_ICU_FUNCTIONS(AIMWISE_EXPECT_LINKED)
#undef AIMWISE_EXPECT_LINKED
}

// Bytes or units mostly of the kinds that go wrong: ASCII, lead and continuation bytes, surrogates.
template <class Unit>
std::basic_string<Unit> generated(std::mt19937& random, std::initializer_list<unsigned> pieces) {
    std::basic_string<Unit> out;
    const std::vector<unsigned> from(pieces);
    for (int n = std::uniform_int_distribution<int>(0, 12)(random); n > 0; --n)
        out.push_back(Unit(from[random() % from.size()] + random() % 4));
    return out;
}

TEST(ICULibrary, ConversionsAndCaseMappingAgreeWithUnicodeString) {
    std::mt19937 random(7);
    for (int i = 0; i < 20'000; ++i) {
        const std::string bytes = generated<char>(random, {0x41, 0x7F, 0x80, 0xBF, 0xC2, 0xE0, 0xED, 0xF0, 0xF4, 0xFF});
        const icu::UnicodeString expected = icu::UnicodeString::fromUTF8(bytes);
        const std::u16string units = unicode::toUTF16(bytes);
        ASSERT_EQ(units, std::u16string(expected.getBuffer(), size_t(expected.length()))) << bytes;

        std::u16string mixed = generated<char16_t>(random, {0x41, 0xDF, 0x130, 0x3A3, 0xD800, 0xDC00, 0xFB00});
        std::string utf8;
        icu::UnicodeString(false, mixed.data(), int32_t(mixed.size())).toUTF8String(utf8);
        ASSERT_EQ(unicode::toUTF8(mixed), utf8);
        const auto same = [&](std::u16string mine, icu::UnicodeString theirs) {
            ASSERT_EQ(mine, std::u16string(theirs.getBuffer(), size_t(theirs.length())));
        };
        const icu::UnicodeString text(mixed.data(), int32_t(mixed.size()));
        same(unicode::toLower(mixed, ""), icu::UnicodeString(text).toLower(icu::Locale::getRoot()));
        same(unicode::toLower(mixed, nullptr), icu::UnicodeString(text).toLower());
        same(unicode::toUpper(mixed, nullptr), icu::UnicodeString(text).toUpper());
        same(unicode::foldCase(mixed), icu::UnicodeString(text).foldCase());
        const int32_t at = int32_t(random() % (mixed.size() + 2)) - 1;
        ASSERT_EQ(unicode::char32At(mixed, at), text.char32At(at));
        const UChar32 c = UChar32(random() % 0x110010);
        same(unicode::units(c), icu::UnicodeString(c));
    }
}

// Instants on both sides of each zone's changes of offset and at random, in zones with half- and
// three-quarter-hour offsets and a half-hour daylight saving.
TEST(ICULibrary, LocalTimeWritesAndReadsAsSimpleDateFormatDoesInEveryZone) {
    std::mt19937 random(11);
    int changes = 0;
    for (const char* zoneName : {"UTC", "America/New_York", "Europe/London", "Asia/Kolkata", "Asia/Kathmandu",
                                 "America/St_Johns", "Australia/Lord_Howe", "Pacific/Chatham", "Africa/Casablanca"}) {
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone(zoneName));
        UErrorCode status = U_ZERO_ERROR;
        icu::SimpleDateFormat reference(u"yyyy-MM-dd'T'HH:mm:ss", icu::Locale("en_US_POSIX"), status);
        ASSERT_TRUE(U_SUCCESS(status));
        reference.setLenient(false);
        std::vector<int64_t> instants;
        // Every change of offset falls on a whole or half hour of UTC: both sides of each, through 2024.
        const std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createDefault());
        for (int64_t ms = 1'704'067'200'000, before = -1; ms < 1'735'689'600'000; ms += 1'800'000) {
            int32_t raw = 0, saving = 0;
            zone->getOffset(double(ms), false, raw, saving, status);
            if (before != -1 && before != raw + saving) {
                instants.insert(instants.end(), {ms - 1, ms, ms + 1'800'000});
                ++changes;
            }
            before = raw + saving;
        }
        ASSERT_TRUE(U_SUCCESS(status));
        for (int i = 0; i < 1'000; ++i) instants.push_back(int64_t(random() % 4'000'000'000) * 1000 - 1'000'000'000'000);
        for (const int64_t ms : instants) {
            icu::UnicodeString text;
            std::string expected;
            reference.format(double(ms), text).toUTF8String(expected);
            ASSERT_EQ(LocalTime::format(ms), expected) << zoneName << " " << ms;
            icu::ParsePosition position(0);
            const UDate back = reference.parse(text, position);
            ASSERT_EQ(LocalTime::parse(expected), std::optional<int64_t>(int64_t(back))) << zoneName << " " << expected;
        }
        // Local times that a change of offset skips or repeats, and ones that are no time at all.
        for (const char* text : {"2024-03-10T02:30:00", "2024-11-03T01:30:00", "2024-03-31T01:30:00",
                                 "2024-10-06T02:15:00", "2024-02-30T10:00:00", "2024-13-01T00:00:00"}) {
            icu::ParsePosition position(0);
            const UDate expected = reference.parse(icu::UnicodeString(text), position);
            const auto parsed = LocalTime::parse(text);
            if (position.getErrorIndex() >= 0) ASSERT_FALSE(parsed) << zoneName << " " << text;
            else ASSERT_EQ(parsed, std::optional<int64_t>(int64_t(expected))) << zoneName << " " << text;
        }
    }
    EXPECT_GE(changes, 12);
    icu::TimeZone::adoptDefault(icu::TimeZone::detectHostTimeZone());
}

}  // namespace
}  // namespace aimwise
