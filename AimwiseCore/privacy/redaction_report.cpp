#include "AimwiseCore/privacy/redaction_report.h"

#include <algorithm>
#include <vector>

namespace aimwise {

std::string_view rawValue(SensitiveIdentifierKind kind) {
    switch (kind) {
        case SensitiveIdentifierKind::ssn: return "ssn";
        case SensitiveIdentifierKind::cardNumber: return "card_number";
        case SensitiveIdentifierKind::bankRoutingNumber: return "bank_routing_number";
        case SensitiveIdentifierKind::bankAccountNumber: return "bank_account_number";
        case SensitiveIdentifierKind::credential: return "credential";
    }
    return "";
}

std::string_view token(SensitiveIdentifierKind kind) {
    switch (kind) {
        case SensitiveIdentifierKind::ssn: return "[redacted SSN]";
        case SensitiveIdentifierKind::cardNumber: return "[redacted card number]";
        case SensitiveIdentifierKind::bankRoutingNumber: return "[redacted routing number]";
        case SensitiveIdentifierKind::bankAccountNumber: return "[redacted bank account number]";
        case SensitiveIdentifierKind::credential: return "[redacted credential]";
    }
    return "";
}

bool rawValueLess(SensitiveIdentifierKind a, SensitiveIdentifierKind b) { return rawValue(a) < rawValue(b); }

RedactionReport::RedactionReport(const std::map<SensitiveIdentifierKind, int64_t>& raw) {
    for (const auto& [kind, count] : raw)
        if (count > 0) counts[kind] = count;
}

void RedactionReport::add(SensitiveIdentifierKind kind, int64_t count) {
    if (count > 0) counts[kind] += count;
}

void RedactionReport::merge(const RedactionReport& other) {
    for (const auto& [kind, count] : other.counts) add(kind, count);
}

RedactionReport RedactionReport::merging(const RedactionReport& other) const {
    RedactionReport copy = *this;
    copy.merge(other);
    return copy;
}

int64_t RedactionReport::count(SensitiveIdentifierKind kind) const {
    auto found = counts.find(kind);
    return found == counts.end() ? 0 : found->second;
}

std::string RedactionReport::summary() const {
    std::vector<std::pair<SensitiveIdentifierKind, int64_t>> entries(counts.begin(), counts.end());
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return rawValueLess(a.first, b.first); });
    std::string out;
    for (const auto& [kind, count] : entries) {
        if (!out.empty()) out += ", ";
        out += rawValue(kind);
        out += " x";
        out += std::to_string(count);
    }
    return out;
}

}  // namespace aimwise
