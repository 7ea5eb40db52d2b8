#include "AimwiseCore/privacy/identifier_validators.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/identifier_generators.h"

namespace aimwise {
namespace {

namespace V = IdentifierValidators;

std::u16string u16(const std::string& ascii) { return std::u16string(ascii.begin(), ascii.end()); }
std::vector<int> digitsOf(const std::string& ascii) { return V::digits(u16(ascii)); }

TEST(SSNRule, AreaGroupAndSerialBounds) {
    EXPECT_TRUE(V::isValidSSN(u"001-01-0001"));
    EXPECT_TRUE(V::isValidSSN(u"899 99 9999"));
    EXPECT_TRUE(V::isValidSSN(u"665010001"));
    EXPECT_FALSE(V::isValidSSN(u"000-12-3456"));
    EXPECT_FALSE(V::isValidSSN(u"666-12-3456"));
    EXPECT_FALSE(V::isValidSSN(u"900-12-3456"));
    EXPECT_FALSE(V::isValidSSN(u"123-00-4567"));
    EXPECT_FALSE(V::isValidSSN(u"123-45-0000"));
    EXPECT_FALSE(V::isValidSSN(u"123-45-678"));
    EXPECT_FALSE(V::isValidSSN(u"123-45-67890"));
}

TEST(ITINRule, LeadingNineGroupRangesAndSerial) {
    const std::vector<std::pair<int, bool>> groups = {{49, false}, {50, true}, {65, true}, {66, false},
                                                      {69, false}, {70, true}, {88, true}, {89, false},
                                                      {90, true},  {92, true}, {93, false}, {94, true},
                                                      {99, true}};
    for (auto [group, accepted] : groups) {
        std::string text = "912-" + std::to_string(group) + "-1234";
        EXPECT_EQ(V::isValidITIN(u16(text)), accepted) << text;
    }
    EXPECT_FALSE(V::isValidITIN(u"812-70-1234"));
    EXPECT_FALSE(V::isValidITIN(u"912-70-0000"));
    EXPECT_FALSE(V::isValidITIN(u"912-70-123"));
}

TEST(RoutingRule, PrefixRangesChecksumAndDistinctDigits) {
    EXPECT_TRUE(V::isValidABARoutingNumber(u"021000021"));
    EXPECT_TRUE(V::isValidABARoutingNumber(u"011 000 015"));
    EXPECT_FALSE(V::isValidABARoutingNumber(u"021000022"));
    EXPECT_FALSE(V::isValidABARoutingNumber(u"000000000"));  // checksum 0, but one digit only
    EXPECT_FALSE(V::isValidABARoutingNumber(u"02100002"));
    // Search every prefix for a number with a valid checksum; only the listed prefixes may pass.
    for (int prefix = 0; prefix < 100; ++prefix) {
        bool listed = prefix <= 12 || (prefix >= 21 && prefix <= 32) || (prefix >= 61 && prefix <= 72) || prefix == 80;
        char body[16];
        std::snprintf(body, sizeof body, "%02d123456", prefix);
        std::string digits = body;
        int sum = 0, weights[] = {3, 7, 1, 3, 7, 1, 3, 7};
        for (int i = 0; i < 8; ++i) sum += weights[i] * (digits[size_t(i)] - '0');
        digits.push_back(char('0' + (10 - sum % 10) % 10));
        EXPECT_EQ(V::isValidABARoutingNumber(u16(digits)), listed) << digits;
    }
}

TEST(AccountRule, SixToSeventeenDigitsAndNotADate) {
    EXPECT_TRUE(V::isPlausibleAccountNumber(u"123456"));
    EXPECT_TRUE(V::isPlausibleAccountNumber(u"12345678901234567"));
    EXPECT_TRUE(V::isPlausibleAccountNumber(u"12-3456-78"));
    EXPECT_FALSE(V::isPlausibleAccountNumber(u"12345"));
    EXPECT_FALSE(V::isPlausibleAccountNumber(u"123456789012345678"));
    EXPECT_FALSE(V::isPlausibleAccountNumber(u"2024-01-15"));
    EXPECT_TRUE(V::isPlausibleAccountNumber(u"2024-01-155"));
}

TEST(IBANRule, EveryCountryAcceptsAGeneratedNumberOfItsLengthOnly) {
    testing::IdentifierRandom random(34);
    ASSERT_EQ(V::ibanCountries.size(), 34u);
    for (const auto& country : V::ibanCountries) {
        for (int i = 0; i < 20; ++i) {
            std::string iban = testing::validIBAN(random, country.code, country.length);
            EXPECT_TRUE(V::isValidIBAN(u16(iban))) << iban;
            EXPECT_FALSE(V::isValidIBAN(u16(testing::changeOneDigit(random, iban)))) << iban;
        }
        // A number valid in its checksum but one character too long for the country.
        std::string longer = testing::validIBAN(random, country.code, country.length + 1);
        EXPECT_FALSE(V::isValidIBAN(u16(longer))) << longer;
    }
}

TEST(IBANRule, SpacesAreIgnoredAndOtherCharactersRefused) {
    EXPECT_TRUE(V::isValidIBAN(u"GB82 WEST 1234 5698 7654 32"));
    EXPECT_TRUE(V::isValidIBAN(u"GB82WEST12345698765432"));
    EXPECT_FALSE(V::isValidIBAN(u"GB82west12345698765432"));
    EXPECT_FALSE(V::isValidIBAN(u"GB82-WEST-1234-5698-7654-32"));
    EXPECT_FALSE(V::isValidIBAN(u"US82WEST12345698765432"));
    EXPECT_FALSE(V::isValidIBAN(u"GB"));
    EXPECT_EQ(V::ibanLength(u"MT"), 31);
    EXPECT_EQ(V::ibanLength(u"US"), std::nullopt);
}

TEST(LuhnRule, CatchesEverySingleDigitChangeAndNeedsTwoDigits) {
    EXPECT_TRUE(V::luhnValid(digitsOf("79927398713")));
    for (size_t i = 0; i < 11; ++i)
        for (char d = '0'; d <= '9'; ++d) {
            std::string changed = "79927398713";
            if (changed[i] == d) continue;
            changed[i] = d;
            EXPECT_FALSE(V::luhnValid(digitsOf(changed))) << changed;
        }
    EXPECT_FALSE(V::luhnValid(digitsOf("0")));
    EXPECT_TRUE(V::luhnValid(digitsOf("00")));
}

TEST(IssuerRule, PrefixBoundariesAndLengths) {
    auto accepts = [](const std::string& prefix, int length) {
        std::string digits = prefix + std::string(size_t(length) - prefix.size(), '0');
        return V::issuerAccepts(digitsOf(digits));
    };
    EXPECT_FALSE(accepts("2220", 16));
    EXPECT_TRUE(accepts("2221", 16));
    EXPECT_TRUE(accepts("2720", 16));
    EXPECT_FALSE(accepts("2721", 16));
    EXPECT_FALSE(accepts("2221", 19));
    EXPECT_TRUE(accepts("34", 15));
    EXPECT_TRUE(accepts("37", 15));
    EXPECT_FALSE(accepts("34", 16));
    EXPECT_FALSE(accepts("35", 15));
    EXPECT_FALSE(accepts("3527", 16));
    EXPECT_TRUE(accepts("3528", 16));
    EXPECT_TRUE(accepts("3589", 19));
    EXPECT_FALSE(accepts("3590", 16));
    EXPECT_FALSE(accepts("3528", 15));
    EXPECT_TRUE(accepts("300", 14));
    EXPECT_TRUE(accepts("305", 19));
    EXPECT_FALSE(accepts("306", 14));
    EXPECT_TRUE(accepts("36", 14));
    EXPECT_TRUE(accepts("38", 17));
    EXPECT_TRUE(accepts("39", 14));
    EXPECT_FALSE(accepts("36", 13));
    EXPECT_FALSE(accepts("39", 20));
    for (int n = 12; n <= 20; ++n) EXPECT_EQ(accepts("4", n), n == 13 || n == 16 || n == 19) << n;
    EXPECT_FALSE(accepts("50", 16));
    EXPECT_TRUE(accepts("51", 16));
    EXPECT_TRUE(accepts("55", 16));
    EXPECT_FALSE(accepts("56", 16));
    EXPECT_FALSE(accepts("55", 19));
    EXPECT_TRUE(accepts("6011", 16));
    EXPECT_FALSE(accepts("6012", 16));
    EXPECT_TRUE(accepts("65", 19));
    EXPECT_FALSE(accepts("643", 16));
    EXPECT_TRUE(accepts("644", 16));
    EXPECT_TRUE(accepts("649", 16));
    EXPECT_FALSE(accepts("650", 15));
    EXPECT_TRUE(accepts("62", 17));
    EXPECT_FALSE(accepts("62", 15));
    EXPECT_FALSE(accepts("1", 16));
    EXPECT_FALSE(accepts("7", 16));
    EXPECT_FALSE(accepts("8", 16));
    EXPECT_FALSE(accepts("9", 16));
}

TEST(CardRule, BareRunsMustHaveFifteenOrSixteenDigits) {
    EXPECT_TRUE(V::isValidCardNumber(u"4111111111111111"));
    EXPECT_TRUE(V::isValidCardNumber(u"378282246310005"));
    EXPECT_FALSE(V::isValidCardNumber(u"4222222222222"));
    EXPECT_TRUE(V::isValidCardNumber(u"4222-2222-22222"));
    EXPECT_FALSE(V::isValidCardNumber(u"4111111111111111003"));
    EXPECT_TRUE(V::isValidCardNumber(u"4111 1111 1111 1111 003"));
    EXPECT_FALSE(V::isValidCardNumber(u"4444444444444444"));
    EXPECT_FALSE(V::isValidCardNumber(u"4111111111111112"));
}

TEST(LettersAfterDigitsRule, OneWayReading) {
    EXPECT_TRUE(V::mixesLettersAndDigits(u"1a"));
    EXPECT_TRUE(V::mixesLettersAndDigits(u"ab12cd"));
    EXPECT_FALSE(V::mixesLettersAndDigits(u"abcdef123456"));
    EXPECT_FALSE(V::mixesLettersAndDigits(u"abcdef"));
    EXPECT_FALSE(V::mixesLettersAndDigits(u"123456"));
    EXPECT_FALSE(V::mixesLettersAndDigits(u"12-_34"));
}

TEST(SecretFieldRule, NumberAndNoDot) {
    EXPECT_TRUE(V::hasNumericAndNoDot(u"hunter22"));
    EXPECT_TRUE(V::hasNumericAndNoDot(u"pass\u00BDword"));
    EXPECT_FALSE(V::hasNumericAndNoDot(u"hunter2.x"));
    EXPECT_FALSE(V::hasNumericAndNoDot(u"hunterxx"));
}

}  // namespace
}  // namespace aimwise
