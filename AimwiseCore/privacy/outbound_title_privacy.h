#pragma once
// Turns a window title into the form that may leave the machine: withheld when it carries an identifier,
// generic when it names a financial or medical site, otherwise unchanged.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "AimwiseCore/privacy/sensitive_sites.h"

namespace aimwise::OutboundTitlePrivacy {

enum class Outcome { unchanged, withheldIdentifier, genericizedFinancial, genericizedMedical };

std::string_view rawValue(Outcome outcome);
// The text that stands for the title; absent for `unchanged`, where the title stays.
std::optional<std::string_view> token(Outcome outcome);
// Outcomes compare by raw value, which is the order a summary lists them in.
bool rawValueLess(Outcome a, Outcome b);

inline constexpr const char* redactedValueToken = "[identifier withheld]";

// A withheld identifier takes precedence over a site, so a title with an account number never survives
// as a bank name alone.
Outcome outcome(const std::string& title);
std::string sanitize(const std::string& title);
std::optional<std::string> sanitize(const std::optional<std::string>& title);
inline std::string sanitize(const char* title) { return sanitize(std::string(title)); }
std::string genericToken(SensitiveSites::Category category);
// True as well for a text that holds a redaction token: the identifier was there before cleaning.
bool containsIdentifier(const std::string& text);
// A token of SensitiveIdentifierRedaction, redactedValueToken or the withheld-title token.
bool holdsRedactionToken(std::string_view text);
// Replaces only the identifier values, for text whose rest may stay (e.g. a reason the model wrote).
std::string redactIdentifierValues(const std::string& text);
// How many of each outcome's tokens a text holds; only counts above zero are entered.
std::map<Outcome, int64_t> placeholderCounts(const std::string& text);
// "genericized_financial x2, withheld_identifier x1"; empty for no counts.
std::string summary(const std::map<Outcome, int64_t>& counts);

}  // namespace aimwise::OutboundTitlePrivacy
