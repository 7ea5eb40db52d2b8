#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "AimwiseCore/privacy/icu_regex.h"
#include "AimwiseCore/privacy/identifier_normalization.h"
#include "AimwiseCore/privacy/identifier_validators.h"
#include "AimwiseCore/privacy/match_candidates.h"

namespace aimwise::SensitiveIdentifierRedaction {

namespace {

using Validator = bool (*)(std::u16string_view);
using Kind = SensitiveIdentifierKind;
namespace V = IdentifierValidators;

struct Detector {
    Kind kind;
    std::unique_ptr<icu::RegexPattern> regex;
    int32_t group;
    Validator validate;
    MatchStartRule starts;
};

struct DetectorSource {
    const char* name;
    Kind kind;
    const char* pattern;
    int32_t group;
    Validator validate;
    MatchStartRule starts = {};
};

using Rule = MatchStartRule::Kind;

MatchStartRule digitRuns(std::vector<int> lengths) { return {Rule::digitRunStarts, std::move(lengths), {}}; }
MatchStartRule labels(std::vector<std::string_view> words) { return {Rule::wordsIgnoringCase, {}, std::move(words)}; }
MatchStartRule literals(std::vector<std::string_view> words) { return {Rule::words, {}, std::move(words)}; }

bool alwaysTrue(std::u16string_view) { return true; }

// Order matters: what an earlier detector has replaced, a later one cannot see. The bare 3-2-4 pattern is
// tried as an ITIN before the routing, account and card detectors and as an SSN only after them, so a
// number that a stronger detector claims is reported as that.
std::vector<DetectorSource> lifeLevelSources() {
    return {
    {"life-level detector 1 (IBAN)", Kind::bankAccountNumber,
     R"re((?:(?<!\w)|(?<=\\[nrt]))([A-Z]{2}\d{2}(?: ?[A-Z0-9]{4}){2,7}(?: ?[A-Z0-9]{1,3})?)\b)re", 1,
     V::isValidIBAN},
    {"life-level detector 2 (labelled SSN)", Kind::ssn,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))(?:ssn|ss#|social\s+security(?:\s+(?:number|no\.?|num|#))?)(?:\s*(?:is|:|#|=|-)\s*)?(?:\s|\\[nrt])*(\d{3}(?:[ \t\r\n./-]{1,2})?\d{2}(?:[ \t\r\n./-]{1,2})?\d{4})(?!\d))re",
     1, V::isValidSSN, labels({"ssn", "ss#", "social"})},
    {"life-level detector 3 (labelled ITIN)", Kind::ssn,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))itin(?:\s+(?:number|no\.?|num|#))?(?:\s*(?:is|:|#|=|-)\s*)?(?:\s|\\[nrt])*(\d{3}(?:[ \t\r\n./-]{1,2})?\d{2}(?:[ \t\r\n./-]{1,2})?\d{4})(?!\d))re",
     1, V::isValidITIN, labels({"itin"})},
    {"life-level detector 4 (bare ITIN)", Kind::ssn,
     R"re((?:(?<![\w\-./])|(?<=\\[nrt]))(\d{3}-\d{2}-\d{4})(?![\d\-]|[.,]\d))re", 1, V::isValidITIN, digitRuns({3})},
    {"life-level detector 5 (labelled routing number)", Kind::bankRoutingNumber,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))(?:routing|aba|rtn|transit)(?:\s+(?:number|no\.?|num|#))?(?:\s*(?:is|:|#|=|-)\s*)?(?:\s|\\[nrt])*(\d{3}(?:[ \t\r\n./-]{1,2})?\d{3}(?:[ \t\r\n./-]{1,2})?\d{3})(?!\d))re",
     1, V::isValidABARoutingNumber, labels({"routing", "aba", "rtn", "transit"})},
    {"life-level detector 6 (labelled account number)", Kind::bankAccountNumber,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))(?:(?:bank|checking|savings|deposit)\s+account(?:\s+(?:number|no\.?|num|#))?|(?:account|acct)\.?(?:\s*(?:number|no\.?|num|#)|(?=\s*:)))(?:\s*(?:is|:|#|=|-)\s*)?(?:\s|\\[nrt])*(\d{2,6}(?:[ -]\d{2,6}){1,4}|\d{4,17})(?![\w\-]|[.,]\d))re",
     1, V::isPlausibleAccountNumber, labels({"bank", "checking", "savings", "deposit", "account", "acct"})},
    {"life-level detector 7 (19-digit card)", Kind::cardNumber,
     R"re((?:(?<![\w\-./])|(?<=\\[nrt]))(\d{4}[ \t\r\n./-]{1,2}\d{4}[ \t\r\n./-]{1,2}\d{4}[ \t\r\n./-]{1,2}\d{4}[ \t\r\n./-]{1,2}\d{3})(?![\d\-]|[.,]\d))re",
     1, V::isValidCardNumber, digitRuns({4})},
    {"life-level detector 8 (card)", Kind::cardNumber,
     R"re((?:(?<![\w\-./])|(?<=\\[nrt]))(\d{4}[ \t\r\n./-]{1,2}\d{4}[ \t\r\n./-]{1,2}\d{4}[ \t\r\n./-]{1,2}\d{4}|\d{4}[ \t\r\n./-]{1,2}\d{6}[ \t\r\n./-]{1,2}\d{4,5}|\d{15,16})(?![\d\-]|[.,]\d))re",
     1, V::isValidCardNumber, digitRuns({4, 15, 16})},
    {"life-level detector 9 (labelled card)", Kind::cardNumber,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))(?:card(?:\s*(?:number|no\.?|#))?|visa|mastercard|amex|discover)(\d{4}(?:[ \t\r\n./-]{1,2})?\d{4}(?:[ \t\r\n./-]{1,2})?\d{4}(?:[ \t\r\n./-]{1,2})?\d{4}(?:(?:[ \t\r\n./-]{1,2})?\d{3})?|\d{4}(?:[ \t\r\n./-]{1,2})?\d{6}(?:[ \t\r\n./-]{1,2})?\d{4,5})(?![\d\-]|[.,]\d))re",
     1, V::isValidCardNumber, labels({"card", "visa", "mastercard", "amex", "discover"})},
    {"life-level detector 10 (bare SSN)", Kind::ssn,
     R"re((?:(?<![\w\-./])|(?<=\\[nrt]))(\d{3}-\d{2}-\d{4})(?![\d\-]|[.,]\d))re", 1, V::isValidSSN, digitRuns({3})},
    };
}

std::vector<DetectorSource> credentialSources() {
    return {
    {"credential detector 1 (private key block)", Kind::credential,
     R"re(-{4,5}BEGIN (?:[A-Z0-9]+ )*PRIVATE KEY(?: BLOCK)?-{4,5}[\s\S]*?(?:-{4,5}END (?:[A-Z0-9]+ )*PRIVATE KEY(?: BLOCK)?-{4,5}|\z))re",
     0, alwaysTrue},
    {"credential detector 2 (vendor token)", Kind::credential,
     R"re((?:(?<!\w)|(?<=\\[nrt]))(?:(?:sk|rk)_(?:live|test)_[A-Za-z0-9]{16,}|gh[pousr]_[A-Za-z0-9]{36,}|github_pat_[A-Za-z0-9_]{22,}|xox[abposr]-[A-Za-z0-9-]{10,}|xapp-\d-[A-Za-z0-9-]{10,}|hf_[A-Za-z0-9]{20,}|glpat-[A-Za-z0-9_-]{20,}|ya29\.[A-Za-z0-9_-]{20,}|AIza[0-9A-Za-z_-]{35}|(?:AKIA|ASIA)[A-Z0-9]{16})\b)re",
     0, alwaysTrue, literals({"sk_", "rk_", "ghp_", "gho_", "ghu_", "ghs_", "ghr_", "github_pat_", "xoxa-", "xoxb-", "xoxp-", "xoxo-", "xoxs-", "xoxr-", "xapp-", "hf_", "glpat-", "ya29.", "AIza", "AKIA", "ASIA"})},
    {"credential detector 3 (sk- key)", Kind::credential,
     R"re((?:(?<!\w)|(?<=\\[nrt]))sk-(?:[A-Za-z0-9_-]{8,}\r?\n[A-Za-z0-9_-]{8,}|[A-Za-z0-9_-]{20,}))re", 0,
     V::mixesLettersAndDigits, literals({"sk-"})},
    {"credential detector 4 (JSON web token)", Kind::credential,
     R"re((?:(?<!\w)|(?<=\\[nrt]))eyJ[A-Za-z0-9_-]{10,}\.eyJ[A-Za-z0-9_-]{10,}\.[A-Za-z0-9_-]{10,})re", 0,
     alwaysTrue, literals({"eyJ"})},
    {"credential detector 5 (bearer token)", Kind::credential,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))Bearer\s+([A-Za-z0-9._~+/=-]{20,}))re", 1, V::mixesLettersAndDigits, labels({"bearer"})},
    {"credential detector 6 (basic authorization)", Kind::credential,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))Authorization:\s*Basic\s+([A-Za-z0-9+/]{16,}={0,2}))re", 1, alwaysTrue, labels({"authorization"})},
    {"credential detector 7 (secret field)", Kind::credential,
     R"re((?i)(?:(?<![A-Za-z0-9])|(?<=\\[nrt]))(?:api[_-]?key|secret[_-]?(?:access[_-]?)?key|access[_-]?token|auth[_-]?token|client[_-]?secret|password|passwd)\b"?\s*[:=]\s*"?([^\s"',;()\[\]{}&?#]{8,}))re",
     1, V::hasNumericAndNoDot, labels({"api", "secret", "access", "auth", "client", "password", "passwd"})},
    };
}

void compileInto(std::vector<Detector>& out, const std::vector<DetectorSource>& sources) {
    for (const auto& source : sources)
        out.push_back({source.kind, privacy_icu::compileOrAbort(source.name, source.pattern), source.group,
                       source.validate, source.starts});
}

struct DetectorLists {
    std::vector<Detector> lifeLevel;
    // The credential detectors followed by the life-level ones.
    std::vector<Detector> outbound;
};

const DetectorLists& detectors() {
    static const DetectorLists lists = [] {
        DetectorLists built;
        compileInto(built.lifeLevel, lifeLevelSources());
        compileInto(built.outbound, credentialSources());
        compileInto(built.outbound, lifeLevelSources());
        return built;
    }();
    return lists;
}

// A normalised form with the facts its start rules read.
struct Form {
    NormalizedIdentifierText normalized;
    MatchStartIndex index;

    Form(const std::u16string& text, FormatCharacters formatCharacters)
        : normalized(NormalizedIdentifierText::build(text, formatCharacters)), index(normalized.text()) {}
};

enum class Search { byStartRules, fullScan };

// Replaces every validated match in `current`; true when something was replaced.
bool apply(const Detector& detector, const Form& form, Search search, std::u16string& current,
           RedactionReport& report) {
    std::u16string_view seen = form.normalized.text();
    icu::UnicodeString haystack = privacy_icu::alias(seen);
    auto accept = [&](privacy_icu::Range value) {
        return detector.validate(seen.substr(size_t(value.start), size_t(value.end - value.start)));
    };
    auto starts = search == Search::byStartRules ? form.index.starts(detector.starts) : std::nullopt;
    auto found = starts ? privacy_icu::findAllAcceptedAt(*detector.regex, haystack, detector.group, *starts, accept)
                        : privacy_icu::findAllAccepted(*detector.regex, haystack, detector.group, accept);
    std::vector<privacy_icu::Range> accepted;
    for (const auto& range : found) {
        auto [start, end] = form.normalized.originalRange(range.start, range.end);
        accepted.push_back({start, end});
    }
    if (accepted.empty()) return false;
    const std::string_view tokenText = token(detector.kind);
    const std::u16string replacement(tokenText.begin(), tokenText.end());
    // Last to first, so the earlier ranges stay valid.
    for (auto it = accepted.rbegin(); it != accepted.rend(); ++it)
        current.replace(size_t(it->start), size_t(it->end - it->start), replacement);
    report.add(detector.kind, int64_t(accepted.size()));
    return true;
}

struct Scan {
    bool numeric = false;
    bool wellFormed = true;
};

// Every life-level pattern needs a digit, so text without any numeric character needs no regex work. The
// first pass has no early exit so that it vectorises; only text outside ASCII needs the second.
Scan scanUTF8(const std::string& text) {
    Scan scan;
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    const size_t size = text.size();
    uint8_t asciiDigit = 0, highBit = 0;
    for (size_t i = 0; i < size; ++i) {
        asciiDigit |= uint8_t(uint8_t(bytes[i] - '0') < 10);
        highBit |= bytes[i];
    }
    if (asciiDigit) {
        scan.numeric = true;
        return scan;
    }
    if (highBit < 0x80) return scan;
    const int32_t length = int32_t(size);
    for (int32_t i = 0; i < length;) {
        if (i + 8 <= length) {
            uint64_t word;
            std::memcpy(&word, bytes + i, sizeof word);
            if ((word & 0x8080808080808080ull) == 0) {
                i += 8;
                continue;
            }
        }
        if (bytes[i] < 0x80) {
            ++i;
            continue;
        }
        UChar32 c;
        U8_NEXT(bytes, i, length, c);
        if (c < 0) {
            scan.wellFormed = false;
        } else if (u_getIntPropertyValue(c, UCHAR_NUMERIC_TYPE) != U_NT_NONE) {
            scan.numeric = true;
            break;
        }
    }
    return scan;
}

RedactionResult redactWith(const std::string& text, Scope scope, Search search) {
    if (scope == Scope::lifeLevel) {
        Scan scan = scanUTF8(text);
        if (!scan.numeric) return {scan.wellFormed ? text : privacy_icu::toUTF8(privacy_icu::toUTF16(text)), {}};
    }
    const auto& list = scope == Scope::outbound ? detectors().outbound : detectors().lifeLevel;
    std::u16string current = privacy_icu::toUTF16(text);
    RedactionReport report;
    auto plain = std::make_unique<Form>(current, FormatCharacters::kept);
    for (const Detector& detector : list) {
        // With invisible characters present, the form without them goes first: through the plain form a
        // detector would match only the digits before a zero-width space and leave the rest visible. The
        // plain form still follows, for values that an invisible character merely ends.
        if (plain->normalized.containsFormatCharacters()) {
            Form removed(current, FormatCharacters::removed);
            if (apply(detector, removed, search, current, report))
                plain = std::make_unique<Form>(current, FormatCharacters::kept);
        }
        if (apply(detector, *plain, search, current, report))
            plain = std::make_unique<Form>(current, FormatCharacters::kept);
    }
    return {privacy_icu::toUTF8(current), std::move(report)};
}

}  // namespace

void prepare() { (void)detectors(); }

RedactionResult redact(const std::string& text, Scope scope) { return redactWith(text, scope, Search::byStartRules); }

RedactionResult redactByFullScan(const std::string& text, Scope scope) {
    return redactWith(text, scope, Search::fullScan);
}

std::optional<std::string> redact(const std::optional<std::string>& text, Scope scope, RedactionReport& into) {
    if (!text) return std::nullopt;
    auto result = redact(*text, scope);
    into.merge(result.report);
    return std::move(result.text);
}

}  // namespace aimwise::SensitiveIdentifierRedaction
