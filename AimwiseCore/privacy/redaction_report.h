#pragma once
// What a redaction removed, by kind and count. It never holds the removed text, so it is safe to log.
#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace aimwise {

enum class SensitiveIdentifierKind { ssn, cardNumber, bankRoutingNumber, bankAccountNumber, credential };

inline constexpr std::array<SensitiveIdentifierKind, 5> allSensitiveIdentifierKinds = {
    SensitiveIdentifierKind::ssn, SensitiveIdentifierKind::cardNumber,
    SensitiveIdentifierKind::bankRoutingNumber, SensitiveIdentifierKind::bankAccountNumber,
    SensitiveIdentifierKind::credential};

std::string_view rawValue(SensitiveIdentifierKind kind);
// The replacement text for a redacted value of this kind.
std::string_view token(SensitiveIdentifierKind kind);
// Kinds compare by raw value, which is the order a summary lists them in.
bool rawValueLess(SensitiveIdentifierKind a, SensitiveIdentifierKind b);

struct RedactionReport {
    std::map<SensitiveIdentifierKind, int64_t> counts;

    RedactionReport() = default;
    // Entries that are not above zero are dropped.
    explicit RedactionReport(const std::map<SensitiveIdentifierKind, int64_t>& raw);

    void add(SensitiveIdentifierKind kind, int64_t count = 1);
    void merge(const RedactionReport& other);
    RedactionReport merging(const RedactionReport& other) const;
    bool empty() const { return counts.empty(); }
    int64_t count(SensitiveIdentifierKind kind) const;
    // "bank_routing_number x1, ssn x2"; empty for an empty report.
    std::string summary() const;
    bool operator==(const RedactionReport&) const = default;
};

}  // namespace aimwise
