#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"

#include <algorithm>
#include <array>
#include <map>
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

// The look-arounds that bound a detector's match, as its pattern states them. A match found through a
// disguise form must also be bounded so in the plain form: folding a comma between digits into a space must
// not turn "4111111111111111,5", which the detectors leave alone, into a card number followed by a 5.
struct Edges {
    const char* before;
    const char* after;
};

constexpr const char* wordStart = R"re((?:(?<!\w)|(?<=\\[nrt])))re";
constexpr const char* numberStart = R"re((?:(?<![\w\-./])|(?<=\\[nrt])))re";
constexpr const char* numberEnd = R"re((?![\d\-]|[.,]\d))re";
constexpr Edges ibanEdges{wordStart, R"re(\b)re"};
constexpr Edges labelledDigitsEdges{wordStart, R"re((?!\d))re"};
constexpr Edges accountEdges{wordStart, R"re((?![\w\-]|[.,]\d))re"};
constexpr Edges labelledCardEdges{wordStart, numberEnd};
constexpr Edges bareNumberEdges{numberStart, numberEnd};

struct Detector {
    Kind kind;
    std::unique_ptr<privacy_icu::Pattern> regex;
    int32_t group;
    Validator validate;
    MatchStartRule starts;
    const privacy_icu::Pattern* before;
    const privacy_icu::Pattern* after;
    bool widensPrevious;
    bool containsPrevious;
};

struct DetectorSource {
    const char* name;
    Kind kind;
    const char* pattern;
    int32_t group;
    Validator validate;
    MatchStartRule starts = {};
    Edges edges = {};
    // A loosely written form of the detector before it: the two read the same text in one round.
    bool widensPrevious = false;
    // Every match of the detector before it is also one of this, with a value no shorter.
    bool containsPrevious = false;
};

using Rule = MatchStartRule::Kind;

// Where a grouped number can begin: runs of digits of these lengths joined by separators, or a run alone.
MatchStartRule digitGroups(std::vector<std::vector<int>> groups, std::vector<int> alone = {}) {
    return {Rule::digitRunStarts, std::move(alone), {}, std::move(groups)};
}
MatchStartRule labels(std::vector<std::string_view> words) { return {Rule::wordsIgnoringCase, {}, std::move(words)}; }
MatchStartRule literals(std::vector<std::string_view> words) { return {Rule::words, {}, std::move(words)}; }
MatchStartRule countryCodes(Rule kind) { return {kind, {}, {}}; }

bool alwaysTrue(std::u16string_view) { return true; }

// Order matters: what an earlier detector has replaced, a later one cannot see. The bare 3-2-4 pattern is
// tried as an ITIN before the routing, account and card detectors and as an SSN only after them, so a
// number that a stronger detector claims is reported as that.
//
// Each detector marked "written loosely" follows the one it widens (the card layouts follow the last card
// detector, so that a card glued to its label is seen whole) and keeps its kind, validator and bounds: it finds what people also write, such as "SSN No.", "routing number is:", an IBAN grouped by
// dashes or in lower case, an unlabelled SSN grouped by spaces, a card in pairs or grouped 4-4-4-3. It reads
// the same text as its original, and where their values overlap they are redacted as one. Where a variant
// contains its original, the original is not tried where the variant already found a value.
std::vector<DetectorSource> lifeLevelSources() {
    const std::vector<std::string_view> ssnLabels = {"ssn", "ss#", "social"};
    const std::vector<std::string_view> routingLabels = {"routing", "aba", "rtn", "transit"};
    const std::vector<std::string_view> accountLabels = {"bank", "checking", "savings", "deposit", "account", "acct"};
    return {
    {"life-level detector 1 (IBAN)", Kind::bankAccountNumber,
     R"re((?:(?<!\w)|(?<=\\[nrt]))([A-Z]{2}\d{2}(?: ?[A-Z0-9]{4}){2,7}(?: ?[A-Z0-9]{1,3})?)\b)re", 1,
     V::isValidIBAN, countryCodes(Rule::upperPairBeforeDigits), ibanEdges},
    {"life-level detector 1, written loosely", Kind::bankAccountNumber,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))([A-Z]{2}\d{2}(?:[ -]?[A-Z0-9]{4}){2,7}(?:[ -]?[A-Z0-9]{1,3})?)\b)re", 1,
     V::isValidLooselyWrittenIBAN, countryCodes(Rule::letterPairBeforeDigits), ibanEdges, true, true},
    {"life-level detector 2 (labelled SSN)", Kind::ssn,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))(?:ssn|ss#|social\s+security(?:\s+(?:number|no\.?|num|#))?)(?:\s*(?:is|:|#|=|-)\s*)?(?:\s|\\[nrt])*(\d{3}(?:[ \t\r\n./-]{1,2})?\d{2}(?:[ \t\r\n./-]{1,2})?\d{4})(?!\d))re",
     1, V::isValidSSN, labels(ssnLabels), labelledDigitsEdges},
    {"life-level detector 2, written loosely", Kind::ssn,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))(?:ssn|ss#|social\s+security)(?:\s*(?:number|nbr|no\.?|num|#))?(?:\s*(?:is|:|#|=|-)){0,2}(?:\s|\\[nrt])*(\d{3}(?:[ \t\r\n./-]{1,2})?\d{2}(?:[ \t\r\n./-]{1,2})?\d{4})(?!\d))re",
     1, V::isValidSSN, labels(ssnLabels), labelledDigitsEdges, true, true},
    {"life-level detector 3 (labelled ITIN)", Kind::ssn,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))itin(?:\s+(?:number|no\.?|num|#))?(?:\s*(?:is|:|#|=|-)\s*)?(?:\s|\\[nrt])*(\d{3}(?:[ \t\r\n./-]{1,2})?\d{2}(?:[ \t\r\n./-]{1,2})?\d{4})(?!\d))re",
     1, V::isValidITIN, labels({"itin"}), labelledDigitsEdges},
    {"life-level detector 3, written loosely", Kind::ssn,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))itin(?:\s*(?:number|nbr|no\.?|num|#))?(?:\s*(?:is|:|#|=|-)){0,2}(?:\s|\\[nrt])*(\d{3}(?:[ \t\r\n./-]{1,2})?\d{2}(?:[ \t\r\n./-]{1,2})?\d{4})(?!\d))re",
     1, V::isValidITIN, labels({"itin"}), labelledDigitsEdges, true, true},
    {"life-level detector 4 (bare ITIN)", Kind::ssn,
     R"re((?:(?<![\w\-./])|(?<=\\[nrt]))(\d{3}-\d{2}-\d{4})(?![\d\-]|[.,]\d))re", 1, V::isValidITIN, digitGroups({{3, 2, 4}}),
     bareNumberEdges},
    // Grouped by blanks, a 3-2-4 number must stand apart from other digit groups.
    {"life-level detector 4, written loosely", Kind::ssn,
     R"re((?:(?<![\w\-./])(?<![0-9][ \t]{1,2})|(?<=\\[nrt]))(\d{3}[ \t]{1,2}\d{2}[ \t]{1,2}\d{4})(?![\d\-]|[.,]\d|[ \t]{1,2}\d))re",
     1, V::isValidITIN, digitGroups({{3, 2, 4}}), bareNumberEdges, true},
    {"life-level detector 5 (labelled routing number)", Kind::bankRoutingNumber,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))(?:routing|aba|rtn|transit)(?:\s+(?:number|no\.?|num|#))?(?:\s*(?:is|:|#|=|-)\s*)?(?:\s|\\[nrt])*(\d{3}(?:[ \t\r\n./-]{1,2})?\d{3}(?:[ \t\r\n./-]{1,2})?\d{3})(?!\d))re",
     1, V::isValidABARoutingNumber, labels(routingLabels), labelledDigitsEdges},
    {"life-level detector 5, written loosely", Kind::bankRoutingNumber,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))(?:routing|aba|rtn|transit)(?:\s*(?:number|nbr|no\.?|num|#))?(?:\s*(?:is|:|#|=|-)){0,2}(?:\s|\\[nrt])*(\d{3}(?:[ \t\r\n./-]{1,2})?\d{3}(?:[ \t\r\n./-]{1,2})?\d{3})(?!\d))re",
     1, V::isValidABARoutingNumber, labels(routingLabels), labelledDigitsEdges, true, true},
    {"life-level detector 6 (labelled account number)", Kind::bankAccountNumber,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))(?:(?:bank|checking|savings|deposit)\s+account(?:\s+(?:number|no\.?|num|#))?|(?:account|acct)\.?(?:\s*(?:number|no\.?|num|#)|(?=\s*:)))(?:\s*(?:is|:|#|=|-)\s*)?(?:\s|\\[nrt])*(\d{2,6}(?:[ -]\d{2,6}){1,4}|\d{4,17})(?![\w\-]|[.,]\d))re",
     1, V::isPlausibleAccountNumber, labels(accountLabels), accountEdges},
    {"life-level detector 6, written loosely", Kind::bankAccountNumber,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))(?:(?:bank|checking|savings|deposit)\s+account(?:\s*(?:number|nbr|no\.?|num|#))?|(?:account|acct)\.?(?:\s*(?:number|nbr|no\.?|num|#)|(?=\s*:)))(?:\s*(?:is|:|#|=|-)){0,2}(?:\s|\\[nrt])*(\d{2,6}(?:[ -]\d{2,6}){1,7}|\d{4,17})(?![\w\-]|[.,]\d))re",
     1, V::isPlausibleAccountNumber, labels(accountLabels), accountEdges, true, true},
    {"life-level detector 7 (19-digit card)", Kind::cardNumber,
     R"re((?:(?<![\w\-./])|(?<=\\[nrt]))(\d{4}[ \t\r\n./-]{1,2}\d{4}[ \t\r\n./-]{1,2}\d{4}[ \t\r\n./-]{1,2}\d{4}[ \t\r\n./-]{1,2}\d{3})(?![\d\-]|[.,]\d))re",
     1, V::isValidCardNumber, digitGroups({{4, 4, 4, 4, 3}}), bareNumberEdges},
    {"life-level detector 8 (card)", Kind::cardNumber,
     R"re((?:(?<![\w\-./])|(?<=\\[nrt]))(\d{4}[ \t\r\n./-]{1,2}\d{4}[ \t\r\n./-]{1,2}\d{4}[ \t\r\n./-]{1,2}\d{4}|\d{4}[ \t\r\n./-]{1,2}\d{6}[ \t\r\n./-]{1,2}\d{4,5}|\d{15,16})(?![\d\-]|[.,]\d))re",
     1, V::isValidCardNumber, digitGroups({{4, 4, 4, 4}, {4, 6, 4}, {4, 6, 5}}, {15, 16}), bareNumberEdges},
    {"life-level detector 9 (labelled card)", Kind::cardNumber,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))(?:card(?:\s*(?:number|no\.?|#))?|visa|mastercard|amex|discover)(\d{4}(?:[ \t\r\n./-]{1,2})?\d{4}(?:[ \t\r\n./-]{1,2})?\d{4}(?:[ \t\r\n./-]{1,2})?\d{4}(?:(?:[ \t\r\n./-]{1,2})?\d{3})?|\d{4}(?:[ \t\r\n./-]{1,2})?\d{6}(?:[ \t\r\n./-]{1,2})?\d{4,5})(?![\d\-]|[.,]\d))re",
     1, V::isValidCardNumber, labels({"card", "visa", "mastercard", "amex", "discover"}), labelledCardEdges},
    {"life-level card detectors, written loosely as 4-4-4-3", Kind::cardNumber,
     R"re((?:(?<![\w\-./])|(?<=\\[nrt]))(\d{4}[ \t\r\n./-]{1,2}\d{4}[ \t\r\n./-]{1,2}\d{4}[ \t\r\n./-]{1,2}\d{3})(?![\d\-]|[.,]\d))re",
     1, V::isValidCardNumber, digitGroups({{4, 4, 4, 3}}), bareNumberEdges, true},
    // Pairs are the commonest grouping of all, so the whole run of groups must be the number.
    {"life-level card detectors, written loosely in pairs", Kind::cardNumber,
     R"re((?:(?<![\w\-./])(?<![0-9][ \t\r\n./-]{1,2})|(?<=\\[nrt]))(\d{2}(?:[ \t\r\n./-]{1,2}\d{2}){5,8}(?:[ \t\r\n./-]{1,2}\d{1,3})?)(?![\d\-]|[.,]\d|[ \t\r\n./-]{1,2}\d))re",
     1, V::isValidCardNumber, digitGroups({{2, 2, 2, 2, 2, 2}}), bareNumberEdges, true},
    {"life-level detector 10 (bare SSN)", Kind::ssn,
     R"re((?:(?<![\w\-./])|(?<=\\[nrt]))(\d{3}-\d{2}-\d{4})(?![\d\-]|[.,]\d))re", 1, V::isValidSSN, digitGroups({{3, 2, 4}}),
     bareNumberEdges},
    {"life-level detector 10, written loosely", Kind::ssn,
     R"re((?:(?<![\w\-./])(?<![0-9][ \t]{1,2})|(?<=\\[nrt]))(\d{3}[ \t]{1,2}\d{2}[ \t]{1,2}\d{4})(?![\d\-]|[.,]\d|[ \t]{1,2}\d))re",
     1, V::isValidSSN, digitGroups({{3, 2, 4}}), bareNumberEdges, true},
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
    {"credential detector 5, written loosely", Kind::credential,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))Bearer(?:\s+token)?(?:\s*[:=]\s*|\s+)([A-Za-z0-9._~+/=-]{20,}))re", 1,
     V::mixesLettersAndDigits, labels({"bearer"}), {}, true, true},
    {"credential detector 6 (basic authorization)", Kind::credential,
     R"re((?i)(?:(?<!\w)|(?<=\\[nrt]))Authorization:\s*Basic\s+([A-Za-z0-9+/]{16,}={0,2}))re", 1, alwaysTrue, labels({"authorization"})},
    {"credential detector 7 (secret field)", Kind::credential,
     R"re((?i)(?:(?<![A-Za-z0-9])|(?<=\\[nrt]))(?:api[_-]?key|secret[_-]?(?:access[_-]?)?key|access[_-]?token|auth[_-]?token|client[_-]?secret|password|passwd)\b"?\s*[:=]\s*"?([^\s"',;()\[\]{}&?#]{8,}))re",
     1, V::hasNumericAndNoDot, labels({"api", "secret", "access", "auth", "client", "password", "passwd"})},
    {"credential detector 7, written loosely", Kind::credential,
     R"re((?i)(?:(?<![A-Za-z0-9])|(?<=\\[nrt]))(?:api[_-]?key|secret[_-]?(?:access[_-]?)?key|access[_-]?token|auth[_-]?token|client[_-]?secret|password|passwd)\b"?(?:\s*[:=]|\s+is\b:?)\s*"?([^\s"',;()\[\]{}&?#]{8,}))re",
     1, V::hasNumericAndNoDot, labels({"api", "secret", "access", "auth", "client", "password", "passwd"}), {}, true, true},
    };
}

// A list of detectors and the bounds patterns they share.
struct CompiledDetectors {
    std::vector<Detector> detectors;
    std::map<std::string_view, std::unique_ptr<privacy_icu::Pattern>> edges;

    explicit CompiledDetectors(const std::vector<DetectorSource>& sources) {
        for (const auto& source : sources)
            detectors.push_back({source.kind, privacy_icu::compileOrAbort(source.name, source.pattern), source.group,
                                 source.validate, source.starts, edge(source.edges.before), edge(source.edges.after),
                                 source.widensPrevious, source.containsPrevious});
    }

    const privacy_icu::Pattern* edge(const char* source) {
        if (!source) return nullptr;
        auto& slot = edges[source];
        if (!slot) slot = privacy_icu::compileOrAbort("a detector's bounds", source);
        return slot.get();
    }
};

std::vector<const Detector*> inOrder(std::initializer_list<const CompiledDetectors*> parts) {
    std::vector<const Detector*> list;
    for (const CompiledDetectors* part : parts)
        for (const Detector& detector : part->detectors) list.push_back(&detector);
    return list;
}

// Each list is compiled when first needed, and the life-level patterns once for both scopes: a
// compiled pattern holds memory for as long as the process runs, and the capture agent, which runs
// all day, cleans titles with the life-level list alone.
const std::vector<const Detector*>& detectors(Scope scope) {
    static const CompiledDetectors lifeLevel(lifeLevelSources());
    if (scope == Scope::outbound) {
        static const CompiledDetectors credentials(credentialSources());
        // The credential detectors followed by the life-level ones.
        static const std::vector<const Detector*> outbound = inOrder({&credentials, &lifeLevel});
        return outbound;
    }
    static const std::vector<const Detector*> lifeLevelList = inOrder({&lifeLevel});
    return lifeLevelList;
}

// A normalised form with the facts its start rules read.
struct Form {
    NormalizedIdentifierText normalized;
    MatchStartIndex index;

    Form(const std::u16string& text, FormatCharacters formatCharacters, Disguises disguises)
        : normalized(NormalizedIdentifierText::build(text, formatCharacters, disguises)), index(normalized.text()) {}
};

// The forms of the current text, each built once, when first asked for.
class Forms {
public:
    explicit Forms(std::u16string& current) : current_(current) {}

    const Form& get(FormatCharacters formatCharacters, Disguises disguises) {
        auto& slot = slots_[size_t(formatCharacters) * 3 + size_t(disguises)];
        if (!slot) slot = std::make_unique<Form>(current_, formatCharacters, disguises);
        return *slot;
    }
    const Form& plain() { return get(FormatCharacters::kept, Disguises::none); }
    // Forms no detector still to run will read are neither kept up to date nor kept.
    void release(Disguises disguises) {
        slots_[size_t(FormatCharacters::kept) * 3 + size_t(disguises)].reset();
        slots_[size_t(FormatCharacters::removed) * 3 + size_t(disguises)].reset();
    }

    // Blanks out a found value in the text and in every form built so far. The blank stands for the token
    // that replaces the value at the end: like every token it opens with "[", closes with "]" and holds no
    // digit, letter or separator, so no later detector can see a difference, and keeping the length keeps
    // every form and offset valid without building anything again.
    void blankOut(const std::vector<privacy_icu::Range>& ranges) {
        for (auto range : ranges)
            for (int32_t i = range.start; i < range.end; ++i)
                current_[size_t(i)] = i == range.start ? u'[' : i + 1 == range.end ? u']' : u'*';
        for (auto& slot : slots_) {
            if (!slot) continue;
            std::vector<std::pair<int32_t, int32_t>> blanked;
            for (auto range : ranges) blanked.push_back(slot->normalized.blankOut(range.start, range.end, u"[*]"));
            slot->index.blankedOut(blanked);
        }
    }

private:
    std::u16string& current_;
    std::array<std::unique_ptr<Form>, 6> slots_;
};

enum class Search { byStartRules, fullScan };

// The text a disguise form was built from, when it differs from the detectors' own form of the same kind:
// a match found there must also be bounded as that form would bound it.
struct OwnForm {
    const std::u16string& original;
    FormatCharacters formatCharacters;
};

bool holdsInOwnForm(const privacy_icu::Pattern& lookArounds, const OwnForm& own, int32_t originalOffset) {
    auto around = formNeighbourhood(own.original, originalOffset, own.formatCharacters);
    return privacy_icu::holdsAt(lookArounds, around.text, around.at);
}

bool isDetectorSeparator(char16_t unit) {
    return unit == u' ' || unit == u'\t' || unit == u'\r' || unit == u'\n' || unit == u'.' || unit == u'/' || unit == u'-';
}

// One or two separators and a digit: another group of the same number.
bool digitGroupFollows(std::u16string_view text, int32_t at) {
    size_t i = size_t(at);
    for (int separators = 0; i < text.size() && separators < 2 && isDetectorSeparator(text[i]); ++separators) ++i;
    return i > size_t(at) && i < text.size() && text[i] >= u'0' && text[i] <= u'9';
}

// Longer than any number with its label: a match of a life-level detector starting further than this
// before any difference between two readings of a text is one that both make.
constexpr int32_t sameReadingReach = 96;

// The original ranges of every validated match of one detector in one form. With `onlyNear`, only matches
// that start near one of its ascending positions are looked for, and none that starts at one of
// `skipStarts`; `acceptedStarts` collects where in the form each accepted match starts.
std::vector<privacy_icu::Range> accepted(const Detector& detector, const Form& form,
                                         const std::optional<OwnForm>& boundsCheck, Search search,
                                         const std::vector<int32_t>* onlyNear = nullptr,
                                         const std::vector<int32_t>* skipStarts = nullptr,
                                         std::vector<int32_t>* acceptedStarts = nullptr) {
    const NormalizedIdentifierText& seen = form.normalized;
    auto lookedFor = [&](int32_t matchStart) {
        if (skipStarts && std::binary_search(skipStarts->begin(), skipStarts->end(), matchStart)) return false;
        if (!onlyNear) return true;
        auto next = std::lower_bound(onlyNear->begin(), onlyNear->end(), matchStart - 2);
        return next != onlyNear->end() && *next <= matchStart + sameReadingReach;
    };
    std::u16string_view text = seen.text();
    std::u16string_view haystack = text;
    const auto& folds = seen.foldEnds();
    auto firstFoldAfter = [&](int32_t at) { return std::upper_bound(folds.begin(), folds.end(), at); };
    // Away from every fold, this form reads the neighbourhood of a position as the detectors' own form does,
    // and the pattern's own look-arounds have already decided.
    auto foldNear = [&](int32_t at) {
        auto fold = std::lower_bound(folds.begin(), folds.end(), at - 3);
        return fold != folds.end() && *fold <= at + 4;
    };
    auto startsInOwnForm = [&](int32_t matchStart) {
        return !boundsCheck || !foldNear(matchStart) ||
               holdsInOwnForm(*detector.before, *boundsCheck, seen.originalRange(matchStart, matchStart).first);
    };
    auto accept = [&](privacy_icu::Range match, privacy_icu::Range value, bool shortened) {
        if (!lookedFor(match.start)) return false;
        if (!detector.validate(text.substr(size_t(value.start), size_t(value.end - value.start)))) return false;
        if (!boundsCheck) return true;
        const int32_t originalEnd = seen.originalRange(match.start, match.end).second;
        if (!startsInOwnForm(match.start) ||
            (foldNear(match.end) && !holdsInOwnForm(*detector.after, *boundsCheck, originalEnd)))
            return false;
        // Cut short to pass its check, a match reaching over a fold must not stop where the detectors' own form
        // sees the number go on: an account number would otherwise take the first groups of the card after it.
        auto fold = firstFoldAfter(match.start);
        if (!shortened || fold == folds.end() || *fold >= match.end) return true;
        auto after = formNeighbourhood(boundsCheck->original, originalEnd, boundsCheck->formatCharacters);
        return !digitGroupFollows(after.text, after.at);
    };
    auto acceptAndNote = [&](privacy_icu::Range match, privacy_icu::Range value, bool shortened) {
        const bool taken = accept(match, value, shortened);
        if (taken && acceptedStarts) acceptedStarts->push_back(match.start);
        return taken;
    };
    // Through a disguise a match can start where the plain form refuses one, or reach over a folded comma
    // into the next number. Refused, it must not hide what the plain form would find: the search goes on
    // after the start when the plain form refuses that start, else after the first fold inside the match.
    auto resume = [&](int32_t matchStart, int32_t matchEnd) {
        if (!lookedFor(matchStart)) return matchStart + 1;
        if (!boundsCheck) return matchEnd;
        if (!startsInOwnForm(matchStart)) return matchStart + 1;
        auto fold = firstFoldAfter(matchStart);
        return fold != folds.end() && *fold < matchEnd ? *fold : matchEnd;
    };
    auto starts = search == Search::byStartRules ? form.index.starts(detector.starts) : std::nullopt;
    if (starts) std::erase_if(*starts, [&](int32_t at) { return !lookedFor(at); });
    auto found = starts ? privacy_icu::findAllAcceptedAt(*detector.regex, haystack, detector.group, *starts,
                                                         acceptAndNote, resume)
                        : privacy_icu::findAllAccepted(*detector.regex, haystack, detector.group, acceptAndNote, resume);
    for (auto& range : found) {
        auto [start, end] = seen.originalRange(range.start, range.end);
        range = {start, end};
    }
    return found;
}

struct Redacted {
    privacy_icu::Range range;
    Kind kind;
};

// Redacts what any reading found, where readings overlap as one value. The reading without invisible
// characters can join a neighbour to a number and shift its groups, and the plain one can stop at an
// invisible character inside it, so no one reading may decide what is left visible. Each merged value counts
// as many identifiers as the reading that saw most of them there.

void replace(Kind kind, const std::vector<std::vector<privacy_icu::Range>>& readings, Forms& forms,
             std::vector<Redacted>& redacted, RedactionReport& report) {
    struct Found {
        privacy_icu::Range range;
        size_t reading;
    };
    std::vector<Found> all;
    for (size_t r = 0; r < readings.size(); ++r)
        for (auto range : readings[r]) all.push_back({range, r});
    std::sort(all.begin(), all.end(), [](const Found& a, const Found& b) { return a.range.start < b.range.start; });
    struct Merged {
        privacy_icu::Range range;
        std::vector<int64_t> counts;
    };
    std::vector<Merged> merged;
    for (const Found& found : all) {
        if (merged.empty() || found.range.start >= merged.back().range.end)
            merged.push_back({found.range, std::vector<int64_t>(readings.size(), 0)});
        Merged& last = merged.back();
        last.range.end = std::max(last.range.end, found.range.end);
        ++last.counts[found.reading];
    }
    std::vector<privacy_icu::Range> ranges;
    for (const Merged& value : merged) {
        ranges.push_back(value.range);
        redacted.push_back({value.range, kind});
        report.add(kind, *std::max_element(value.counts.begin(), value.counts.end()));
    }
    if (!ranges.empty()) forms.blankOut(ranges);
}

std::u16string withTokens(const std::u16string& blanked, std::vector<Redacted> redacted) {
    std::sort(redacted.begin(), redacted.end(),
              [](const Redacted& a, const Redacted& b) { return a.range.start < b.range.start; });
    std::u16string out;
    out.reserve(blanked.size());
    int32_t at = 0;
    for (const Redacted& value : redacted) {
        out.append(blanked, size_t(at), size_t(value.range.start - at));
        const std::string_view text = token(value.kind);
        out.append(text.begin(), text.end());
        at = value.range.end;
    }
    out.append(blanked, size_t(at));
    return out;
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
        } else if (ICU::get().u_getIntPropertyValue(c, UCHAR_NUMERIC_TYPE) != U_NT_NONE) {
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
    const auto& list = detectors(scope);
    std::u16string current = privacy_icu::toUTF16(text);
    RedactionReport report;
    Forms forms(current);
    std::vector<Redacted> redacted;
    for (size_t first = 0; first < list.size();) {
        size_t end = first + 1;
        while (end < list.size() && list[end]->widensPrevious) ++end;
        // Credentials are read as written, less invisible characters beside blanks and label punctuation:
        // their values legitimately hold commas and underscores. Numbers are read through their disguises,
        // and what is found there must be bounded as in the plain form.
        const Kind kind = list[first]->kind;
        const bool credential = kind == Kind::credential;
        if (!credential && first > 0 && list[first - 1]->kind == Kind::credential) {
            forms.release(Disguises::none);
            forms.release(Disguises::invisible);
        }
        const Disguises disguises = credential ? Disguises::invisible : Disguises::separators;
        const Form& plain = credential ? forms.plain() : forms.get(FormatCharacters::kept, disguises);
        // With invisible characters present, the form without them is read too: through the plain form a
        // detector would match only the digits before a zero-width space and leave the rest visible.
        const Form* removed = nullptr;
        if (plain.normalized.containsFormatCharacters() || (!credential && plain.normalized.containsMarksAfterDigits()))
            removed = &forms.get(FormatCharacters::removed, disguises);
        auto boundsCheck = [&](const Form& form, FormatCharacters formatCharacters) {
            return !credential && form.normalized.disguised() ? std::optional<OwnForm>({current, formatCharacters})
                                                               : std::nullopt;
        };
        std::vector<std::vector<privacy_icu::Range>> readings;
        // Where each form's containing variant found values, by start in that form.
        std::vector<int32_t> foundInRemoved, foundInPlain;
        // Last to first, so that a variant containing its original is read before it.
        for (size_t d = end; d-- > first;) {
            const bool noting = d + 1 < end && list[d + 1]->containsPrevious;
            if (!noting) {
                foundInRemoved.clear();
                foundInPlain.clear();
            }
            const bool noteForNext = list[d]->containsPrevious;
            // Only near where it joined two neighbours does the reading without invisible characters differ;
            // a credential's value, unlike a number, can reach arbitrarily far.
            if (removed) {
                std::vector<int32_t> starts;
                readings.push_back(accepted(*list[d], *removed, boundsCheck(*removed, FormatCharacters::removed), search,
                                            credential ? nullptr : &removed->normalized.joins(),
                                            noting ? &foundInRemoved : nullptr,
                                            noteForNext ? &starts : nullptr));
                foundInRemoved = std::move(starts);
            }
            std::vector<int32_t> starts;
            readings.push_back(accepted(*list[d], plain, boundsCheck(plain, FormatCharacters::kept), search, nullptr,
                                        noting ? &foundInPlain : nullptr, noteForNext ? &starts : nullptr));
            foundInPlain = std::move(starts);
        }
        replace(kind, readings, forms, redacted, report);
        first = end;
    }
    return {privacy_icu::toUTF8(withTokens(current, std::move(redacted))), std::move(report)};
}

}  // namespace

void prepare() {
    (void)detectors(Scope::lifeLevel);
    (void)detectors(Scope::outbound);
}

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
