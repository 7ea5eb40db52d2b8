#pragma once
// Check-digit and range rules behind the identifier detectors, so that an ordinary number stays and a
// real one goes. Each takes the matched text as the detectors see it (UTF-16, already folded).
#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace aimwise::IdentifierValidators {

struct IBANCountry {
    char code[3];
    int length;
};
// Countries whose IBANs are recognised, with the one length each allows.
extern const std::array<IBANCountry, 34> ibanCountries;
std::optional<int> ibanLength(std::u16string_view countryCode);

// The whole-number value of every character that has one, in order.
std::vector<int> digits(std::u16string_view text);

bool isValidSSN(std::u16string_view text);
bool isValidITIN(std::u16string_view text);
bool isValidABARoutingNumber(std::u16string_view text);
bool isPlausibleAccountNumber(std::u16string_view text);
bool isValidIBAN(std::u16string_view text);
// An IBAN as people also write it: grouped by dashes as well as spaces, in either case.
bool isValidLooselyWrittenIBAN(std::u16string_view text);
bool isValidCardNumber(std::u16string_view text);
bool luhnValid(const std::vector<int>& digits);
bool issuerAccepts(const std::vector<int>& digits);
// A digit occurs and a letter occurs after the first digit. Letters-then-digits is refused on purpose.
bool mixesLettersAndDigits(std::u16string_view text);
// Values of password-like fields: a number somewhere, and no "." (which marks file names and hosts).
bool hasNumericAndNoDot(std::u16string_view text);

}  // namespace aimwise::IdentifierValidators
