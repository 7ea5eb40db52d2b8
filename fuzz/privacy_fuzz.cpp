// Arbitrary bytes through every outbound filter: no crash, no hang, and well-formed UTF-8 out.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "AimwiseCore/privacy/outbound_title_privacy.h"
#include "AimwiseCore/privacy/screen_text.h"
#include "AimwiseCore/privacy/secret_redaction.h"
#include "AimwiseCore/privacy/sensitive_identifier_redaction.h"
#include "AimwiseCore/privacy/sensitive_sites.h"

namespace {

bool wellFormedUTF8(const std::string& text) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    size_t i = 0, n = text.size();
    while (i < n) {
        unsigned char b = bytes[i];
        size_t length;
        uint32_t scalar;
        if (b < 0x80) {
            ++i;
            continue;
        } else if (b >= 0xC2 && b <= 0xDF) {
            length = 2;
            scalar = b & 0x1F;
        } else if (b >= 0xE0 && b <= 0xEF) {
            length = 3;
            scalar = b & 0x0F;
        } else if (b >= 0xF0 && b <= 0xF4) {
            length = 4;
            scalar = b & 0x07;
        } else {
            return false;
        }
        if (i + length > n) return false;
        for (size_t k = 1; k < length; ++k) {
            if ((bytes[i + k] & 0xC0) != 0x80) return false;
            scalar = (scalar << 6) | (bytes[i + k] & 0x3F);
        }
        if ((length == 3 && scalar < 0x800) || (length == 4 && (scalar < 0x10000 || scalar > 0x10FFFF)) ||
            (scalar >= 0xD800 && scalar <= 0xDFFF))
            return false;
        i += length;
    }
    return true;
}

void check(const std::string& output, const char* what) {
    if (!wellFormedUTF8(output)) {
        std::fprintf(stderr, "%s returned ill-formed UTF-8\n", what);
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    using namespace aimwise;
    const int cap = data[0] % 40;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);

    for (auto scope : {SensitiveIdentifierRedaction::Scope::lifeLevel, SensitiveIdentifierRedaction::Scope::outbound}) {
        auto result = SensitiveIdentifierRedaction::redact(text, scope);
        check(result.text, "redact");
        check(result.report.summary(), "summary");
        // Trying only the positions where a match can begin must find what a full scan finds.
        auto full = SensitiveIdentifierRedaction::redactByFullScan(text, scope);
        if (full.text != result.text || !(full.report == result.report)) {
            std::fprintf(stderr, "start rules and full scan disagree\n");
            std::abort();
        }
    }

    check(SecretRedaction::redact(text), "SecretRedaction::redact");

    const std::string sanitized = ScreenText::sanitize(text);
    check(sanitized, "sanitize");
    // A quoted span must not be closable from inside.
    if (sanitized.find('"') != std::string::npos) {
        std::fprintf(stderr, "sanitize let a quotation mark through\n");
        std::abort();
    }
    check(ScreenText::sanitize(text, cap), "sanitize with cap");
    check(ScreenText::quoted(text, cap), "quoted");

    check(OutboundTitlePrivacy::sanitize(text), "OutboundTitlePrivacy::sanitize");
    check(OutboundTitlePrivacy::redactIdentifierValues(text), "redactIdentifierValues");
    (void)OutboundTitlePrivacy::outcome(text);
    check(OutboundTitlePrivacy::summary(OutboundTitlePrivacy::placeholderCounts(text)), "title summary");
    if (auto host = SensitiveSites::host(text)) (void)SensitiveSites::categoryForHost(*host);
    (void)SensitiveSites::categoryInTitle(text);
    return 0;
}
