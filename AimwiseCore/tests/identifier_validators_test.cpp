#include "AimwiseCore/privacy/identifier_validators.h"

#include <gtest/gtest.h>

#include <algorithm>
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
    // Each prefix with the lengths it accepts among 12 to 20 digits; neighbours of every range boundary.
    const std::vector<std::pair<std::string, std::vector<int>>> table = {
        {"2220", {}},       {"2221", {16}},     {"2720", {16}},       {"2721", {}},     {"34", {15}},
        {"37", {15}},       {"35", {}},         {"3527", {}},         {"3528", {16, 17, 18, 19}},
        {"3589", {16, 17, 18, 19}},             {"3590", {}},         {"300", {14, 15, 16, 17, 18, 19}},
        {"305", {14, 15, 16, 17, 18, 19}},      {"306", {}},          {"36", {14, 15, 16, 17, 18, 19}},
        {"38", {14, 15, 16, 17, 18, 19}},       {"39", {14, 15, 16, 17, 18, 19}},
        {"4", {13, 16, 19}}, {"50", {}},        {"51", {16}},         {"55", {16}},     {"56", {}},
        {"6011", {16, 17, 18, 19}},             {"6012", {}},         {"65", {16, 17, 18, 19}},
        {"643", {}},        {"644", {16, 17, 18, 19}},                {"649", {16, 17, 18, 19}},
        {"650", {16, 17, 18, 19}},              {"62", {16, 17, 18, 19}}, {"1", {}}, {"7", {}}, {"8", {}}, {"9", {}},
    };
    for (const auto& [prefix, lengths] : table)
        for (int n = 12; n <= 20; ++n) {
            std::string digits = prefix + std::string(size_t(n) - prefix.size(), '0');
            bool expected = std::find(lengths.begin(), lengths.end(), n) != lengths.end();
            EXPECT_EQ(V::issuerAccepts(digitsOf(digits)), expected) << prefix << " with " << n << " digits";
        }
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

}  // namespace
}  // namespace aimwise
