#include "AimwiseCore/privacy/outbound_title_privacy.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "AimwiseCore/privacy/icu_regex.h"
#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"
#include "AimwiseCore/privacy/sensitive_sites_matching.h"

namespace aimwise::OutboundTitlePrivacy {

namespace {

using Validator = bool (*)(std::u16string_view);

struct Pattern {
    std::unique_ptr<privacy_icu::Pattern> regex;
    int32_t group;
    Validator validate;
};

bool alwaysTrue(std::u16string_view) { return true; }

const privacy_icu::Pattern& dateLikeValue() {
    static const auto pattern = privacy_icu::compileOrAbort(
        "the title identifier date check", R"re(^(?:19|20)\d{2}-(?:(?:19|20)?\d{2}|\d{2}-\d{2})$)re");
    return *pattern;
}

// Reference-like values: at least five numeric characters, and not a year or a date.
bool isLabeledIdentifierValue(std::u16string_view value) {
    int numeric = 0;
    for (int32_t i = 0; i < int32_t(value.size());) {
        UChar32 c;
        U16_NEXT(value.data(), i, int32_t(value.size()), c);
        if (ICU::get().u_getIntPropertyValue(c, UCHAR_NUMERIC_TYPE) != U_NT_NONE) ++numeric;
    }
    return numeric >= 5 && !privacy_icu::matchesAnywhere(dateLikeValue(), value);
}

// The labelled patterns: the first is case-insensitive, the second deliberately not, so the plain word "id"
// in a sentence is no label. The third catches the masked tails banks print and refuses a year after
// "ending in", and its loosely written form names what ends; the fourth is any bare run of ten or more digits.
const std::vector<Pattern>& identifierPatterns() {
    static const std::vector<Pattern> patterns = [] {
        std::vector<Pattern> list;
        list.push_back({privacy_icu::compileOrAbort(
                            "title identifier pattern 1 (labelled value)",
                            R"re((?i)(?<![A-Za-z0-9])(?:account|acct|member|patient|mrn|medical\s+record|claim|policy|subscriber|customer|case|confirmation|reference|ref|order|invoice|tracking|npi|passport|licen[cs]e)(?:\s+(?:number|no\.?|num|id))?(?:\s*(?:#|№)?\s*[:=\-]\s*|\s*[#№]\s*|\s+)([A-Za-z0-9][A-Za-z0-9-]*[A-Za-z0-9])(?![A-Za-z0-9]))re"),
                        1, isLabeledIdentifierValue});
        list.push_back({privacy_icu::compileOrAbort(
                            "title identifier pattern 2 (ID label)",
                            R"re((?<![A-Za-z0-9])(?:ID|Id)(?:\s*(?:#|№)?\s*[:=\-]\s*|\s*[#№]\s*|\s+)([A-Za-z0-9][A-Za-z0-9-]*[A-Za-z0-9])(?![A-Za-z0-9]))re"),
                        1, isLabeledIdentifierValue});
        list.push_back({privacy_icu::compileOrAbort(
                            "title identifier pattern 3 (masked tail)",
                            R"re((?:[*•●]{3,}\s?\d{4}|(?<![A-Za-z])[xX]{3,}\d{4}|\(\s?(?:\.{3}|…)\s?\d{4}\s?\)|(?i:ending\s+in|ends\s+in)\s+(?!(?:19|20)\d{2}(?!\d))\d{4})(?!\d))re"),
                        0, alwaysTrue});
        // The masked tail written loosely: "Acct ending 1234", "card ends with 1234".
        list.push_back({privacy_icu::compileOrAbort(
                            "title identifier pattern 3, written loosely",
                            R"re((?i:(?<![A-Za-z0-9])(?:acct|account|card|checking|savings)\.?\s+(?:ending|ends)(?:\s+(?:in|with))?)\s+(?!(?:19|20)\d{2}(?!\d))\d{4}(?!\d))re"),
                        0, alwaysTrue});
        list.push_back({privacy_icu::compileOrAbort("title identifier pattern 4 (long digit run)",
                                                    R"re((?<![\w\-./])(\d{10,})(?![\w\-]|[.,]\d))re"),
                        1, alwaysTrue});
        return list;
    }();
    return patterns;
}

std::string repaired(const std::string& text) { return privacy_icu::toUTF8(privacy_icu::toUTF16(text)); }

}  // namespace

std::string_view rawValue(Outcome outcome) {
    switch (outcome) {
        case Outcome::unchanged: return "unchanged";
        case Outcome::withheldIdentifier: return "withheld_identifier";
        case Outcome::genericizedFinancial: return "genericized_financial";
        case Outcome::genericizedMedical: return "genericized_medical";
    }
    return "";
}

std::optional<std::string_view> token(Outcome outcome) {
    switch (outcome) {
        case Outcome::unchanged: return std::nullopt;
        case Outcome::withheldIdentifier: return "[title withheld: contained an identifier]";
        case Outcome::genericizedFinancial: return "[banking or other financial site]";
        case Outcome::genericizedMedical: return "[medical or health site]";
    }
    return std::nullopt;
}

bool rawValueLess(Outcome a, Outcome b) { return rawValue(a) < rawValue(b); }

bool holdsRedactionToken(std::string_view text) {
    for (const SensitiveIdentifierKind kind : allSensitiveIdentifierKinds)
        if (text.find(aimwise::token(kind)) != std::string_view::npos) return true;
    return text.find(redactedValueToken) != std::string_view::npos ||
           text.find(*token(Outcome::withheldIdentifier)) != std::string_view::npos;
}

bool containsIdentifier(const std::string& text) {
    // Titles are cleaned before they are stored, so the identifier may already be a token.
    if (holdsRedactionToken(text)) return true;
    if (!SensitiveIdentifierRedaction::redact(text, SensitiveIdentifierRedaction::Scope::outbound).report.empty())
        return true;
    const std::u16string title = privacy_icu::toUTF16(text);
    auto forms = SensitiveSites::titleForms(title);
    // Invisible characters beside a label's punctuation hide nothing from this reading.
    auto label = NormalizedIdentifierText::build(title, FormatCharacters::removed, Disguises::invisible);
    if (label.disguised()) forms.emplace_back(label.text());
    for (const auto& form : forms) {
        std::u16string_view haystack = form;
        for (const auto& pattern : identifierPatterns())
            for (const auto& range : privacy_icu::findAll(*pattern.regex, haystack, pattern.group))
                if (pattern.validate(std::u16string_view(form).substr(size_t(range.start),
                                                                      size_t(range.end - range.start))))
                    return true;
    }
    return false;
}

Outcome outcome(const std::string& title) {
    if (containsIdentifier(title)) return Outcome::withheldIdentifier;
    auto category = SensitiveSites::categoryInTitleForms(SensitiveSites::titleForms(privacy_icu::toUTF16(title)));
    if (!category) return Outcome::unchanged;
    return *category == SensitiveSites::Category::medical ? Outcome::genericizedMedical
                                                          : Outcome::genericizedFinancial;
}

std::string sanitize(const std::string& title) {
    auto replacement = token(outcome(title));
    return replacement ? std::string(*replacement) : repaired(title);
}

std::optional<std::string> sanitize(const std::optional<std::string>& title) {
    if (!title) return std::nullopt;
    return sanitize(*title);
}

std::string genericToken(SensitiveSites::Category category) {
    return std::string(*token(category == SensitiveSites::Category::medical ? Outcome::genericizedMedical
                                                                             : Outcome::genericizedFinancial));
}

std::string redactIdentifierValues(const std::string& text) {
    std::u16string current = privacy_icu::toUTF16(text);
    const std::u16string replacement(redactedValueToken,
                                     redactedValueToken + std::char_traits<char>::length(redactedValueToken));
    for (const auto& pattern : identifierPatterns()) {
        auto ranges = privacy_icu::findAll(*pattern.regex, current, pattern.group);
        for (auto it = ranges.rbegin(); it != ranges.rend(); ++it) {
            std::u16string_view value = std::u16string_view(current).substr(size_t(it->start), size_t(it->end - it->start));
            if (pattern.validate(value)) current.replace(size_t(it->start), size_t(it->end - it->start), replacement);
        }
    }
    return privacy_icu::toUTF8(current);
}

std::map<Outcome, int64_t> placeholderCounts(const std::string& text) {
    std::map<Outcome, int64_t> counts;
    for (Outcome outcome : {Outcome::withheldIdentifier, Outcome::genericizedFinancial, Outcome::genericizedMedical}) {
        std::string_view wanted = *token(outcome);
        int64_t count = 0;
        for (size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + wanted.size()))
            ++count;
        if (count > 0) counts[outcome] = count;
    }
    return counts;
}

std::string summary(const std::map<Outcome, int64_t>& counts) {
    std::vector<std::pair<Outcome, int64_t>> entries(counts.begin(), counts.end());
    std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return rawValueLess(a.first, b.first); });
    std::string out;
    for (const auto& [outcome, count] : entries) {
        if (!out.empty()) out += ", ";
        out += rawValue(outcome);
        out += " x";
        out += std::to_string(count);
    }
    return out;
}

}  // namespace aimwise::OutboundTitlePrivacy
