#include "AimwiseCore/privacy/sensitive_sites.h"

#include <algorithm>
#include <vector>

#include "AimwiseCore/privacy/icu_regex.h"
#include "AimwiseCore/privacy/sensitive_sites_matching.h"

namespace aimwise::SensitiveSites {

// The domain tables are registrable domains, lower case, without a leading dot; a subdomain matches too.
// Chosen from public knowledge of where people in the US most often bank, pay and look after their health:
// the largest retail banks and credit unions, the card issuers, the big brokers, the payment and money
// transfer apps, tax filing (including the tax authority), and the three credit bureaus; the phrase table
// below names most of the same institutions, so a title and a URL of one site agree. The medical table
// holds large provider systems with their own patient portals, the two national pharmacy chains, the two
// national laboratories, telehealth and online therapy services, consumer genetic testing, patient-portal
// hosts, and the largest health insurers.
const std::array<std::string_view, 32> financialDomains = {
    "chase.com",        "bankofamerica.com", "wellsfargo.com", "citi.com",       "citibank.com",
    "capitalone.com",   "usbank.com",        "pnc.com",        "truist.com",     "navyfederal.org",
    "usaa.com",         "ally.com",          "chime.com",      "sofi.com",       "americanexpress.com",
    "discover.com",     "schwab.com",        "fidelity.com",   "vanguard.com",   "etrade.com",
    "robinhood.com",    "paypal.com",        "venmo.com",      "wise.com",       "coinbase.com",
    "intuit.com",       "irs.gov",           "hrblock.com",    "creditkarma.com", "experian.com",
    "equifax.com",      "transunion.com",
};

const std::array<std::string_view, 18> medicalDomains = {
    "kp.org",       "mayoclinic.org", "clevelandclinic.org", "cvs.com",         "walgreens.com", "questdiagnostics.com",
    "labcorp.com",  "zocdoc.com",     "teladoc.com",         "goodrx.com",      "betterhelp.com", "talkspace.com",
    "23andme.com",  "onemedical.com", "followmyhealth.com",  "uhc.com",         "aetna.com",      "cigna.com",
};

// Health systems serve this portal under their own domains.
const std::array<std::string_view, 1> medicalHostLabels = {"mychart"};

const std::array<std::string_view, 16> financialTitlePhrases = {
    "Bank of America", "Wells Fargo", "Capital One", "Charles Schwab", "American Express", "Navy Federal",
    "Credit Karma",    "Citibank",    "USAA",        "PayPal",         "Venmo",            "TurboTax",
    "Experian",        "Equifax",     "TransUnion",  "Online Banking",
};

const std::array<std::string_view, 13> medicalTitlePhrases = {
    "MyChart", "Patient Portal", "Kaiser Permanente", "Quest Diagnostics", "Labcorp",  "Zocdoc",
    "Teladoc", "GoodRx",         "BetterHelp",        "Talkspace",         "23andMe", "One Medical",
    "FollowMyHealth",
};

std::string_view rawValue(Category category) {
    return category == Category::financial ? "financial" : "medical";
}

namespace {

bool isWhiteSpace(UChar32 c) { return ICU::get().u_hasBinaryProperty(c, UCHAR_WHITE_SPACE); }

std::u16string_view trimmedWhiteSpace(std::u16string_view text) {
    const auto at = [&](int32_t i) { return unicode::char32At(text, i); };
    int32_t start = 0, end = int32_t(text.size());
    while (start < end && isWhiteSpace(at(start))) start += U16_LENGTH(at(start));
    while (end > start && isWhiteSpace(at(end - 1))) end -= U16_LENGTH(at(end - 1));
    return text.substr(size_t(start), size_t(end - start));
}

bool isASCIIAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isASCIIDigit(char c) { return c >= '0' && c <= '9'; }
bool isHex(char c) { return isASCIIDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

// The host of a URL in the generic syntax; absent when the text is not a URL or has no authority.
std::optional<std::string> urlHost(const std::string& url) {
    if (url.empty()) return std::nullopt;
    for (size_t i = 0; i < url.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(url[i]);
        if (c <= 0x20 || c == 0x7F || std::string_view("\"<>\\^`{|}").find(char(c)) != std::string_view::npos)
            return std::nullopt;
        if (c == '%' && (i + 2 >= url.size() || !isHex(url[i + 1]) || !isHex(url[i + 2]))) return std::nullopt;
    }
    std::string_view rest = url;
    if (isASCIIAlpha(url[0])) {
        size_t end = 1;
        while (end < url.size() && (isASCIIAlpha(url[end]) || isASCIIDigit(url[end]) || url[end] == '+' ||
                                    url[end] == '-' || url[end] == '.'))
            ++end;
        if (end < url.size() && url[end] == ':') rest = rest.substr(end + 1);
    }
    if (rest.substr(0, 2) != "//") return std::nullopt;
    std::string_view authority = rest.substr(2, rest.find_first_of("/?#", 2) - 2);
    if (auto at = authority.rfind('@'); at != std::string_view::npos) authority = authority.substr(at + 1);
    std::string_view hostPart, port;
    if (!authority.empty() && authority.front() == '[') {
        size_t close = authority.find(']');
        if (close == std::string_view::npos) return std::nullopt;
        hostPart = authority.substr(1, close - 1);
        std::string_view after = authority.substr(close + 1);
        if (!after.empty()) {
            if (after.front() != ':') return std::nullopt;
            port = after.substr(1);
        }
    } else {
        size_t colon = authority.find(':');
        hostPart = authority.substr(0, colon);
        if (colon != std::string_view::npos) port = authority.substr(colon + 1);
    }
    if (!std::all_of(port.begin(), port.end(), isASCIIDigit)) return std::nullopt;
    return std::string(hostPart);
}

bool endsWithDomain(std::u16string_view host, std::string_view domain) {
    std::u16string wide(domain.begin(), domain.end());
    if (host == wide) return true;
    return host.size() > wide.size() && host.substr(host.size() - wide.size()) == wide &&
           host[host.size() - wide.size() - 1] == u'.';
}

std::u16string lowercased(std::u16string_view text) { return unicode::toLower(text, ""); }

bool isTokenCharacter(UChar32 c) {
    if (c == '.' || c == '-') return true;
    int8_t category = ICU::get().u_charType(c);
    bool letter = category >= U_UPPERCASE_LETTER && category <= U_OTHER_LETTER;
    bool mark = category == U_NON_SPACING_MARK || category == U_ENCLOSING_MARK || category == U_COMBINING_SPACING_MARK;
    return letter || mark || ICU::get().u_getIntPropertyValue(c, UCHAR_NUMERIC_TYPE) != U_NT_NONE;
}

std::u16string_view trimmedDotsAndDashes(std::u16string_view token) {
    while (!token.empty() && (token.front() == u'.' || token.front() == u'-')) token.remove_prefix(1);
    while (!token.empty() && (token.back() == u'.' || token.back() == u'-')) token.remove_suffix(1);
    return token;
}

std::u16string escapedForPattern(std::string_view phrase) {
    std::u16string out;
    for (char c : phrase) {
        if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) out.push_back(u'\\');
        out.push_back(char16_t(c));
    }
    return out;
}

template <size_t N>
std::unique_ptr<privacy_icu::Pattern> titlePattern(const char* name, const std::array<std::string_view, N>& phrases) {
    std::u16string source = u"(?<![A-Za-z0-9])(?:";
    for (size_t i = 0; i < N; ++i) {
        if (i) source += u"|";
        source += escapedForPattern(phrases[i]);
    }
    source += u")(?![A-Za-z0-9])";
    return privacy_icu::compileOrAbort(name, privacy_icu::toUTF8(source));
}

const privacy_icu::Pattern& financialTitleRegex() {
    static const auto pattern = titlePattern("the financial title phrases", financialTitlePhrases);
    return *pattern;
}

const privacy_icu::Pattern& medicalTitleRegex() {
    static const auto pattern = titlePattern("the medical title phrases", medicalTitlePhrases);
    return *pattern;
}

}  // namespace

std::optional<Category> categoryForHost(std::u16string_view host) {
    const std::u16string lower = lowercased(host);
    std::u16string_view trimmed = lower;
    while (!trimmed.empty() && trimmed.front() == u'.') trimmed.remove_prefix(1);
    while (!trimmed.empty() && trimmed.back() == u'.') trimmed.remove_suffix(1);
    if (trimmed.empty()) return std::nullopt;
    for (auto domain : financialDomains)
        if (endsWithDomain(trimmed, domain)) return Category::financial;
    for (auto domain : medicalDomains)
        if (endsWithDomain(trimmed, domain)) return Category::medical;
    for (size_t start = 0; start <= trimmed.size();) {
        size_t dot = std::min(trimmed.find(u'.', start), trimmed.size());
        std::u16string_view label = trimmed.substr(start, dot - start);
        for (auto wanted : medicalHostLabels)
            if (label == std::u16string(wanted.begin(), wanted.end())) return Category::medical;
        start = dot + 1;
    }
    return std::nullopt;
}

std::optional<Category> categoryMentionedIn(std::u16string_view text) {
    const std::u16string lower = lowercased(text);
    const auto at = [&](int32_t i) { return unicode::char32At(lower, i); };
    const int32_t length = int32_t(lower.size());
    for (int32_t i = 0; i < length;) {
        while (i < length && !isTokenCharacter(at(i))) i += U16_LENGTH(at(i));
        int32_t start = i;
        while (i < length && isTokenCharacter(at(i))) i += U16_LENGTH(at(i));
        std::u16string_view token =
            trimmedDotsAndDashes(std::u16string_view(lower).substr(size_t(start), size_t(i - start)));
        if (token.empty()) continue;
        if (token.find(u'.') != std::u16string_view::npos) {
            if (auto found = categoryForHost(token)) return found;
        } else if (token == u"mychart") {
            return Category::medical;
        }
    }
    return std::nullopt;
}

std::optional<Category> categoryInTitleForms(const std::vector<std::u16string>& forms) {
    for (const auto& form : forms)
        if (auto found = categoryMentionedIn(std::u16string_view(form))) return found;
    for (const auto& form : forms) {
        std::u16string_view text = form;
        if (privacy_icu::matchesAnywhere(financialTitleRegex(), text)) return Category::financial;
        if (privacy_icu::matchesAnywhere(medicalTitleRegex(), text)) return Category::medical;
    }
    return std::nullopt;
}

std::vector<std::u16string> titleForms(const std::u16string& title) {
    auto plain = NormalizedIdentifierText::build(title, FormatCharacters::kept);
    std::vector<std::u16string> forms{std::u16string(plain.text())};
    if (plain.containsFormatCharacters())
        forms.emplace_back(NormalizedIdentifierText::build(title, FormatCharacters::removed).text());
    return forms;
}

std::optional<std::string> host(const std::string& text) {
    std::string trimmed = privacy_icu::toUTF8(trimmedWhiteSpace(privacy_icu::toUTF16(text)));
    if (auto found = urlHost(trimmed); found && !found->empty()) return found;
    if (auto found = urlHost("https://" + trimmed); found && !found->empty()) return found;
    return std::nullopt;
}

std::optional<Category> categoryForHost(const std::string& host) {
    return categoryForHost(std::u16string_view(privacy_icu::toUTF16(host)));
}

std::optional<Category> categoryMentionedIn(const std::string& text) {
    return categoryMentionedIn(std::u16string_view(privacy_icu::toUTF16(text)));
}

std::optional<Category> categoryInTitle(const std::string& title) {
    return categoryInTitleForms(titleForms(privacy_icu::toUTF16(title)));
}

std::optional<Category> category(const FrontOfScreen& state) {
    if (!state.browserApp || !state.frontmostApp || *state.browserApp != *state.frontmostApp) return std::nullopt;
    if (state.browserURL)
        if (auto found = host(*state.browserURL))
            if (auto hit = categoryForHost(*found)) return hit;
    for (const auto* text : {&state.frontmostWindowTitle, &state.browserTitle})
        if (*text)
            if (auto hit = categoryMentionedIn(**text)) return hit;
    return std::nullopt;
}

}  // namespace aimwise::SensitiveSites
