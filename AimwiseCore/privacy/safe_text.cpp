#include "AimwiseCore/privacy/safe_text.h"

#include "AimwiseCore/privacy/outbound_title_privacy.h"
#include "AimwiseCore/privacy/screen_text.h"

namespace aimwise::SafeText {

namespace {

using Scope = SensitiveIdentifierRedaction::Scope;

template <class Redact>
RedactionResult cleanWith(const std::string& text, std::optional<int> cap, Redact redact) {
    RedactionResult result = redact(text);
    RedactionResult shown = redact(ScreenText::sanitize(result.text));
    result.report.merge(shown.report);
    result.text = std::move(shown.text);
    if (cap) {
        // Already sanitised, so sanitising again only cuts.
        std::string cut = ScreenText::sanitize(result.text, cap);
        if (cut != result.text) {
            RedactionResult again = redact(cut);
            result.report.merge(again.report);
            result.text = std::move(again.text);
        }
    }
    return result;
}

}  // namespace

RedactionResult clean(const std::string& text, Scope scope, std::optional<int> cap) {
    return cleanWith(text, cap, [&](const std::string& step) { return SensitiveIdentifierRedaction::redact(step, scope); });
}

std::optional<std::string> clean(const std::optional<std::string>& text, Scope scope, RedactionReport& into,
                                 std::optional<int> cap) {
    if (!text) return std::nullopt;
    RedactionResult result = clean(*text, scope, cap);
    into.merge(result.report);
    return std::move(result.text);
}

RedactionResult cleanReason(const std::string& reason) {
    return cleanWith(reason, ScreenText::reasonCap, [](const std::string& step) {
        RedactionResult result = SensitiveIdentifierRedaction::redact(step, Scope::lifeLevel);
        result.text = OutboundTitlePrivacy::redactIdentifierValues(result.text);
        return result;
    });
}

}  // namespace aimwise::SafeText
