// Generated identifiers in generated surroundings: every valid one must disappear, every near miss stay.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "AimwiseCore/privacy/identifier_validators.h"
#include "AimwiseCore/privacy/outbound_title_privacy.h"
#include "AimwiseCore/privacy/safe_text.h"
#include "AimwiseCore/privacy/screen_text.h"
#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"
#include "tests/support/identifier_generators.h"

namespace aimwise {
namespace {

using SensitiveIdentifierRedaction::redact;
using Scope = SensitiveIdentifierRedaction::Scope;
using Kind = SensitiveIdentifierKind;
using testing::IdentifierRandom;

struct Embedded {
    std::string text;
    Kind kind;
};

std::string dash(IdentifierRandom& random) {
    return random.pick(std::vector<std::string>{"-", "-", "\u2010", "\u2011", "\u2013", "\u2212", "\uFF0D"});
}

std::string connector(IdentifierRandom& random) {
    return random.pick(std::vector<std::string>{" ", ": ", " is ", " # ", "=", " - ", ":\\n", "\n", ":  \\t "});
}

Embedded card(IdentifierRandom& random, const testing::CardIssuerRow& row) {
    int length = random.pick(row.lengths);
    std::string digits = testing::validCardNumber(random, row, length);
    std::string shown;
    switch (length) {
        case 14: shown = testing::grouped(random, digits, {4, 6, 4}); break;
        case 15: shown = random.chance(50) ? digits : testing::grouped(random, digits, {4, 6, 5}); break;
        case 16: shown = random.chance(40) ? digits : testing::grouped(random, digits, {4, 4, 4, 4}); break;
        default: shown = testing::grouped(random, digits, {4, 4, 4, 4, 3}); break;
    }
    // The labelled form takes its digits glued to the label, with or without separators.
    if (random.chance(20)) {
        std::string label = random.pick(std::vector<std::string>{"Visa", "card#", "Card No.", "AMEX", "mastercard"});
        // An unseparated run must still have 15 or 16 digits.
        bool compact = (length == 15 || length == 16) && random.chance(50);
        shown = label + (compact ? digits : shown);
    }
    return {testing::disguise(random, shown), Kind::cardNumber};
}

Embedded iban(IdentifierRandom& random, const IdentifierValidators::IBANCountry& country) {
    std::string compact = testing::validIBAN(random, country.code, country.length);
    std::string shown;
    if (random.chance(50)) {
        shown = compact;
    } else {
        std::string space = random.pick(std::vector<std::string>{" ", "\u00A0", "\u2009"});
        for (size_t i = 0; i < compact.size(); i += 4) shown += (i ? space : "") + compact.substr(i, 4);
    }
    return {testing::disguise(random, shown), Kind::bankAccountNumber};
}

std::string threeTwoFour(IdentifierRandom& random, const std::string& digits, bool labelled) {
    if (!labelled) return digits.substr(0, 3) + dash(random) + digits.substr(3, 2) + dash(random) + digits.substr(5);
    if (random.chance(30)) return digits;
    return testing::grouped(random, digits, {3, 2, 4});
}

Embedded ssn(IdentifierRandom& random) {
    bool labelled = random.chance(50);
    std::string value = threeTwoFour(random, testing::validSSN(random), labelled);
    std::string label = random.pick(std::vector<std::string>{"SSN", "ss#", "Social Security Number", "social security no."});
    return {(labelled ? label + connector(random) : "") + testing::disguise(random, value), Kind::ssn};
}

Embedded itin(IdentifierRandom& random) {
    bool labelled = random.chance(50);
    std::string value = threeTwoFour(random, testing::validITIN(random), labelled);
    std::string label = random.pick(std::vector<std::string>{"ITIN", "itin number", "ITIN #"});
    return {(labelled ? label + connector(random) : "") + testing::disguise(random, value), Kind::ssn};
}

Embedded routing(IdentifierRandom& random) {
    std::string digits = testing::validRoutingNumber(random);
    std::string value = random.chance(40) ? digits : testing::grouped(random, digits, {3, 3, 3});
    std::string label = random.pick(std::vector<std::string>{"routing number", "ABA", "RTN", "Transit No.", "routing #"});
    return {label + connector(random) + testing::disguise(random, value), Kind::bankRoutingNumber};
}

Embedded account(IdentifierRandom& random) {
    std::string digits = random.digits(random.between(6, 17));
    std::string label = random.pick(std::vector<std::string>{"account number", "Acct #", "checking account",
                                                             "savings account no.", "Account"});
    // A bare "account" is a label only when a colon follows it.
    std::string joint = label == "Account" ? random.pick(std::vector<std::string>{": ", ":", " :\n"}) : connector(random);
    return {label + joint + testing::disguise(random, digits), Kind::bankAccountNumber};
}

// Fills a text with identifiers between prose, emoji and characters outside the BMP.
std::string embed(IdentifierRandom& random, const std::vector<Embedded>& items) {
    std::string text = testing::fillerText(random, random.between(0, 4));
    for (const auto& item : items) {
        text += testing::leadingBoundary(random) + item.text + testing::trailingBoundary(random);
        text += testing::fillerText(random, random.between(0, 4));
    }
    return text;
}

RedactionReport expectedReport(const std::vector<Embedded>& items) {
    RedactionReport report;
    for (const auto& item : items) report.add(item.kind);
    return report;
}

void expectAllRedacted(IdentifierRandom& random, const std::vector<Embedded>& items) {
    const std::string text = embed(random, items);
    for (Scope scope : {Scope::lifeLevel, Scope::outbound}) {
        auto result = redact(text, scope);
        ASSERT_FALSE(testing::containsAnyDigit(result.text)) << text << "\n=> " << result.text;
        ASSERT_EQ(result.report, expectedReport(items)) << text << "\n=> " << result.text;
    }
}

TEST(ValidIdentifiersNeverSurvive, CardsOfEveryIssuerRow) {
    IdentifierRandom random(1);
    for (const auto& row : testing::cardIssuerRows())
        for (int trial = 0; trial < 150; ++trial) {
            SCOPED_TRACE(row.name);
            expectAllRedacted(random, {card(random, row)});
        }
}

TEST(ValidIdentifiersNeverSurvive, IBANsOfEveryCountry) {
    IdentifierRandom random(2);
    for (const auto& country : IdentifierValidators::ibanCountries)
        for (int trial = 0; trial < 40; ++trial) {
            SCOPED_TRACE(country.code);
            expectAllRedacted(random, {iban(random, country)});
        }
}

TEST(ValidIdentifiersNeverSurvive, SSNsITINsRoutingAndAccountNumbers) {
    IdentifierRandom random(3);
    for (int trial = 0; trial < 300; ++trial) {
        expectAllRedacted(random, {ssn(random)});
        expectAllRedacted(random, {itin(random)});
        expectAllRedacted(random, {routing(random)});
        expectAllRedacted(random, {account(random)});
    }
}

TEST(ValidIdentifiersNeverSurvive, SeveralKindsInOneText) {
    IdentifierRandom random(4);
    const auto& rows = testing::cardIssuerRows();
    for (int trial = 0; trial < 300; ++trial) {
        std::vector<Embedded> items;
        int count = random.between(2, 6);
        for (int i = 0; i < count; ++i) {
            switch (random.between(0, 5)) {
                case 0: items.push_back(card(random, random.pick(rows))); break;
                case 1: items.push_back(iban(random, IdentifierValidators::ibanCountries[size_t(random.between(0, 33))])); break;
                case 2: items.push_back(ssn(random)); break;
                case 3: items.push_back(itin(random)); break;
                case 4: items.push_back(routing(random)); break;
                default: items.push_back(account(random)); break;
            }
        }
        expectAllRedacted(random, items);
    }
}

// Numbers that look like identifiers but are not: the text must come back byte for byte.
std::string nearMiss(IdentifierRandom& random) {
    const auto& rows = testing::cardIssuerRows();
    switch (random.between(0, 8)) {
        case 0: {  // a card with one digit changed, in the layouts whose prefixes cannot form a card
            const auto& row = random.pick(rows);
            int length = random.pick(row.lengths);
            if (length == 19) length = row.lengths.front();
            std::string digits = testing::changeOneDigit(random, testing::validCardNumber(random, row, length));
            if (length == 14) return testing::grouped(random, digits, {4, 6, 4});
            if (length == 15) return random.chance(50) ? digits : testing::grouped(random, digits, {4, 6, 5});
            return random.chance(50) ? digits : testing::grouped(random, digits, {4, 4, 4, 4});
        }
        case 1: {
            const auto& country = IdentifierValidators::ibanCountries[size_t(random.between(0, 33))];
            return testing::changeOneDigit(random, testing::validIBAN(random, country.code, country.length));
        }
        case 2:
            return random.pick(std::vector<std::string>{"routing number ", "ABA: "}) +
                   testing::changeOneDigit(random, testing::validRoutingNumber(random));
        case 3: {  // impossible SSNs
            char buffer[32];
            switch (random.between(0, 3)) {
                case 0: std::snprintf(buffer, sizeof buffer, "000-%02d-%04d", random.between(1, 99), random.between(1, 9999)); break;
                case 1: std::snprintf(buffer, sizeof buffer, "666-%02d-%04d", random.between(1, 99), random.between(1, 9999)); break;
                case 2: std::snprintf(buffer, sizeof buffer, "%03d-00-%04d", random.between(1, 899), random.between(1, 9999)); break;
                default: std::snprintf(buffer, sizeof buffer, "%03d-%02d-0000", random.between(1, 899), random.between(1, 99)); break;
            }
            return (random.chance(50) ? "SSN " : "") + std::string(buffer);
        }
        case 4: {  // dates, also after an account label
            char buffer[32];
            int year = random.between(1950, 2049), month = random.between(1, 12), day = random.between(1, 28);
            switch (random.between(0, 3)) {
                case 0: std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d", year, month, day); break;
                case 1: std::snprintf(buffer, sizeof buffer, "%02d/%02d/%04d", month, day, year); break;
                case 2: std::snprintf(buffer, sizeof buffer, "%02d.%02d.%04d", day, month, year); break;
                default: std::snprintf(buffer, sizeof buffer, "account number %04d-%02d-%02d", year, month, day); break;
            }
            return buffer;
        }
        case 5: {  // phone numbers
            std::string area = std::to_string(random.between(201, 989)), line = random.digits(4);
            std::string exchange = std::to_string(random.between(200, 999));
            switch (random.between(0, 3)) {
                case 0: return "(" + area + ") " + exchange + "-" + line;
                case 1: return area + "-" + exchange + "-" + line;
                case 2: return "+1 " + area + " " + exchange + " " + line;
                default: return "+44 20 " + random.digits(4) + " " + random.digits(4);
            }
        }
        case 6:  // order and invoice numbers
            return random.pick(std::vector<std::string>{"Order #", "order ", "INV-", "Invoice "}) +
                   random.digits(random.between(5, 12));
        case 7: return random.digits(3) + "-" + random.digits(7) + "-" + random.digits(7);
        default:  // amounts
            return "$" + std::to_string(random.between(1, 999)) + "," + random.digits(3) + "." + random.digits(2);
    }
}

TEST(NearMissesStayUntouched, ChangedDigitsDatesPhonesAndOrderNumbers) {
    IdentifierRandom random(5);
    for (int trial = 0; trial < 3000; ++trial) {
        std::string text = testing::fillerText(random, random.between(0, 3)) + testing::leadingBoundary(random) +
                           nearMiss(random) + testing::trailingBoundary(random) +
                           testing::fillerText(random, random.between(0, 3));
        for (Scope scope : {Scope::lifeLevel, Scope::outbound}) {
            auto result = redact(text, scope);
            ASSERT_EQ(result.text, text) << "trial " << trial;
            ASSERT_TRUE(result.report.empty()) << "trial " << trial;
        }
    }
}

TEST(ReplacedRangeIsExactlyTheOriginal, NextToEmojiAndCharactersOutsideTheBMP) {
    IdentifierRandom random(6);
    const auto& rows = testing::cardIssuerRows();
    for (int trial = 0; trial < 500; ++trial) {
        Embedded item = random.chance(50) ? card(random, random.pick(rows)) : ssn(random);
        std::string before = testing::fillerText(random, random.between(0, 3)) +
                             random.pick(std::vector<std::string>{" \U0001F600 ", "\U0001D400 ", "\U00020BB7\n", " \U0001F44D\U0001F3FD("});
        std::string after = random.pick(std::vector<std::string>{" \U0001F600", "\U0001F600", ") \U00020BB7", "\U0001F600."}) +
                            testing::fillerText(random, random.between(0, 3));
        auto result = redact(before + item.text + after, Scope::lifeLevel);
        // A labelled value keeps its label, so only the tail of the item is replaced.
        ASSERT_EQ(result.text.substr(0, before.size()), before) << trial;
        ASSERT_GE(result.text.size(), after.size());
        ASSERT_EQ(result.text.substr(result.text.size() - after.size()), after) << trial;
        std::string middle = result.text.substr(before.size(), result.text.size() - before.size() - after.size());
        std::string token(SensitiveIdentifierKind(item.kind) == Kind::ssn ? "[redacted SSN]" : "[redacted card number]");
        ASSERT_GE(middle.size(), token.size()) << trial;
        ASSERT_EQ(middle.substr(middle.size() - token.size()), token) << trial;
        ASSERT_EQ(item.text.substr(0, middle.size() - token.size()), middle.substr(0, middle.size() - token.size()));
    }
}


// Each kind of identifier in the layouts and label variants people use, its groups joined by `separator`.
std::vector<std::string> lifeIdentifiersJoinedBy(IdentifierRandom& random, const std::string& separator,
                                                 bool afterDigitsOnly) {
    const auto& rows = testing::cardIssuerRows();
    const std::string card = testing::validCardNumber(random, rows[size_t(random.pick(std::vector<int>{0, 4, 5}))], 16);
    const std::string amex = testing::validCardNumber(random, rows[1], 15);
    const auto& country = IdentifierValidators::ibanCountries[size_t(random.between(0, 33))];
    std::string iban = testing::validIBAN(random, country.code, country.length);
    std::vector<int> ibanGroups(iban.size() / 4, 4);
    if (iban.size() % 4) ibanGroups.push_back(int(iban.size() % 4));
    if (random.chance(50)) std::transform(iban.begin(), iban.end(), iban.begin(), ::tolower);
    auto pick = [&](std::vector<std::string> labels) { return random.pick(labels); };
    return {
        testing::joinedGroups(card, {4, 4, 4, 4}, separator),
        testing::joinedGroups(card, {2, 2, 2, 2, 2, 2, 2, 2}, separator),
        testing::joinedGroups(amex, {4, 4, 4, 3}, separator),
        testing::joinedGroups(testing::validSSN(random), {3, 2, 4}, separator),
        pick({"SSN No. ", "SSN number ", "SSN #: ", "ssn\u200B: "}) + testing::joinedGroups(testing::validSSN(random), {3, 2, 4}, separator),
        testing::joinedGroups(testing::validITIN(random), {3, 2, 4}, separator),
        pick({"routing number is: ", "routing number\u200B: ", "ABA #: "}) +
            testing::joinedGroups(testing::validRoutingNumber(random), {3, 3, 3}, separator),
        pick({"account number: ", "Acct. No. ", "account no. is: "}) + testing::joinedGroups(random.digits(10), {4, 3, 3}, separator),
        testing::joinedGroups(iban, ibanGroups, afterDigitsOnly ? " " : separator),
    };
}

std::vector<std::string> credentials(IdentifierRandom& random) {
    const std::string value = "h" + random.digits(4) + "x" + random.digits(4);
    return {"password\u200B: " + value, "Password is " + value, "bearer: tok" + random.digits(12) + "en" + random.digits(6)};
}

bool survives(const std::string& text) { return testing::containsAnyDigit(text); }

// Every generated identifier, its groups joined by every disguise, in generated surroundings: nothing of it
// may reach a prompt or a log through either scope, the title filters, cleaning, or redacting and then
// sanitising.
TEST(DisguisedIdentifiersNeverSurvive, EveryKindWithEverySeparatorDisguiseOnEveryPath) {
    IdentifierRandom random(7);
    const std::string withheld(*OutboundTitlePrivacy::token(OutboundTitlePrivacy::Outcome::withheldIdentifier));
    for (const auto& disguise : testing::separatorDisguises())
        for (int trial = 0; trial < 40; ++trial) {
            auto identifiers = lifeIdentifiersJoinedBy(random, disguise.separator(random), disguise.afterDigitsOnly);
            for (const auto& credential : credentials(random)) identifiers.push_back(credential);
            for (size_t i = 0; i < identifiers.size(); ++i) {
                const bool credential = i + 3 >= identifiers.size();
                const std::string text = embed(random, {{testing::disguise(random, identifiers[i], true), Kind::ssn}});
                SCOPED_TRACE(disguise.name + ": " + text);
                ASSERT_FALSE(survives(redact(text, Scope::outbound).text));
                ASSERT_FALSE(survives(SafeText::clean(text, Scope::outbound).text));
                ASSERT_FALSE(survives(ScreenText::sanitize(redact(text, Scope::outbound).text)));
                ASSERT_EQ(OutboundTitlePrivacy::sanitize(text), withheld);
                if (credential) continue;
                ASSERT_FALSE(survives(redact(text, Scope::lifeLevel).text));
                ASSERT_FALSE(survives(SafeText::clean(text, Scope::lifeLevel, ScreenText::titleCap).text));
            }
        }
}

// What sanitising alone would join, and where a cut would end a number, is caught by cleaning.
TEST(SafeText, NumbersThatOnlySanitisingOrACutWouldExposeAreRedacted) {
    const std::string card = "4111111111111111";
    for (const std::string& text : {testing::joinedGroups(card, {4, 4, 4, 4}, "      "),
                                    testing::joinedGroups(card, {4, 4, 4, 4}, "\u200B\u200B\u200B\u200B\u200B"),
                                    testing::joinedGroups(card, {8, 8}, "\u200B\u200B")}) {
        ASSERT_TRUE(survives(redact("card " + text, Scope::lifeLevel).text)) << "no longer a case for cleaning";
        EXPECT_EQ(SafeText::clean("card " + text, Scope::lifeLevel).text, "card [redacted card number]");
    }
    // Kept whole, the number is followed by a decimal; cut after its last digit, it would stand alone.
    auto cut = SafeText::clean("total 4111111111111111.5 due", Scope::lifeLevel, 22);
    EXPECT_EQ(cut.text, "total [redacted card number]…");
    EXPECT_EQ(cut.report, RedactionReport({{Kind::cardNumber, 1}}));
    EXPECT_EQ(SafeText::cleanReason("You were on order #112\u200B4567890 with card 4111\u00B71111\u00B71111\u00B71111").text,
              "You were on order #[identifier withheld] with card [redacted card number]");
}

// Near misses of the detectors' own rules stay when their separators are disguised as well, and so do the
// boundary cases the detectors leave alone.
TEST(NearMissesStayUntouched, DisguisedNearMissesAndBoundaryCases) {
    IdentifierRandom random(8);
    std::vector<std::string> fixed = {"4111111111111111,5", "4111111111111111.5", "1_4111111111111111",
                                      "v1.4111111111111111", "ref 4222222222222 ok", "account number 2024-01-15",
                                      "sk-abcdefghijklmnopqrstuvwxyzabcd", "password: report.2024.pdf",
                                      "Bearer abcdefghij1234567890", "ending in 2024", "Invoice 2024-05"};
    for (int trial = 0; trial < 300; ++trial) {
        const std::string separator = random.pick(testing::separatorDisguises()).separator(random);
        const auto& row = testing::cardIssuerRows()[size_t(random.between(0, 7))];
        const std::string sameDigit(16, char('1' + random.between(0, 8)));
        std::string iban = testing::validIBAN(random, "DE", 22);
        std::transform(iban.begin(), iban.end(), iban.begin(), ::tolower);
        const std::vector<std::string> misses = {
            testing::joinedGroups(testing::changeOneDigit(random, testing::validCardNumber(random, row, 16)), {4, 4, 4, 4}, separator),
            testing::joinedGroups(sameDigit, {4, 4, 4, 4}, separator),
            testing::joinedGroups(random.pick(std::vector<std::string>{"000", "666", "912"}) + "001234", {3, 2, 4}, separator),
            "routing number is: " + testing::joinedGroups(testing::changeOneDigit(random, testing::validRoutingNumber(random)), {3, 3, 3}, separator),
            testing::changeOneDigit(random, iban),
            random.pick(fixed),
        };
        for (const auto& miss : misses) {
            const std::string text = testing::fillerText(random, 2) + " " + miss + " " + testing::fillerText(random, 2);
            for (Scope scope : {Scope::lifeLevel, Scope::outbound}) ASSERT_EQ(redact(text, scope).text, text) << miss;
        }
    }
}

}  // namespace
}  // namespace aimwise
